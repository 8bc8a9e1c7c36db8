// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <vesko/source_location.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "external_input/source_file_name.h"
#include "external_input/thread_values.h"

namespace vesko::source {
namespace {

std::string_view text_or_empty(const char* text) noexcept {
    return text != nullptr ? std::string_view(text) : std::string_view();
}

/// The hint, or none when it could not be copied: a location without it beats no location.
std::shared_ptr<external_input::hint> capture_hint() noexcept {
    try {
        return external_input::hint::getExternalInputHint();
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

location::location(const char* sourceFile, const char* sourceFunction,
                   std::shared_ptr<external_input::hint> capturedHint,
                   std::weak_ptr<external_input::context_store> capturedStore,
                   std::uint32_t sourceLine) noexcept
    : file(sourceFile),
      function(sourceFunction),
      externalInputHint(std::move(capturedHint)),
      contextStore(std::move(capturedStore)),
      line(sourceLine) {}

location location::current(const char* file, int line, const char* function) noexcept {
    std::shared_ptr<external_input::hint> hint = capture_hint();
    std::weak_ptr<external_input::context_store> store = external_input::context_store::getStore();
    if (hint == nullptr && store.expired()) {
        store.reset();
    }
    return location(file, function, std::move(hint), std::move(store),
                    static_cast<std::uint32_t>(line));
}

std::string location::to_string() const {
    std::ostringstream text;
    text << *this;
    return std::move(text).str();
}

std::ostream& operator<<(std::ostream& os, const location& loc) {
    // A digit grouping of the stream's locale has no place in a line number.
    os << filenameFromPath(text_or_empty(loc.file)) << ':' << std::to_string(loc.line) << ':'
       << text_or_empty(loc.function);
    if (loc.externalInputHint != nullptr && !loc.externalInputHint->name.empty()) {
        os << " externalInputHint=" << *loc.externalInputHint;
    }
    return os;
}

}  // namespace vesko::source

namespace vesko::external_input {

void hint::copyThreadStorageIfNecessary(const source::location& loc) {
    if (loc.externalInputHint != nullptr) {
        const thread_values* values = find_thread_values();
        const std::string_view current =
            values != nullptr ? values->threadHint.id : std::string_view();
        if (loc.externalInputHint->id != current) {
            loc.externalInputHint->setAsExternalInputHint();
        }
    }
    if (!loc.contextStore.expired()) {
        if (thread_values* values = obtain_thread_values()) {
            values->threadStore = loc.contextStore;
        }
    }
}

}  // namespace vesko::external_input
