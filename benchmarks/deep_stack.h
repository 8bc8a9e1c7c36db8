// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace deep_stack {

using Body = void (*)(void* state);

/// Calls `body` below `depth` (at most 100) frames of different functions, with frames of different
/// sizes, all compiled without frame pointers.
void callWithoutFramePointers(int depth, Body body, void* state);

/// The same with frame pointers.
void callWithFramePointers(int depth, Body body, void* state);

}  // namespace deep_stack
