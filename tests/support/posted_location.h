// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <thread>

#include <vesko/external_input.h>
#include <vesko/source_location.h>

/// Runs `body` on a thread of its own, which has no name, no hint and no store at first.
template <typename Body>
void onFreshThread(Body body) {
    std::thread(body).join();
}

/// A location (a.cpp:1:f) made on a thread with this hint, and with a store when `store` wants it.
inline vesko::source::location postedFrom(
    const vesko::external_input::hint& posted,
    std::shared_ptr<vesko::external_input::context_store>* store = nullptr) {
    vesko::source::location result = vesko::source::location::current();
    onFreshThread([&] {
        posted.setAsExternalInputHint();
        if (store != nullptr) {
            *store = vesko::external_input::context_store::getOrCreateStore();
        }
        result = vesko::source::location::current("a.cpp", 1, "f");
    });
    return result;
}
