// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/process_walker.h"

#include <dlfcn.h>
#include <elf.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "linux/modules/mapped_images.h"
#include "linux/modules/process_map.h"
#include "process/process_module.h"
#include "standing_process.h"
#include "support/fork_child.h"
#include "support/scratch_folder.h"

namespace ThreadUtilities {
namespace {

std::string program(const std::string& kind) {
    return STANDING_PROGRAM + kind;
}

/// One of two builds that are alike but for the size of a frame.
std::string plugin(const std::string& identity, int words) {
    return REPLACED_LIBRARIES + identity + "_" + std::to_string(words) + ".so";
}

class WalkedProgram : public testing::TestWithParam<const char*> {};

TEST_P(WalkedProgram, HasTheFramesThatElfutilsFinds) {
    const StandingProcess target(program(GetParam()));
    const FramesByThread frames = target.frames();
    EXPECT_EQ(frames, target.framesByElfutils());
    EXPECT_EQ(frames.size(), StandingProcess::threads);
}

INSTANTIATE_TEST_SUITE_P(Linked, WalkedProgram,
                         testing::Values("independent", "at_fixed_address", "static"),
                         [](const auto& test) { return std::string(test.param); });

/// What takes the name of a file that is mapped.
enum class InPlaceOfFile { Nothing, OtherBuild, Fifo };

TEST(WalkedProcess, KeepsItsFramesWhenItsFilesAreGone) {
    for (const auto kind :
         {InPlaceOfFile::Nothing, InPlaceOfFile::OtherBuild, InPlaceOfFile::Fifo}) {
        SCOPED_TRACE(static_cast<int>(kind));
        const ScratchFolder folder;
        const auto own = folder.path / "program";
        const auto library = folder.path / "library.so";
        std::filesystem::copy_file(program("independent"), own);
        std::filesystem::copy_file(plugin("sha1", 100), library);
        StandingProcess target(own);
        target.ask("load " + library.string());
        const FramesByThread before = target.framesByElfutils(StandingProcess::threads + 1);
        std::filesystem::remove(own);
        std::filesystem::remove(library);
        if (kind == InPlaceOfFile::OtherBuild) {
            std::filesystem::copy_file(program("at_fixed_address"), own);
            std::filesystem::copy_file(plugin("sha1", 300), library);
        } else if (kind == InPlaceOfFile::Fifo) {
            ASSERT_EQ(mkfifo(library.c_str(), 0600), 0);
        }
        EXPECT_EQ(target.frames(StandingProcess::threads + 1), before);
    }
}

/// Ways to tell two builds apart, and none.
class WalkedPlugin : public testing::TestWithParam<const char*> {};

// The one takes the place of the other while walks go on: in memory, and in the very file.
TEST_P(WalkedPlugin, IsWalkedByTheTablesThatItHasNow) {
    const ScratchFolder folder;
    const auto library = folder.path / "library.so";
    StandingProcess target(program("independent"));
    ProcessWalker walker(target.id());
    std::atomic<bool> isOver = false;
    const auto others = target.blocked();
    std::thread walks([&] {
        Frames frames(StandingProcess::mostFrames);
        while (!isOver) {
            for (const auto& [thread, other] : others) {
                walker.walk(other.context, true, frames.data(), frames.size());
            }
        }
    });
    for (const int words : {100, 300, 100}) {
        for (const char* how : {"load ", "copy "}) {
            std::filesystem::copy_file(plugin(GetParam(), words), library,
                                       std::filesystem::copy_options::overwrite_existing);
            target.ask(how + library.string());
            EXPECT_EQ(target.framesBy(walker, StandingProcess::threads + 1),
                      target.framesByElfutils(StandingProcess::threads + 1))
                << how << words;
            target.ask("unload it");
        }
    }
    isOver = true;
    walks.join();
}

INSTANTIATE_TEST_SUITE_P(Identified, WalkedPlugin,
                         testing::Values("sha1", "none", "0x0123456789abcdef0123"),
                         [](const auto& test) { return "By" + std::string(test.param); });

TEST(WalkedProcess, MayBecomeAnotherProgramAndEnd) {
    StandingProcess target(program("independent"));
    ProcessWalker walker(target.id());
    target.framesBy(walker);
    target.ask("execute " + program("at_fixed_address"), "ready\n");
    EXPECT_EQ(target.framesBy(walker), target.framesByElfutils());
    const auto threads = target.blocked();
    target.end();
    Frames frames(StandingProcess::mostFrames);
    EXPECT_EQ(
        walker.walk(threads.begin()->second.context, true, frames.data(), frames.size()).frameCount,
        0u);
}

using Ranges = std::vector<platform::MappedRange>;

/// The `.eh_frame` that is found for the image that these ranges of this process are.
std::vector<std::uint8_t> framesOf(const Ranges& ranges) {
    std::vector<std::uint8_t> frames;
    platform::visitMappedImages(
        getpid(), ranges,
        [&](const platform::MappedImage& image, const platform::ImageReader& reader) {
            const process::ProcessModule module(getpid(), image, reader, 1);
            const cfi::TableBytes tables = module.tables(getpid())->around(0);
            const auto* const bytes =
                reinterpret_cast<const std::uint8_t*>(tables.range.begin + tables.shift);
            frames.assign(bytes, bytes + (tables.range.end - tables.range.begin));
        });
    return frames;
}

// The kernel's own link to a mapped file cannot lead to another, but a name can. Here it does,
// number and all.
TEST(ModuleOfAProcess, TakesTablesFromNoFileButItsOwn) {
    for (const char* identity : {"sha1", "0x0123456789abcdef0123"}) {
        SCOPED_TRACE(identity);
        const std::string own = std::filesystem::canonical(plugin(identity, 100));
        const std::string other = std::filesystem::canonical(plugin(identity, 300));
        void* const library = dlopen(own.c_str(), RTLD_NOW);
        const auto task = platform::findLiveTask(static_cast<unsigned int>(getpid()));
        Ranges ranges = platform::parseProcessMap(task.mapText);
        std::erase_if(ranges,
                      [&](const platform::MappedRange& range) { return range.name != own; });
        ASSERT_FALSE(ranges.empty());
        const std::vector<std::uint8_t> frames = framesOf(ranges);
        struct stat facts{};
        ASSERT_EQ(stat(other.c_str(), &facts), 0);
        for (platform::MappedRange& range : ranges) {
            range.name = other;
            range.inode = facts.st_ino;
        }
        --ranges.front().end;  // so that there is no such link
        EXPECT_EQ(framesOf(ranges), frames);
        EXPECT_FALSE(frames.empty());
        dlclose(library);
    }
}

/// A program of 32 bits that waits for ever.
void write32BitProgram(const std::filesystem::path& path) {
    constexpr std::uint32_t base = 0x8048000;
    constexpr std::string_view code("\xB8\x1D\0\0\0\xCD\x80\xEB\xF7", 9);  // pause, again and again
    Elf32_Phdr segment{};
    segment.p_type = PT_LOAD;
    segment.p_vaddr = base;
    segment.p_filesz = segment.p_memsz = sizeof(Elf32_Ehdr) + sizeof(segment) + code.size();
    segment.p_flags = PF_R | PF_X;
    Elf32_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG "\x01\x01\x01", 7);
    header.e_type = ET_EXEC;
    header.e_machine = EM_386;
    header.e_version = EV_CURRENT;
    header.e_entry = base + sizeof(header) + sizeof(segment);
    header.e_phoff = header.e_ehsize = sizeof(header);
    header.e_phentsize = sizeof(segment);
    header.e_phnum = 1;
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(&header), sizeof(header));
    file.write(reinterpret_cast<const char*>(&segment), sizeof(segment));
    file << code;
    file.close();
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

TEST(WalkedProcess, IsRefusedIfItHas32Bits) {
    const ScratchFolder folder;
    write32BitProgram(folder.path / "program");
    const ForkChild child([&] {
        execl((folder.path / "program").c_str(), "program", nullptr);
        pause();
    });
    const auto waits = [&] {
        std::string call;
        std::ifstream("/proc/" + std::to_string(child.id()) + "/syscall") >> call;
        return call == "29";  // pause() in the numbers of 32 bits
    };
    ASSERT_TRUE(eventually(waits)) << "does the kernel run programs of 32 bits?";
    EXPECT_THROW(ProcessWalker{child.id()}, std::runtime_error);
}

TEST(WalkedProcess, IsNotReadBeyondTheCopyUnlessItIsAtRest) {
    StandingProcess target(program("independent"));
    ProcessWalker walker(target.id());
    std::size_t cut = 0;
    for (const auto& [id, thread] : target.blocked(StandingProcess::threads, 256)) {
        Frames all(StandingProcess::mostFrames);
        Frames some(StandingProcess::mostFrames);
        const auto whole = walker.walk(thread.context, true, all.data(), all.size());
        const auto part = walker.walk(thread.context, false, some.data(), some.size());
        EXPECT_EQ(whole.end, WalkEnd::EndOfStack);
        EXPECT_EQ(part.leftCopy, whole.leftCopy);
        EXPECT_EQ(part.frameCount < whole.frameCount, part.leftCopy);
        all.resize(part.frameCount);
        some.resize(part.frameCount);
        EXPECT_EQ(some, all);
        cut += part.leftCopy ? 1 : 0;
    }
    EXPECT_GT(cut, 4u);
}

// As if a thread had just called it, which no thread can be seen to do.
TEST(WalkedProcess, IsWalkedOutOfTheKernelsOwnImage) {
    StandingProcess target(program("independent"));
    ProcessWalker walker(target.id());
    void* const image = dlopen("linux-vdso.so.1", RTLD_NOW | RTLD_NOLOAD);
    const auto function = reinterpret_cast<std::uint64_t>(dlsym(image, "__vdso_gettimeofday"));
    if (function == 0) {
        GTEST_SKIP() << "the kernel gives processes no image";
    }
    std::ifstream map("/proc/" + std::to_string(target.id()) + "/maps");
    std::uint64_t begin = 0;
    for (std::string line; std::getline(map, line);) {
        begin = line.ends_with("[vdso]") ? std::stoull(line, nullptr, 16) : begin;
    }
    const auto threads = target.blocked();
    const BlockedThread& caller = threads.begin()->second;
    Frames expected(StandingProcess::mostFrames);
    expected.resize(walker.walk(caller.context, true, expected.data(), expected.size()).frameCount);
    ASSERT_GE(expected.size(), 3u);

    std::vector<std::uint64_t> stack{expected[0]};
    platform::ThreadContext inside;
    inside.registers[platform::Rip] = begin + (function - getauxval(AT_SYSINFO_EHDR));
    inside.registers[platform::Rsp] = caller.context.registers[platform::Rsp];
    inside.stack = {inside.registers[platform::Rsp], inside.registers[platform::Rsp] + 8};
    inside.stackShift = reinterpret_cast<std::uint64_t>(stack.data()) - inside.stack.begin;
    Frames found(StandingProcess::mostFrames);
    ASSERT_GE(walker.walk(inside, false, found.data(), found.size()).frameCount, 1u);
    EXPECT_EQ(found[0], expected[0]);
}

}  // namespace
}  // namespace ThreadUtilities
