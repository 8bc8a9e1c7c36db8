// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>

#include <array>
#include <string>
#include <string_view>
#include <utility>

#include <ThreadUtilities/Threads.h>

#include "foundation/text_conversion.h"
#include "platform/debugger.h"
#include "stack/frame_details.h"

namespace ThreadUtilities {
namespace {

constexpr std::string_view debuggerAttached = "debugger attached";
constexpr unsigned int callingProcess = 0;

/// One thread's stack as text. The capture has ended, and the thread runs again, before the first
/// frame is described: describing locks and allocates, which the standing thread might be in the
/// middle of itself.
std::string getThreadTrace(unsigned int threadId) {
    if (platform::isDebuggerAttached()) {
        return std::string(debuggerAttached);
    }
    std::array<unsigned long long, 256> frames = {};
    const unsigned long long count = getStackTrace(threadId, frames.data(), frames.size(), true);
    WideString trace;
    for (unsigned long long i = 0; i < count; ++i) {
        trace += describeFrame(callingProcess, frames[i]);
    }
    return wideToUtf8(trace);
}

}  // namespace

std::string getStackTrace(vesko::handle<ICoreFramework> /*framework*/, unsigned int threadId) {
    return getThreadTrace(threadId);
}

std::pair<std::string, std::string> getAllThreadStackTrace(
    vesko::handle<ICoreFramework> /*framework*/) {
    if (platform::isDebuggerAttached()) {
        return {getThreadIdString(), std::string(debuggerAttached)};
    }
    std::string report;
    for (const unsigned int threadId : getThreadIds()) {
        const std::string trace = getThreadTrace(threadId);
        if (!trace.empty()) {
            report += '[' + getThreadIdString(threadId) + "][" + getThreadName(threadId) + ']' +
                      trace + '\n';
        }
    }
    return {std::move(report), std::string()};
}

}  // namespace ThreadUtilities
