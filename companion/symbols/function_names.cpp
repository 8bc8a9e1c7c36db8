// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/function_names.h"

#include <cxxabi.h>

#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace ThreadUtilities::companion {
namespace {

constexpr std::string_view operatorWord = "operator";

bool isWordCharacter(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

/// The length of `operator<<` and its like at `at`, whose angles are no brackets; 0 if there is
/// none.
std::size_t angleOperatorLength(std::string_view name, std::size_t at) {
    if (!name.substr(at).starts_with(operatorWord) || (at > 0 && isWordCharacter(name[at - 1]))) {
        return 0;
    }
    const std::string_view sign = name.substr(at + operatorWord.size());
    for (const std::string_view known :
         {"<<=", ">>=", "<=>", "->*", "<<", ">>", "<=", ">=", "->", "<", ">"}) {
        if (sign.starts_with(known)) {
            return operatorWord.size() + known.size();
        }
    }
    return 0;
}

}  // namespace

std::string demangle(const char* name) {
    if (name[0] != '_' || name[1] != 'Z') {
        return name;
    }
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(
        abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
    return status == 0 && text ? text.get() : name;
}

std::string withoutTemplateArguments(std::string_view name) {
    std::string result;
    std::size_t depth = 0;
    for (std::size_t at = 0; at < name.size(); ++at) {
        const std::size_t length = angleOperatorLength(name, at);
        if (length > 0) {
            if (depth == 0) {
                result += name.substr(at, length);
            }
            at += length - 1;
        } else if (name[at] == '<') {
            ++depth;
        } else if (name[at] == '>' && depth > 0) {
            --depth;
        } else if (depth == 0) {
            result += name[at];
        }
    }
    // Brackets that do not match are none: better too much than nothing.
    return depth == 0 ? result : std::string(name);
}

}  // namespace ThreadUtilities::companion
