// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <windows.h>

namespace ThreadUtilities::platform {

/// Owns a kernel handle that is null when opening it failed.
class Handle {
 public:
    explicit Handle(HANDLE handle) noexcept : handle_(handle) {}
    ~Handle() {
        if (handle_ != nullptr) {
            CloseHandle(handle_);
        }
    }

    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    explicit operator bool() const noexcept { return handle_ != nullptr; }
    HANDLE get() const noexcept { return handle_; }

 private:
    HANDLE handle_;
};

}  // namespace ThreadUtilities::platform
