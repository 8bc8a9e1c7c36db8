// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <filesystem>
#include <string>

namespace ThreadUtilities {

/// A folder of its own that goes with it.
struct ScratchFolder {
    ScratchFolder() {
        std::string pattern = std::filesystem::temp_directory_path() / "thread-utilities-XXXXXX";
        path = mkdtemp(pattern.data());
    }
    ~ScratchFolder() { std::filesystem::remove_all(path); }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    std::filesystem::path path;
};

}  // namespace ThreadUtilities
