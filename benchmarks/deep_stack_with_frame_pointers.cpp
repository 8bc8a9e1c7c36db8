// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "deep_stack.h"

namespace deep_stack {
namespace {
#include "deep_stack_frames.inc"
}  // namespace

void callWithFramePointers(int depth, Body body, void* state) {
    enter<100>(depth, body, state);
}

}  // namespace deep_stack
