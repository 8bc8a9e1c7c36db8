// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_names.h"

#include <string>
#include <string_view>

#include <ThreadUtilities/Threads.h>

#include "platform/current.h"
#include "platform/text.h"

namespace ThreadUtilities {
namespace {

// Names are ASCII nearly always, and then the converters would change nothing. Without an early
// end, so that the compiler takes many bytes at once.
bool isAscii(std::string_view text) noexcept {
    char allBits = 0;
    for (const char byte : text) {
        allBits = static_cast<char>(allBits | byte);
    }
    return static_cast<unsigned char>(allBits) < 0x80;
}

std::string wellFormed(std::string_view text) {
    return wideToUtf8(utf8ToWide(text));
}

}  // namespace

void setThreadName(const std::string& name) {
    const std::string_view text = std::string_view(name).substr(0, name.find('\0'));
    if (isAscii(text)) {
        platform::setOwnThreadName(text);
    } else {
        platform::setOwnThreadName(wellFormed(text));
    }
}

std::string getThreadName(unsigned int threadId) {
    std::string name = platform::readThreadName(threadId);
    return isAscii(name) ? name : wellFormed(name);
}

std::string getThreadName() {
    return getThreadName(getThreadId());
}

}  // namespace ThreadUtilities
