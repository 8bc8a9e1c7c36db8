// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Code to step through, compiled once for every optimisation level.

namespace stepped {

#define STEPPED_CODE(level)       \
    namespace level {             \
    int realigned(int value);     \
    int variableSize(int value);  \
    int manyRegisters(int value); \
    int recursion(int value);     \
    int containers(int value);    \
    int callsThroughC(int value); \
    }
STEPPED_CODE(o0)
STEPPED_CODE(o1)
STEPPED_CODE(o2)
STEPPED_CODE(o3)
STEPPED_CODE(f0)  // with frame pointers
STEPPED_CODE(f2)
#undef STEPPED_CODE

}  // namespace stepped
