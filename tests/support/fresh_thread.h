// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <thread>

/// Runs `body` on a thread of its own, which has no name, no hint and no store at first.
template <typename Body>
void onFreshThread(Body body) {
    std::thread(body).join();
}
