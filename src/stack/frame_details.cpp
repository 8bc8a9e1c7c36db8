// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/frame_details.h"

#include <ThreadUtilities/StackTrace.h>

#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>

#include "foundation/ascii.h"
#include "platform/current.h"
#include "platform/modules.h"
#include "stack/module_manager.h"

namespace ThreadUtilities {
namespace {

/// The last piece of a path that is not empty; empty for a path of separators alone.
WideStringView fileNameOf(WideStringView path) {
    while (!path.empty() && platform::isModulePathSeparator(path.back())) {
        path.remove_suffix(1);
    }
    std::size_t begin = path.size();
    while (begin > 0 && !platform::isModulePathSeparator(path[begin - 1])) {
        --begin;
    }
    return path.substr(begin);
}

void appendUpperCaseHex(WideString& text, unsigned long long number) {
    char digits[16];
    const char* const end = std::to_chars(digits, digits + sizeof(digits), number, 16).ptr;
    for (const char* digit = digits; digit != end; ++digit) {
        text += static_cast<WideChar>(*digit >= 'a' ? *digit - 'a' + 'A' : *digit);
    }
}

/// Wide text as `std::wstring`: the same units where `wchar_t` has 16 bits, whole characters
/// where it has 32.
std::wstring toWstring(const WideString& text) {
    if constexpr (sizeof(wchar_t) == sizeof(WideChar)) {
        return std::wstring(text.begin(), text.end());
    } else {
        std::wstring result;
        result.reserve(text.size());
        for (std::size_t index = 0; index < text.size(); ++index) {
            char32_t character = text[index];
            const bool isPair = (character & 0xFC00) == 0xD800 && index + 1 < text.size() &&
                                (text[index + 1] & 0xFC00) == 0xDC00;
            if (isPair) {
                character = 0x10000 + ((character & 0x3FF) << 10) + (text[++index] & 0x3FF);
            }
            result += static_cast<wchar_t>(character);
        }
        return result;
    }
}

}  // namespace

WideString describeFrame(unsigned int processId, unsigned long long address) {
    const unsigned int process = processId != 0 ? processId : platform::currentProcessId();
    const ModuleRecord module = ModuleManager::getInstance()->findModule(process, address);
    if (module.path.empty()) {
        return {};
    }
    WideString text(fileNameOf(module.path));
    text += wide<"+0x">;
    appendUpperCaseHex(text, address - module.moduleInfo->lpBaseOfDll);
    text += wide<"{">;
    text += module.pdbGuid;
    text += wide<"};">;
    return text;
}

std::wstring getFrameDetails(const unsigned int& processId, unsigned long long address) {
    return toWstring(describeFrame(processId, address));
}

}  // namespace ThreadUtilities
