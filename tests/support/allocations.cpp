// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "support/allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

constinit std::atomic<long> aliveBlocks{0};
constinit thread_local int allowedBlocks = -1;
using Call = void (*)();
constinit thread_local Call nextCall = nullptr;

}  // namespace

namespace allocations {

FailAfter::FailAfter(int allowed) {
    allowedBlocks = allowed;
}

FailAfter::~FailAfter() {
    allowedBlocks = -1;
}

void callFromNext(void (*call)()) {
    nextCall = call;
}

long alive() {
    return aliveBlocks;
}

}  // namespace allocations

void* operator new(std::size_t size) {
    if (const auto call = std::exchange(nextCall, nullptr)) {
        call();
    }
    if (allowedBlocks == 0) {
        throw std::bad_alloc();
    }
    allowedBlocks -= allowedBlocks > 0;
    void* block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    ++aliveBlocks;
    return block;
}

// Replaced as well, because a sanitizer's own would not be given back by the functions below.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void operator delete(void* block) noexcept {
    aliveBlocks -= block != nullptr;
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}
