// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <windows.h>

namespace ThreadUtilities::platform {

/// Owns a kernel handle that is null when opening it failed.
class Handle {
 public:
    explicit Handle(HANDLE owned) noexcept : handle(owned) {}
    ~Handle() {
        if (handle != nullptr) {
            CloseHandle(handle);
        }
    }

    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    explicit operator bool() const noexcept { return handle != nullptr; }
    HANDLE get() const noexcept { return handle; }

 private:
    HANDLE handle;
};

}  // namespace ThreadUtilities::platform
