// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <link.h>

#include <cstddef>

namespace ThreadUtilities::platform {

/// `dl_iterate_phdr`. False, without a call of `visit`, where its lock is lost: the loader takes it
/// for each walk and does not free it in a fork child, so in one that was made while
/// another thread walked here, the next walk would wait for ever.
bool walkLoaderList(int (*visit)(dl_phdr_info*, std::size_t, void*), void* state) noexcept;

}  // namespace ThreadUtilities::platform
