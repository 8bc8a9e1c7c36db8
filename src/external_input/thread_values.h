// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What every thread has for itself: its current hint and its current store.

#include <memory>

#include <vesko/external_input.h>

namespace vesko::external_input {

struct thread_values {
    hint threadHint;
    std::weak_ptr<context_store> threadStore;
};

/// The calling thread's values; null while it has none, which means empty ones.
thread_values* find_thread_values() noexcept;

/// The calling thread's values, made if it has none. Null when nothing would release them any
/// more; the caller then drops what it was going to keep.
thread_values* obtain_thread_values();

}  // namespace vesko::external_input
