// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_names.h"

#include <windows.h>

#include "foundation/system_library.h"
#include "platform/system_library.h"
#include "platform/text.h"
#include "windows/handle.h"

namespace ThreadUtilities::platform {
namespace {

using GetThreadDescription = HRESULT(WINAPI*)(HANDLE thread, PWSTR* description);
using SetThreadDescription = HRESULT(WINAPI*)(HANDLE thread, PCWSTR description);

/// An entry point of "Kernel32.dll", which stays loaded if it has the entry point.
void* resolveKernel32Function(const char* name) {
    const LibraryHandle library = loadSystemLibrary(L"Kernel32.dll");
    if (library == nullptr) {
        return nullptr;
    }
    void* const entry = findEntryPoint(library, name);
    if (entry == nullptr) {
        closeLibrary(library);
    }
    return entry;
}

// Older systems have neither function. A look-up that failed is not repeated.

HRESULT getThreadDescription(HANDLE thread, PWSTR* description) {
    static const auto getThreadDescriptionEntry =
        reinterpret_cast<GetThreadDescription>(resolveKernel32Function("GetThreadDescription"));
    return getThreadDescriptionEntry != nullptr ? getThreadDescriptionEntry(thread, description)
                                                : E_FAIL;
}

HRESULT setThreadDescription(HANDLE thread, PCWSTR description) {
    static const auto setThreadDescriptionEntry =
        reinterpret_cast<SetThreadDescription>(resolveKernel32Function("SetThreadDescription"));
    return setThreadDescriptionEntry != nullptr ? setThreadDescriptionEntry(thread, description)
                                                : E_FAIL;
}

struct LocalText {
    ~LocalText() {
        if (text != nullptr) {
            LocalFree(text);
        }
    }
    PWSTR text = nullptr;
};

WideString readDescription(HANDLE thread) {
    LocalText description;
    // Success is any result that is not negative; systems have several.
    if (getThreadDescription(thread, &description.text) < 0 || description.text == nullptr) {
        return {};
    }
    return description.text;
}

}  // namespace

void setOwnThreadName(std::string_view name) {
    setThreadDescription(GetCurrentThread(), utf8ToWide(name).c_str());
}

std::string readThreadName(unsigned int threadId) {
    const Handle thread(OpenThread(THREAD_QUERY_INFORMATION, FALSE, threadId));
    return thread ? wideToUtf8(readDescription(thread.get())) : std::string();
}

}  // namespace ThreadUtilities::platform
