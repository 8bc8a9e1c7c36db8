// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Sockets of a process's network namespace, by their inode.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace ThreadUtilities::companion {

/// Reads the kernel's tables once, when it is first asked.
class Sockets {
 public:
    explicit Sockets(std::filesystem::path processFolder) : folder(std::move(processFolder)) {}

    /// "TCP 127.0.0.1:80 with 127.0.0.1:40000", "TCP 127.0.0.1:80 (listening)", "UNIX /run/x";
    /// "socket INODE" where no table has it.
    const std::string& describe(std::uint64_t inode);

 private:
    void readInternet(const char* file, std::string_view protocol);
    void readUnix();

    std::filesystem::path folder;
    std::optional<std::unordered_map<std::uint64_t, std::string>> known;
};

/// The kernel's way of writing an address, "0100007F:1F90", as people write it: 127.0.0.1:8080,
/// [::1]:8080. Nothing for anything else.
std::optional<std::string> internetAddress(std::string_view kernelText);

}  // namespace ThreadUtilities::companion
