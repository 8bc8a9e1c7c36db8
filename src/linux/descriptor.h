// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <utility>

#include "linux/kernel_calls.h"

namespace ThreadUtilities::platform {

/// Owns a file descriptor; a negative number, the kernel's error too, stands for none. Closed
/// without a cancellation point.
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
            kernelCall(SYS_close, fd);
        }
    }

    bool isOpen() const noexcept { return fd >= 0; }
    int get() const noexcept { return fd; }

 private:
    int fd = -1;
};

}  // namespace ThreadUtilities::platform
