// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <ThreadUtilities/Sampling.h>

namespace ThreadUtilities {

/// As `node.add(first, last)` done so many times.
void addSamples(Tree& node, const Tree::FrameIterator& first, const Tree::FrameIterator& last,
                unsigned long long times);

}  // namespace ThreadUtilities
