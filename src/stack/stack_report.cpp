// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include <ThreadUtilities/Threads.h>

#include "platform/debugger.h"
#include "platform/text.h"
#include "stack/frame_details.h"
#include "stack/stack_trace.h"

namespace ThreadUtilities {
namespace {

constexpr std::string_view debuggerAttached = "debugger attached";
constexpr unsigned int callingProcess = 0;

/// Stacks of threads as text. A capture has ended, and its thread runs again, before the first
/// frame is described: describing locks and allocates, which the standing thread might be in the
/// middle of itself.
class Traces {
 public:
    std::string of(unsigned int threadId) {
        if (captures.isDebuggerAttached()) {
            return std::string(debuggerAttached);
        }
        std::array<unsigned long long, 256> frames = {};
        const std::size_t count = captures.capture(threadId, frames);
        std::string trace;
        for (std::size_t i = 0; i < count; ++i) {
            trace += textOf(frames[i]);
        }
        return trace;
    }

 private:
    // Many threads wait at the same few places.
    const std::string& textOf(unsigned long long address) {
        const auto known = texts.find(address);
        if (known != texts.end()) {
            return known->second;
        }
        return texts.emplace(address, wideToUtf8(describeFrame(callingProcess, address)))
            .first->second;
    }

    CaptureSeries captures;
    std::unordered_map<unsigned long long, std::string> texts;
};

}  // namespace

std::string getStackTrace(vesko::handle<ICoreFramework> /*framework*/, unsigned int threadId) {
    return Traces().of(threadId);
}

std::pair<std::string, std::string> getAllThreadStackTrace(
    vesko::handle<ICoreFramework> /*framework*/) {
    if (platform::isDebuggerAttached()) {
        return {getThreadIdString(), std::string(debuggerAttached)};
    }
    Traces traces;
    std::string report;
    for (const unsigned int threadId : getThreadIds()) {
        const std::string trace = traces.of(threadId);
        if (!trace.empty()) {
            report += '[' + getThreadIdString(threadId) + "][" + getThreadName(threadId) + ']' +
                      trace + '\n';
        }
    }
    return {std::move(report), std::string()};
}

}  // namespace ThreadUtilities
