// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// So many functions that what is alike in two of these is all that comes first in the tables.
#define FUNCTION(name)    \
    int name(int value) { \
        return value * 3; \
    }
#define FOUR(name) FUNCTION(name##0) FUNCTION(name##1) FUNCTION(name##2) FUNCTION(name##3)
#define SIXTEEN(name) FOUR(name##0) FOUR(name##1) FOUR(name##2) FOUR(name##3)
// clang-format off
SIXTEEN(a)
SIXTEEN(b)
SIXTEEN(c)
SIXTEEN(d)
// clang-format on

int callThrough(int (*callback)(void)) {
    volatile long frame[FRAME_WORDS];
    frame[0] = 1;
    return callback() + (int)frame[0];
}

// A rebuilt library has its functions elsewhere, and may have the size that it had.
#if FRAME_WORDS == 100
FUNCTION(small)
#endif
int large(volatile int* value) {
    return value[0] + value[1] * value[2] + value[3] * value[4] + value[5] * value[6] + value[7];
}
#if FRAME_WORDS != 100
FUNCTION(small)
#endif
