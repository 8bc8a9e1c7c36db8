// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The page of page/, style and scripts included, as it stands before and behind its data.

#include <string_view>

namespace ThreadUtilities::companion {

extern const std::string_view pageBeforeData;
extern const std::string_view pageBehindData;

}  // namespace ThreadUtilities::companion
