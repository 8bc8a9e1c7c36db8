// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "linux/modules/build_id.h"
#include "linux/modules/image_reader.h"
#include "linux/modules/process_map.h"
#include "platform/modules.h"
#include "platform/text.h"
#include "support/fork_child.h"
#include "support/parked_thread.h"
#include "support/sanitizers.h"
#include "support/scratch_folder.h"

// The module lists against what others say of them, also while modules come, go and change.

namespace ThreadUtilities {
namespace {

namespace fs = std::filesystem;
using platform::LoadedModule;

unsigned int ownId() {
    return static_cast<unsigned int>(getpid());
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(ProcessModules, AChildsListEqualsTheOwnOne) {
    const ForkChild child([] { pause(); });
    std::map<std::uint64_t, LoadedModule> own;
    for (LoadedModule& module : platform::listModules(ownId())) {
        own.emplace(module.imageBase, std::move(module));
    }
    const auto modules = platform::listModules(child.id());
    EXPECT_GE(modules.size(), 5U) << "program, C library, C++ library, loader, kernel image";
    EXPECT_EQ(modules.size(), own.size());
    for (const LoadedModule& module : modules) {
        const std::string path = wideToUtf8(module.path);
        ASSERT_TRUE(own.contains(module.imageBase)) << path;
        const LoadedModule& same = own[module.imageBase];
        EXPECT_EQ(module.imageSize, same.imageSize) << path;
        EXPECT_EQ(module.debugGuid, same.debugGuid) << path;
        EXPECT_EQ(fs::path(path).filename(),
                  fs::weakly_canonical(wideToUtf8(same.path)).filename());
    }
    EXPECT_EQ(platform::moduleListVersion(child.id()), std::nullopt);
}

TEST(ProcessModules, AreReadWhereTheFirstThreadHasEnded) {
    const ForkChild child([] {
        pthread_t thread;
        pthread_create(&thread, nullptr, [](void*) -> void* { return pause(), nullptr; }, nullptr);
        syscall(SYS_exit, 0);
    });
    while (contentOf("/proc/" + std::to_string(child.id()) + "/stat").find(") Z") ==
           std::string::npos) {
        std::this_thread::yield();
    }
    const auto modules = platform::listModules(child.id());
    EXPECT_EQ(modules.size(), platform::listModules(ownId()).size());
}

TEST(ProcessModules, AreEmptyWhereThereIsNothingToInspect) {
    EXPECT_TRUE(platform::listModules(0).empty());
    EXPECT_TRUE(platform::listModules(0xFFFFFFFF).empty());
    EXPECT_TRUE(platform::listModules(0x7FFFFFFF).empty());
    const ForkChild ended([] { _exit(0); });
    ended.waitForEnd();
    EXPECT_TRUE(platform::listModules(ended.id()).empty());
    EXPECT_EQ(getFrameDetails(ended.id(), 0x401000), L"");
    const ParkedThread noProcess;
    EXPECT_TRUE(platform::listModules(noProcess.id()).empty());
}

constexpr platform::DebugGuid pluginGuid{0xDE, 0xAD, 0xBE, 0xEF};

fs::path copyOfPlugin(const ScratchFolder& folder, const std::string& name) {
    fs::copy_file(MODULES_TEST_PLUGIN, folder.path / name);
    return folder.path / name;
}

class Plugin {
 public:
    explicit Plugin(const fs::path& path) : handle(dlopen(path.c_str(), RTLD_NOW)) {
        EXPECT_NE(handle, nullptr) << dlerror();
    }
    Plugin(const fs::path& path, Lmid_t space) : handle(dlmopen(space, path.c_str(), RTLD_NOW)) {}
    ~Plugin() {
        if (handle != nullptr) {
            dlclose(handle);
        }
    }
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    bool isLoaded() const { return handle != nullptr; }
    unsigned long long address() const {
        return reinterpret_cast<unsigned long long>(dlsym(handle, "pluginFunction")) + 1;
    }

 private:
    void* handle;
};

/// The path of the module at an address that has the plugin's identity.
std::string pluginPathAt(unsigned int processId, unsigned long long address) {
    for (const auto& module : platform::listModules(processId)) {
        if (module.imageBase < address && address - module.imageBase < module.imageSize) {
            return module.debugGuid == pluginGuid ? wideToUtf8(module.path) : "another";
        }
    }
    return "none";
}

TEST(ModuleChanges, LoadedAndUnloadedModulesAreSeen) {
    const auto before = platform::moduleListVersion(ownId());
    ASSERT_TRUE(before);
    EXPECT_EQ(platform::moduleListVersion(ownId()), before);
    unsigned long long address = 0;
    {
        const Plugin plugin(MODULES_TEST_PLUGIN);
        address = plugin.address();
        EXPECT_NE(platform::moduleListVersion(ownId()), before);
        const std::wstring text = getFrameDetails(0, address);
        EXPECT_NE(text.find(L"{EFBEADDE-0000-0000-0000-000000000000};"), std::wstring::npos)
            << std::string(text.begin(), text.end());
    }
    EXPECT_NE(platform::moduleListVersion(ownId()), before) << "loaded and unloaded is a change";
    getFrameDetails(0, 1);  // a miss, which renews
    EXPECT_EQ(getFrameDetails(0, address), L"");
}

TEST(ModuleChanges, NamesAndIdentityAreThoseOfTheMappedFile) {
    const ScratchFolder folder;
    for (const std::string name : {"plain.so", "two words.so", "is (deleted)", "ümlaut.so"}) {
        const fs::path path = copyOfPlugin(folder, name);
        const Plugin plugin(path);
        const ForkChild child([] { pause(); });
        EXPECT_EQ(pluginPathAt(child.id(), plugin.address()), path);

        // Another program's file takes the name; then nothing has it.
        fs::copy_file("/proc/self/exe", folder.path / "other");
        fs::rename(folder.path / "other", path);
        fs::copy_file("/proc/self/exe", path.string() + " (deleted)",
                      fs::copy_options::overwrite_existing);
        for (const char* change : {"replaced on disk", "deleted"}) {
            for (const unsigned int process : {child.id(), ownId()}) {
                EXPECT_EQ(pluginPathAt(process, plugin.address()), path) << change;
            }
            fs::remove(path);
        }
    }
}

TEST(ModuleChanges, MoreThanAreUsuallyLoadedAreListed) {
    const ScratchFolder folder;
    std::vector<std::unique_ptr<Plugin>> plugins;
    for (int number = 0; number < 150; ++number) {
        plugins.push_back(std::make_unique<Plugin>(copyOfPlugin(folder, std::to_string(number))));
    }
    EXPECT_EQ(pluginPathAt(ownId(), plugins.back()->address()), folder.path / "149");
}

TEST(ModuleChanges, AFileInMemoryHasOneName) {
    const int file = memfd_create("made", 0);
    const std::string content = contentOf(MODULES_TEST_PLUGIN);
    ASSERT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    const Plugin plugin("/proc/self/fd/" + std::to_string(file));
    close(file);
    const ForkChild child([] { pause(); });
    for (const unsigned int process : {child.id(), ownId()}) {
        EXPECT_EQ(pluginPathAt(process, plugin.address()), "/memfd:made");
    }
}

/// As tools that rewrite objects leave it: the program headers at the end of the file.
fs::path withMovedHeaders(const ScratchFolder& folder) {
    std::string content = contentOf(MODULES_TEST_PLUGIN);
    Elf64_Ehdr header;
    std::memcpy(&header, content.data(), sizeof(header));
    const std::size_t tableSize = std::size_t{header.e_phnum} * header.e_phentsize;
    content.resize((content.size() + 4095) / 4096 * 4096);
    const std::string table = content.substr(header.e_phoff, tableSize);
    std::fill_n(content.begin() + static_cast<std::ptrdiff_t>(header.e_phoff), tableSize, '\xFF');
    header.e_phoff = content.size();
    std::memcpy(content.data(), &header, sizeof(header));
    const fs::path path = folder.path / "moved.so";
    std::ofstream(path, std::ios::binary) << content << table;
    return path;
}

TEST(ModuleChanges, HeadersThatWereMovedOrHiddenAreFound) {
    const ScratchFolder folder;
    const fs::path movedPath = withMovedHeaders(folder);
    const fs::path hiddenPath = copyOfPlugin(folder, "hidden.so");
    const Plugin moved(movedPath);
    const Plugin hidden(hiddenPath);
    Dl_info place;
    ASSERT_NE(dladdr(reinterpret_cast<void*>(hidden.address()), &place), 0);
    const unsigned long long movedAddress = moved.address();
    const unsigned long long hiddenAddress = hidden.address();
    mprotect(place.dli_fbase, 1, PROT_NONE);
    const ForkChild child([] { pause(); });
    for (const unsigned int process : {child.id(), ownId()}) {
        EXPECT_EQ(pluginPathAt(process, movedAddress), movedPath);
        EXPECT_EQ(pluginPathAt(process, hiddenAddress), hiddenPath);
    }
    mprotect(place.dli_fbase, 1, PROT_READ);
}

TEST(ModuleChanges, ModulesOfOtherLinkMapNamespacesAreListed) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << "AddressSanitizer does not work in a second link-map namespace";
    }
    const Plugin plugin(MODULES_TEST_PLUGIN, LM_ID_NEWLM);
    if (!plugin.isLoaded()) {
        GTEST_SKIP() << "no second link-map namespace: " << dlerror();
    }
    EXPECT_EQ(pluginPathAt(ownId(), plugin.address()), MODULES_TEST_PLUGIN);
}

TEST(ModuleChanges, ACopyOfTheProcessCanLookUpWhateverLocksWereHeld) {
    if (underAddressSanitizer || underThreadSanitizer) {
        GTEST_SKIP() << copiesMayHang;
    }
    const std::jthread busy([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            getFrameDetails(static_cast<unsigned int>(getppid()), 1);  // slow: a map is read
            getFrameDetails(0, 1);
        }
    });
    const auto address = reinterpret_cast<unsigned long long>(&fgets) + 4;
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ(runInForkChild([&] { return !getFrameDetails(0, address).empty(); }), 0) << round;
    }
}

TEST(ImageReader, TakesTheFileWhereTheMemoryCannotBeRead) {
    const ScratchFolder folder;
    const std::string path = copyOfPlugin(folder, "a b.so").string();
    struct stat facts{};
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    const auto firstByte = [](const std::string& name, std::uint64_t inode) {
        platform::MappedRange unmapped;
        unmapped.begin = 0x1000;
        unmapped.end = 0x2000;
        unmapped.inode = inode;
        unmapped.name = name;
        const platform::ImageReader reader(getpid(), unmapped);
        std::uint8_t byte = 0;
        return reader.read(0, 1, {&byte, 1}) == 1 ? byte : 0;
    };
    EXPECT_EQ(firstByte(path, facts.st_ino), 'E');
    EXPECT_EQ(firstByte(path, facts.st_ino + 1), 0) << "another file under the same name";
    EXPECT_EQ(firstByte("/no/such/file", 1), 0);
    EXPECT_EQ(firstByte("[heap]", 0), 0);

    const std::string pipePath = (folder.path / "pipe").string();
    ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
    ASSERT_EQ(stat(pipePath.c_str(), &facts), 0);
    EXPECT_EQ(firstByte(pipePath, facts.st_ino), 0) << "nobody writes into this pipe";
    fs::create_symlink(path, folder.path / "link");
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    EXPECT_EQ(firstByte((folder.path / "link").string(), facts.st_ino), 0);
}

}  // namespace
}  // namespace ThreadUtilities

namespace ThreadUtilities::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

void append(Bytes& bytes, const void* data, std::size_t size) {
    const auto* const begin = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), begin, begin + size);
}

Bytes note(std::string_view name, std::uint32_t type, const Bytes& description,
           std::size_t padding = 4) {
    Bytes bytes;
    const std::uint32_t header[] = {static_cast<std::uint32_t>(name.size()),
                                    static_cast<std::uint32_t>(description.size()), type};
    append(bytes, header, sizeof(header));
    append(bytes, name.data(), name.size());
    bytes.resize((bytes.size() + padding - 1) / padding * padding);
    append(bytes, description.data(), description.size());
    bytes.resize((bytes.size() + padding - 1) / padding * padding);
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    append(left, right.data(), right.size());
    return left;
}

constexpr std::string_view gnu("GNU\0", 4);

TEST(ElfNotes, FindsTheBuildIdAndPadsItWithZeros) {
    const Bytes id{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
    const Bytes brief{0xDE, 0xAD, 0xBE, 0xEF};
    const DebugGuid wholeGuid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const DebugGuid briefGuid{0xDE, 0xAD, 0xBE, 0xEF};
    const struct {
        const char* what;
        Bytes bytes;
        std::uint64_t alignment;
        std::optional<DebugGuid> guid;
    } cases[] = {
        {"whole, after another", note("Xen", 3, brief) + note(gnu, 3, id), 4, wholeGuid},
        {"after others", note(gnu, 1, Bytes(16)) + note("Xen", 3, id) + note(gnu, 3, brief), 4,
         briefGuid},
        {"padded to 8", note(gnu, 5, Bytes(12), 8) + note(gnu, 3, brief, 8), 8, briefGuid},
        {"alignment 1 means 4", note(gnu, 3, brief), 1, briefGuid},
        {"odd name first", note("stapsdt\0", 3, Bytes(5)) + note(gnu, 3, brief), 4, briefGuid},
        {"no description", note(gnu, 3, {}), 4, std::nullopt},
        {"another type", note(gnu, 4, id), 4, std::nullopt},
        {"another name", note("GNX\0", 3, id), 4, std::nullopt},
        {"nothing", {}, 4, std::nullopt},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(findBuildId(ByteCursor(one.bytes.data(), one.bytes.size()), one.alignment),
                  one.guid)
            << one.what;
    }
}

TEST(ProcessMap, ReadsEveryWellFormedLine) {
    const auto ranges = parseProcessMap(
        "55d0-55e0 r--p 00000000 fe:01 1234                       /usr/bin/odd name (deleted)\n"
        "7f0000001000-7f0000002000 r-xp 0001f000 00:2a 18446744073709551615 /a\\012b\n"
        "7f0000002000-7f0000003000 rw-p 00000000 00:00 0 \n"
        "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0                  [vsyscall]\n");
    ASSERT_EQ(ranges.size(), 4u);
    EXPECT_EQ(ranges[0].begin, 0x55d0u);
    EXPECT_EQ(ranges[0].end, 0x55e0u);
    EXPECT_EQ(ranges[0].inode, 1234u);
    EXPECT_FALSE(ranges[0].isExecutable);
    EXPECT_EQ(ranges[0].name, "/usr/bin/odd name (deleted)");
    EXPECT_EQ(ranges[1].fileOffset, 0x1f000u);
    EXPECT_TRUE(ranges[1].isExecutable);
    EXPECT_EQ(mappedFilePath(ranges[1].name, true), "/a\nb");
    EXPECT_EQ(ranges[2].name, "");
    EXPECT_EQ(ranges[3].end, 0xffffffffff601000u);
    EXPECT_EQ(ranges[3].name, "[vsyscall]");
}

TEST(ProcessMap, LeavesDamagedLinesOut) {
    const std::string good = "1000-2000 r-xp 00000000 fe:01 7 /good\n";
    for (const char* line : {
             "\n",
             "1000-2000\n",
             "2000-1000 r-xp 00000000 fe:01 7 /backwards\n",
             "1000-20000000000000000 r-xp 00000000 fe:01 7 /too long\n",
             "-1000-2000 r-xp 00000000 fe:01 7 /signed\n",
             "1000-2000 r-xp 0000000x fe:01 7 /a\n",
             "1000-2000 r-xp 00000000 fe:01\n",
         }) {
        EXPECT_EQ(parseProcessMap(good + line + good).size(), 2u) << line;
    }
    EXPECT_EQ(parseProcessMap(good + "1000-2000 r-xp 00000000 fe:01 7 /cut o").size(), 1u);
}

}  // namespace
}  // namespace ThreadUtilities::platform
