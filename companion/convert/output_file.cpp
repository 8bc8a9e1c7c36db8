// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "convert/output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace ThreadUtilities::companion {
namespace {

/// As the kernel.
constexpr int mostLinks = 40;

[[noreturn]] void fail(const std::filesystem::path& path, int error) {
    throw std::runtime_error(path.string() +
                             ": cannot be written: " + std::generic_category().message(error));
}

/// Also where nothing is there yet, which the C++ library takes for the end of the way.
std::filesystem::path behindLinks(std::filesystem::path path) {
    std::error_code ignored;
    for (int links = 0; std::filesystem::is_symlink(std::filesystem::symlink_status(path, ignored));
         ++links) {
        if (links == mostLinks) {
            fail(path, ELOOP);
        }
        path = path.parent_path() / std::filesystem::read_symlink(path, ignored);
    }
    return path;
}

}  // namespace

void keepInput(const std::filesystem::path& input, const std::filesystem::path& output) {
    std::error_code ignored;
    if (std::filesystem::is_regular_file(output, ignored) &&
        std::filesystem::equivalent(input, output, ignored)) {
        throw std::runtime_error(output.string() + ": is the input, which would be lost");
    }
}

OutputFile::OutputFile(std::filesystem::path target) : path(std::move(target)) {
    isStandardOutput = path == "-";
    if (isStandardOutput) {
        return;
    }
    std::error_code ignored;
    const std::filesystem::file_status status = std::filesystem::status(path, ignored);
    if (std::filesystem::is_directory(status)) {
        fail(path, EISDIR);
    }
    const bool isReplaced =
        !std::filesystem::exists(status) || std::filesystem::is_regular_file(status);
    if (isReplaced) {
        // A link stays one, and a file keeps its rights.
        path = behindLinks(path);
        if (std::filesystem::exists(status) && access(path.c_str(), W_OK) != 0) {
            fail(path, errno);
        }
        beside = path;
        beside += "." + std::to_string(getpid()) + ".part";
        const int descriptor = open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor < 0) {
            const int error = errno;
            beside.clear();
            fail(path, error);
        }
        close(descriptor);
        if (std::filesystem::exists(status)) {
            std::filesystem::permissions(beside, status.permissions(), ignored);
        }
    }
    file.open(beside.empty() ? path : beside, std::ios::binary | std::ios::trunc);
    if (!file) {
        fail(path, errno);
    }
}

OutputFile::~OutputFile() {
    if (!beside.empty()) {
        std::error_code ignored;
        std::filesystem::remove(beside, ignored);
    }
}

std::ostream& OutputFile::stream() {
    return isStandardOutput ? std::cout : file;
}

void OutputFile::commit() {
    errno = 0;
    stream().flush();
    bool isWhole = stream().good();
    if (file.is_open()) {
        file.close();
        isWhole = isWhole && !file.fail();
    }
    if (!isWhole) {
        fail(path, errno == 0 ? EIO : errno);
    }
    if (!beside.empty()) {
        std::filesystem::rename(beside, path);
        beside.clear();
    }
}

}  // namespace ThreadUtilities::companion
