// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace ThreadUtilities::companion {
namespace {

constexpr std::size_t stepsPerLook = 64;

}  // namespace

Progress::Progress()
    : isTerminal(isatty(STDERR_FILENO) != 0),
      next(std::chrono::steady_clock::now() + std::chrono::seconds(1)) {}

Progress::~Progress() {
    clear();
}

void Progress::step() {
    if (!isTerminal || ++done % stepsPerLook != 0 || std::chrono::steady_clock::now() < next) {
        return;
    }
    next = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    isShown = true;
    std::fprintf(stderr, "\rnaming frames: %zu of %zu", done, total);
    std::fflush(stderr);
}

void Progress::clear() {
    if (isShown) {
        isShown = false;
        std::fputs("\r\033[K", stderr);
    }
}

}  // namespace ThreadUtilities::companion
