// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// A process that runs `standing_program`, and its stacks: by the walker, and by elfutils.

#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/thread_context.h"
#include "process/process_walker.h"
#include "support/target_thread.h"

namespace ThreadUtilities {

using Frames = std::vector<unsigned long long>;
using FramesByThread = std::map<unsigned int, Frames>;

/// A thread that is blocked in the kernel, with a copy of the top of its stack.
struct BlockedThread {
    platform::ThreadContext context;
    std::vector<std::byte> copy;

    BlockedThread(unsigned int process, std::uint64_t stackPointer, std::uint64_t instruction,
                  std::size_t copySize)
        : copy(copySize) {
        const iovec there[] = {{reinterpret_cast<void*>(stackPointer), copySize}};
        const iovec here[] = {{copy.data(), copySize}};
        const auto size = process_vm_readv(static_cast<pid_t>(process), here, 1, there, 1, 0);
        context.registers[platform::Rip] = instruction;
        context.registers[platform::Rsp] = stackPointer;
        context.knownRegisters =
            platform::registerBit(platform::Rip) | platform::registerBit(platform::Rsp);
        context.stack = {stackPointer, stackPointer + static_cast<std::uint64_t>(size)};
        context.stackShift = reinterpret_cast<std::uint64_t>(copy.data()) - stackPointer;
        context.isStopped = false;
    }
};

class StandingProcess {
 public:
    static constexpr std::size_t threads = 9;
    static constexpr std::size_t mostFrames = 256;

    explicit StandingProcess(const std::string& program) {
        int input[2];
        int output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
            return;
        }
        process = fork();
        if (process == 0) {
            dup2(input[0], 0);
            dup2(output[1], 1);
            execl(program.c_str(), program.c_str(), nullptr);
            _exit(1);
        }
        close(input[0]);
        close(output[1]);
        commands = fdopen(input[1], "w");
        answers = fdopen(output[0], "r");
        awaitAnswer("ready\n");
    }
    ~StandingProcess() { end(); }
    StandingProcess(const StandingProcess&) = delete;
    StandingProcess& operator=(const StandingProcess&) = delete;

    unsigned int id() const { return static_cast<unsigned int>(process); }

    void end() {
        if (process > 0) {
            kill(process, SIGKILL);
            waitpid(process, nullptr, 0);
            process = 0;
            std::fclose(commands);
            std::fclose(answers);
        }
    }

    void ask(const std::string& command, const char* answer = "done\n") {
        std::fputs((command + "\n").c_str(), commands);
        std::fflush(commands);
        awaitAnswer(answer);
    }

    /// Its threads, once all stand still.
    std::map<unsigned int, BlockedThread> blocked(std::size_t count = threads,
                                                  std::size_t copySize = 16384) const {
        std::map<unsigned int, BlockedThread> found;
        EXPECT_TRUE(eventually([&] {
            found.clear();
            for (const auto& entry : std::filesystem::directory_iterator(tasks())) {
                std::ifstream file(entry.path() / "syscall");
                std::string text;
                std::getline(file, text);
                long call = 0;
                unsigned long long operation = 0;
                unsigned long long stack = 0;
                unsigned long long instruction = 0;
                const int fields =
                    std::sscanf(text.c_str(), "%ld %*x %llx %*x %*x %*x %*x %llx %llx", &call,
                                &operation, &stack, &instruction);
                // A thread that starts may wait for a lock of the C library first.
                if (fields == 4 && (call != SYS_futex || operation != FUTEX_WAIT_PRIVATE)) {
                    const auto thread =
                        static_cast<unsigned int>(std::stoul(entry.path().filename()));
                    found.emplace(thread, BlockedThread(id(), stack, instruction, copySize));
                }
            }
            return found.size() == count;
        }));
        return found;
    }

    FramesByThread framesBy(ProcessWalker& walker, std::size_t count = threads) const {
        FramesByThread frames;
        for (const auto& [thread, target] : blocked(count)) {
            Frames& found = frames[thread];
            found.resize(mostFrames);
            const auto result = walker.walk(target.context, true, found.data(), found.size());
            EXPECT_EQ(result.end, WalkEnd::EndOfStack);
            found.resize(result.frameCount);
        }
        return frames;
    }

    /// By a walker that has seen nothing before.
    FramesByThread frames(std::size_t count = threads) const {
        ProcessWalker walker(id());
        return framesBy(walker, count);
    }

    FramesByThread framesByElfutils(std::size_t count = threads) const {
        blocked(count);
        char* noPath = nullptr;
        Dwfl_Callbacks callbacks{};
        callbacks.find_elf = dwfl_linux_proc_find_elf;
        callbacks.find_debuginfo = dwfl_standard_find_debuginfo;
        callbacks.debuginfo_path = &noPath;
        Dwfl* const dwfl = dwfl_begin(&callbacks);
        dwfl_linux_proc_report(dwfl, process);
        dwfl_report_end(dwfl, nullptr, nullptr);
        dwfl_linux_proc_attach(dwfl, process, false);
        FramesByThread frames;
        dwfl_getthreads(
            dwfl,
            [](Dwfl_Thread* thread, void* all) {
                Frames found;
                dwfl_thread_getframes(
                    thread,
                    [](Dwfl_Frame* frame, void* into) {
                        Dwarf_Addr address = 0;
                        dwfl_frame_pc(frame, &address, nullptr);
                        static_cast<Frames*>(into)->push_back(address);
                        return static_cast<int>(DWARF_CB_OK);
                    },
                    &found);
                found.erase(found.begin(), found.begin() + (found.empty() ? 0 : 1));
                (*static_cast<FramesByThread*>(
                    all))[static_cast<unsigned int>(dwfl_thread_tid(thread))] = std::move(found);
                return static_cast<int>(DWARF_CB_OK);
            },
            &frames);
        dwfl_end(dwfl);
        return frames;
    }

 private:
    std::filesystem::path tasks() const { return "/proc/" + std::to_string(process) + "/task"; }

    void awaitAnswer(const char* expected) {
        char line[64] = {};
        EXPECT_STREQ(std::fgets(line, sizeof(line), answers), expected);
    }

    pid_t process = 0;
    std::FILE* commands = nullptr;
    std::FILE* answers = nullptr;
};

}  // namespace ThreadUtilities
