// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <exception>

namespace ThreadUtilities {

/// Whether what is being handled is the end of the thread and no exception. Some systems end a
/// thread that exits or is cancelled by unwinding its stack; `catch (...)` is entered then as well,
/// and must be left by `throw;`, or the system ends the whole process.
///
/// That unwinding is foreign to C++, and the standard libraries have no `std::exception_ptr` for
/// what is foreign. Precondition: the caller stands in a handler.
inline bool isEndOfThread() noexcept {
    return std::current_exception() == nullptr;
}

/// Drops every exception of `steps`; what they left undone stays undone. The end of the thread
/// passes, therefore this is not `noexcept`.
template <typename Steps>
void dropExceptions(Steps steps) {
    try {
        steps();
    } catch (...) {
        if (isEndOfThread()) {
            throw;
        }
    }
}

}  // namespace ThreadUtilities
