// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <sys/syscall.h>
#include <sys/wait.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/terminal.h"
#include "waits/times.h"
#include "waits/wait.h"

namespace ThreadUtilities::companion {
namespace {

Wait simple(std::string_view kind, std::string words) {
    Wait wait;
    wait.kind = kind;
    wait.words = std::move(words);
    return wait;
}

Wait sleepWait(const Target& target, clockid_t clock, bool isPointInTime, std::uint64_t address) {
    Wait wait = simple("sleep", "sleeps");
    wait.isTimed = true;
    if (isPointInTime) {
        wait.time = untilThen(readTimeUntil(target, clock, address));
        return wait;
    }
    const auto duration = readDuration(target, address);
    // The kernel tells what is left of it only where a signal ends it.
    wait.time = duration ? ", of " + durationText(*duration) : "";
    return wait;
}

/// As wait4(2) numbers children.
Wait childWait(const Target& target, int child) {
    if (child <= 0) {
        return simple("child", "waits for the end of a child process");
    }
    const std::string name =
        target.sharesIds() ? processName(static_cast<unsigned int>(child)) : std::string();
    return simple("child", "waits for the end of child process " + std::to_string(child) +
                               (name.empty() ? "" : " (" + printable(name) + ')'));
}

Wait callWait(const WaitSources& sources, unsigned int threadId, const ThreadLook& look,
              const std::vector<CalledFunction>& functions) {
    const Target& target = sources.target;
    const auto& arguments = look.arguments;
    if (isFileCall(look.systemCall)) {
        return fileWait(sources, look);
    }
    switch (look.systemCall) {
        case SYS_futex:
            return futexWait(target, threadId, look, functions);
        case SYS_nanosleep:
            return sleepWait(target, CLOCK_MONOTONIC, false, arguments[0]);
        case SYS_clock_nanosleep:
            return sleepWait(target, static_cast<clockid_t>(arguments[0]),
                             (arguments[1] & TIMER_ABSTIME) != 0, arguments[2]);
        case SYS_wait4:
            return childWait(target, static_cast<int>(arguments[0]));
        case SYS_waitid:
            return childWait(target, arguments[0] == P_PID ? static_cast<int>(arguments[1]) : 0);
        case SYS_vfork:
        case SYS_clone:
        case SYS_clone3:
            return simple("child", "waits until the child that shares its memory (vfork) has gone");
        case SYS_pause:
        case SYS_rt_sigsuspend:
            return simple("signal", "waits for a signal");
        case SYS_rt_sigtimedwait: {
            Wait wait = simple("signal", "waits for a signal");
            if (const auto duration = readDuration(target, arguments[2])) {
                wait.isTimed = true;
                wait.time = atMost(*duration);
            }
            return wait;
        }
        case SYS_semop:
        case SYS_semtimedop:
            return simple("semaphore",
                          "waits for System V semaphore set " + std::to_string(arguments[0]));
        case SYS_msgrcv:
        case SYS_msgsnd:
            return simple("message queue",
                          "waits for System V message queue " + std::to_string(arguments[0]));
        case SYS_restart_syscall:
            return simple("call", "goes on with a wait that was interrupted");
        case SYS_openat:
        case SYS_open:
            return simple("open", "opens a file");
        default:
            return simple("call", "is in system call " + std::to_string(look.systemCall));
    }
}

std::string tracerText(unsigned int tracer) {
    if (tracer == 0) {
        return "is stopped by a debugger";
    }
    const std::string name = printable(processName(tracer));
    return "is being traced by process " + std::to_string(tracer) +
           (name.empty() ? "" : " (" + name + ')');
}

/// The kernel's own function that an uninterruptible thread is in; "" where it does not say.
std::string kernelFunction(const Target& target, unsigned int threadId) {
    const std::string name =
        procText(target.procFolder() / "task" / std::to_string(threadId) / "wchan");
    return name.empty() || name == "0" ? "" : ", kernel function " + printable(name);
}

}  // namespace

Wait waitOf(const WaitSources& sources, unsigned int threadId, const ThreadLook& look,
            const std::vector<CalledFunction>& functions) {
    const bool isInCall = look.systemCall >= 0;
    if (look.result == LookResult::Traced) {
        return simple("traced", tracerText(look.tracer));
    }
    if (look.result == LookResult::NotPermitted) {
        return simple("unknown", "may not be looked at");
    }
    switch (look.state) {
        case 'D': {
            const std::string words =
                isInCall ? callWait(sources, threadId, look, functions).words + ", uninterruptibly"
                         : "waits for a page of memory or a device";
            return simple("uninterruptible",
                          words + " (state D" + kernelFunction(sources.target, threadId) + ')');
        }
        case 'T':
            return simple("stopped", "is stopped by a signal (SIGCONT lets it go on)");
        case 't':
            return simple("stopped", "is stopped by a debugger");
        default:
            break;
    }
    if (look.result == LookResult::Blocked) {
        return isInCall ? callWait(sources, threadId, look, functions)
                        : simple("page", "waits for a page of memory");
    }
    return look.result == LookResult::Unanswered ? simple("unknown", "did not come to a stop")
                                                 : simple("running", "runs");
}

}  // namespace ThreadUtilities::companion
