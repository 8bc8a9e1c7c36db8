// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <vesko/external_input.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "external_input/thread_values.h"

namespace vesko::external_input {
namespace {

long long milliseconds_since_epoch() {
    const auto time = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

/// Shows a slot to readers when it ends, whether its text could be copied or not.
class publish_at_end {
 public:
    explicit publish_at_end(std::atomic<bool>& written) : isWritten(written) {}
    ~publish_at_end() { isWritten.store(true, std::memory_order_release); }

    publish_at_end(const publish_at_end&) = delete;
    publish_at_end& operator=(const publish_at_end&) = delete;

 private:
    std::atomic<bool>& isWritten;
};

}  // namespace

context_store::context_store() noexcept = default;
context_store::~context_store() = default;

void context_store::addEntry(const std::string& text) {
    append(false, text);
}

void context_store::addHeader(const std::string& text) {
    append(true, text);
}

// Because the increment hands every slot number to one caller alone, no two threads write the same
// slot; because the slot's flag is set with release after the slot was written for good, a reader
// that sees the flag with acquire sees the whole slot, and nobody writes it any more. Therefore
// neither side needs a lock.
//
// A full store is not counted further: the count goes past the capacity only by the threads that
// passed the first test before the last slot went, so it cannot overflow.
void context_store::append(bool isHeader, const std::string& text) {
    if (entryCount.load(std::memory_order_relaxed) >= maxEntries) {
        return;
    }
    const long long time = milliseconds_since_epoch();
    const std::int32_t slot = entryCount.fetch_add(1, std::memory_order_relaxed);
    if (slot >= maxEntries) {
        return;
    }
    publish_at_end publication(isWritten[slot]);
    auto& [slotIsHeader, slotTime, slotText] = entries[slot];
    slotIsHeader = isHeader;
    slotTime = time;
    slotText = text;
}

std::vector<std::tuple<bool, long long, std::string>> context_store::getEntries() {
    const std::int32_t count = std::min(entryCount.load(std::memory_order_relaxed), maxEntries);
    std::vector<std::tuple<bool, long long, std::string>> result;
    result.reserve(count);
    for (std::int32_t slot = 0; slot < count; ++slot) {
        if (isWritten[slot].load(std::memory_order_acquire)) {
            result.push_back(entries[slot]);
        }
    }
    return result;
}

std::shared_ptr<context_store> context_store::getOrCreateStore() {
    thread_values* values = obtain_thread_values();
    std::shared_ptr<context_store> store = values != nullptr ? values->threadStore.lock() : nullptr;
    if (store == nullptr) {
        store = std::make_shared<context_store>();
        if (values != nullptr) {
            values->threadStore = store;
        }
    }
    return store;
}

std::weak_ptr<context_store> context_store::getStore() {
    const thread_values* values = find_thread_values();
    return values != nullptr ? values->threadStore : std::weak_ptr<context_store>();
}

}  // namespace vesko::external_input
