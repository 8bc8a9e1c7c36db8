// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Everything the library offers.

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/ScopedThreadName.h>
#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
#include <vesko/external_input.h>
#include <vesko/handle.h>
#include <vesko/source_location.h>
