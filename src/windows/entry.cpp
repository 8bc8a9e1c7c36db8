// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "windows/entry.h"

#include <windows.h>

#include <exception>

#include "platform/current.h"
#include "platform/notices.h"
#include "windows/thread_exit.h"

namespace ThreadUtilities::platform {
namespace {

template <class... Arguments>
void handOn(void (*handler)(Arguments...), Arguments... arguments) noexcept {
    try {
        handler(arguments...);
    } catch (const std::exception&) {
    }
}

// A module that is unloaded gives back neither the system's slots nor those of the compiler's
// run-time, of which a process has about a thousand; a thread may stand in its code, or may have
// values whose release it has promised. Therefore it stays, as do the run-time's own DLLs. Should
// the system refuse, there is nobody to tell.
void stayLoaded() noexcept {
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<const wchar_t*>(reinterpret_cast<const void*>(stayLoaded)),
                       &self);
}

}  // namespace

void attachProcess() noexcept {
    stayLoaded();
    handOn(onProcessAttach);
}

void attachThread() noexcept {
    handOn(onThreadAttach);
}

void detachThread() noexcept {
    callAtThreadExit();
    handOn(onThreadDetach, currentThreadId());
}

}  // namespace ThreadUtilities::platform
