// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/loader_list.h"

#include <atomic>
#include <cstddef>

#include "platform/fork_child.h"

namespace ThreadUtilities::platform {
namespace {

constinit std::atomic<int> walksUnderWay{0};
constinit bool lockIsLost = false;

// The thread that forks is in no walk, because a walk runs no code but this library's.
// So those under way are other threads', and do not go on in the child.
RestartInForkChild noteAbandonedWalks([] { lockIsLost |= walksUnderWay.exchange(0) != 0; });

}  // namespace

bool walkLoaderList(int (*visit)(dl_phdr_info*, std::size_t, void*), void* state) noexcept {
    if (lockIsLost) {
        return false;
    }
    ++walksUnderWay;
    dl_iterate_phdr(visit, state);
    --walksUnderWay;
    return true;
}

}  // namespace ThreadUtilities::platform
