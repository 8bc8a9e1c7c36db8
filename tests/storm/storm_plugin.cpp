// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Built several times with different frame sizes. When one is unloaded, the next may take its
// place in memory.

extern "C" __attribute__((visibility("default"), noinline)) unsigned int stormWork(
    unsigned int rounds) {
    volatile unsigned int ballast[STORM_FRAME_WORDS];
    ballast[0] = rounds;
    for (unsigned int i = 1; i < STORM_FRAME_WORDS; ++i) {
        ballast[i] = ballast[i - 1] * 1664525U + 1013904223U;
    }
    return rounds == 0 ? ballast[STORM_FRAME_WORDS - 1]
                       : stormWork(rounds - 1) + ballast[STORM_FRAME_WORDS - 1];
}
