// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <vesko/external_input.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "external_input/thread_values.h"
#include "foundation/random.h"

namespace vesko::external_input {
namespace {

// Wide enough never to overflow. Relaxed: ids need not be unique, so nothing is ordered by it.
constinit std::atomic<std::uint64_t> hintCounter{0};

std::string make_hint_id() {
    const int drawn = randomIntHook(0, 999, false);
    const std::uint64_t created = hintCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    std::string digits = std::to_string(drawn * 1000 + static_cast<int>(created % 1000));
    return "hint" + std::string(6 - digits.size(), '0') + digits;
}

// The texts are complete before this is called, so the thread's hint is replaced as a whole.
void set_thread_hint(std::string id, std::string name) {
    if (thread_values* values = obtain_thread_values()) {
        values->threadHint.id = std::move(id);
        values->threadHint.name = std::move(name);
    }
}

const hint* find_thread_hint() noexcept {
    const thread_values* values = find_thread_values();
    return values != nullptr && !values->threadHint.name.empty() ? &values->threadHint : nullptr;
}

}  // namespace

hint::hint() = default;
hint::hint(const hint& other) = default;
hint::hint(const std::string& hintId, const std::string& hintName) : name(hintName), id(hintId) {}
hint::~hint() = default;

std::string hint::getHintId() const {
    return id;
}

std::string hint::getHintName() const {
    return name;
}

void hint::setAsExternalInputHint() const {
    set_thread_hint(id, name);
}

scoped_hint hint::createExternalInputHint(const std::string& name) {
    return scoped_hint(make_hint_id(), name);
}

std::shared_ptr<hint> hint::getExternalInputHint() {
    const hint* current = find_thread_hint();
    return current != nullptr ? std::make_shared<hint>(*current) : nullptr;
}

std::string hint::getExternalInputHintId() {
    const hint* current = find_thread_hint();
    return current != nullptr ? current->id : std::string();
}

std::string hint::getExternalInputHintName() {
    const hint* current = find_thread_hint();
    return current != nullptr ? current->name : std::string();
}

void hint::clearExternalInputHint() {
    // A thread without values has no hint to clear; none are made for that.
    if (thread_values* values = find_thread_values()) {
        values->threadHint.id.clear();
        values->threadHint.name.clear();
    }
}

scoped_hint::scoped_hint(std::string id, std::string name) {
    set_thread_hint(std::move(id), std::move(name));
}

scoped_hint::~scoped_hint() {
    hint::clearExternalInputHint();
}

scoped_hint& scoped_hint::operator=(const scoped_hint&) {
    return *this;
}

std::ostream& operator<<(std::ostream& os, const hint& h) {
    return os << h.name << ' ' << h.id;
}

}  // namespace vesko::external_input
