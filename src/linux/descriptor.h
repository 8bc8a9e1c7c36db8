// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <unistd.h>

#include <utility>

namespace ThreadUtilities::platform {

/// Owns a file descriptor; -1 stands for none.
class Descriptor {
 public:
    Descriptor() noexcept = default;
    explicit Descriptor(int number) noexcept : fd(number) {}
    Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }

    bool isOpen() const noexcept { return fd >= 0; }
    int get() const noexcept { return fd; }

 private:
    int fd = -1;
};

}  // namespace ThreadUtilities::platform
