// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// What one reads who may not look at a process.

#include <ThreadUtilities/ProcessCapture.h>
#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "support/fork_child.h"
#include "support/scratch_folder.h"
#include "target_process.h"

namespace ThreadUtilities {
namespace {

constexpr uid_t nobody = 65534;

std::string refusalOf(unsigned int processId) {
    try {
        const ProcessCapture capture(processId);
    } catch (const ProcessCaptureError& error) {
        return error.what();
    }
    return "none";
}

/// As a fork child finds it that has done `first`.
std::string refusalAfter(const std::function<bool()>& first, unsigned int processId) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    EXPECT_TRUE(ForkChild([&] {
                    const std::string text = first() ? refusalOf(processId) : "not possible here";
                    return write(ends[1], text.data(), text.size()) ==
                           static_cast<ssize_t>(text.size());
                }).endedWell());
    std::array<char, 512> text{};
    const ssize_t got = read(ends[0], text.data(), text.size());
    close(ends[0]);
    close(ends[1]);
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
}

bool becomeNobody() {
    return setresgid(nobody, nobody, nobody) == 0 && setresuid(nobody, nobody, nobody) == 0;
}

void expectAllOf(const std::string& text, const std::vector<std::string>& parts) {
    EXPECT_EQ(text.find('\n'), text.npos);
    for (const std::string& part : parts) {
        EXPECT_NE(text.find(part), text.npos) << "\"" << part << "\" is missing in: " << text;
    }
}

TEST(Refusal, SaysWhatIsNoProcess) {
    const std::string self = std::to_string(getpid());
    expectAllOf(refusalOf(0), {"there is no process 0"});
    expectAllOf(refusalOf(0x7ffffff0), {"there is no process 2147483632"});
    expectAllOf(refusalOf(static_cast<unsigned int>(getpid())), {"process " + self, "this one"});
    TargetThread thread([](const auto& stop) {
        while (!stop) {
            usleep(1000);
        }
    });
    expectAllOf(refusalOf(thread.id()),
                {std::to_string(thread.id()) + " is a thread of process " + self});
    ForkChild ended([] {});
    ended.waitForEnd();
    expectAllOf(refusalOf(ended.id()), {"has ended", "process " + self});
    std::ifstream kernelThread("/proc/2/comm");
    if (std::string name; kernelThread >> name && name == "kthreadd") {
        expectAllOf(refusalOf(2), {"process 2 (kthreadd)", "kernel"});
    }
}

TEST(Refusal, SaysWhyItIsNotPermittedAndWhatHelps) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs to be root, who can become others";
    }
    TargetProcess ofRoot({spin});
    expectAllOf(refusalAfter(becomeNobody, ofRoot.id()),
                {"process " + std::to_string(ofRoot.id()), "belongs to user 0 (root)",
                 "this is user 65534", "CAP_SYS_PTRACE"});

    TargetProcess ofNobody({[](Told& told) {
        // On one thread only the C library's own call reaches all of them.
        told.progress = becomeNobody() && prctl(PR_SET_DUMPABLE, 1) == 0 ? 1 : 0;
        while (!told.mayEnd) {
            usleep(1000);
            prctl(PR_SET_DUMPABLE, told.signals == 0 ? 1 : 0);
            told.progress = told.signals == 0 ? 1 : 2;
        }
    }});
    ASSERT_TRUE(eventually([&] { return ofNobody.tells().progress == 1; }));
    EXPECT_EQ(refusalAfter(becomeNobody, ofNobody.id()), "none");
    ofNobody.tells().signals = 1;
    ASSERT_TRUE(eventually([&] { return ofNobody.tells().progress == 2; }));
    expectAllOf(refusalAfter(becomeNobody, ofNobody.id()), {"not dumpable", "CAP_SYS_PTRACE"});
    EXPECT_EQ(refusalOf(ofNobody.id()), "none");

    const auto hideProcesses = [] {
        return unshare(CLONE_NEWNS) == 0 &&
               mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount("proc", "/proc", "proc", 0, "hidepid=2") == 0 && becomeNobody();
    };
    const std::string hidden = refusalAfter(hideProcesses, ofRoot.id());
    if (hidden != "not possible here") {
        expectAllOf(hidden, {"hidepid"});
    }
    EXPECT_TRUE(ofRoot.endsWell() && ofNobody.endsWell());
}

/// A program of 32 bits that waits for a signal.
std::string smallProgram() {
    constexpr std::array<unsigned char, 9> code{0xb8, 29, 0, 0, 0, 0xcd, 0x80, 0xeb, 0xf7};
    constexpr Elf32_Addr base = 0x10000;
    Elf32_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS32;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = ET_EXEC;
    header.e_machine = EM_386;
    header.e_version = EV_CURRENT;
    header.e_entry = base + sizeof(Elf32_Ehdr) + sizeof(Elf32_Phdr);
    header.e_phoff = header.e_ehsize = sizeof(Elf32_Ehdr);
    header.e_phentsize = sizeof(Elf32_Phdr);
    header.e_phnum = 1;
    constexpr Elf32_Word size = sizeof(Elf32_Ehdr) + sizeof(Elf32_Phdr) + code.size();
    const Elf32_Phdr segment{PT_LOAD, 0, base, base, size, size, PF_R | PF_X, 0x1000};
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    bytes.append(reinterpret_cast<const char*>(&segment), sizeof(segment));
    return bytes.append(code.begin(), code.end());
}

TEST(Refusal, SaysThatAProgramHas32Bits) {
    const ScratchFolder folder;
    const std::string path = folder.path / "small";
    std::ofstream(path) << smallProgram();
    chmod(path.c_str(), 0700);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ForkChild small([&] {
        execl(path.c_str(), "small", nullptr);
        return static_cast<int>(write(ends[1], "", 1));
    });
    close(ends[1]);
    char failed = 0;
    if (read(ends[0], &failed, 1) != 0) {
        GTEST_SKIP() << "this kernel runs no programs of 32 bits";
    }
    close(ends[0]);
    expectAllOf(refusalOf(small.id()), {"(small)", "32-bit"});
}

}  // namespace
}  // namespace ThreadUtilities
