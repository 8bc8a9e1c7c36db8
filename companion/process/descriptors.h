// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// What stands behind the descriptors of a process.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "process/sockets.h"

namespace ThreadUtilities::companion {

class Descriptors {
 public:
    explicit Descriptors(const std::filesystem::path& processFolder)
        : folder(processFolder), sockets(processFolder) {}

    /// "/var/log/a (descriptor 3)", "TCP ... (descriptor 4)", "pipe 123 (descriptor 5)";
    /// "descriptor 6" where nothing is known of it. A purpose stands behind the number.
    std::string describe(int descriptor, std::string_view purpose = {});

    struct Member {
        int descriptor = 0;
        std::uint32_t events = 0;
    };
    /// What an epoll descriptor watches.
    std::vector<Member> epollMembers(int descriptor) const;

 private:
    std::string fieldOf(int descriptor, std::string_view field) const;
    std::string nameOf(int descriptor);

    std::filesystem::path folder;
    Sockets sockets;
};

}  // namespace ThreadUtilities::companion
