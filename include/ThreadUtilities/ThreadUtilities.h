#pragma once

/// \file
/// Everything the library offers.

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
