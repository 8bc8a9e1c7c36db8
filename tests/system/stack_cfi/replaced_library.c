// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

int callThrough(int (*callback)(void)) {
    volatile long frame[FRAME_WORDS];
    frame[0] = 1;
    return callback() + (int)frame[0];
}
