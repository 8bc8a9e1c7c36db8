// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace allocations {

/// While one lives, every allocation of the calling thread fails once `allowed` of them were made.
class FailAfter {
 public:
    explicit FailAfter(int allowed);
    ~FailAfter();

    FailAfter(const FailAfter&) = delete;
    FailAfter& operator=(const FailAfter&) = delete;
};

/// Makes the call within the calling thread's next allocation.
void callFromNext(void (*call)());

/// Blocks from `operator new` that are not freed, in the whole process.
long alive();

}  // namespace allocations
