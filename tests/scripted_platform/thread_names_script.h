// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace ThreadUtilities::scripted {

struct ThreadNames {
    std::mutex mutex;
    std::map<unsigned int, std::string> byThread;  ///< as the system tells them, malformed or not
    std::vector<std::string> given;  ///< every name that the library gave, as it reached the system
};
inline ThreadNames threadNames;

}  // namespace ThreadUtilities::scripted
