// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Modules that come, go and change under the list.

#include <ThreadUtilities/StackTrace.h>
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <latch>
#include <memory>
#include <string>
#include <thread>

#include "linux/modules/image_reader.h"
#include "platform/modules.h"
#include "platform/text.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"

extern "C" {
// What the plugin's initialiser calls.
extern void (*pluginInitialiserHook)();
void (*pluginInitialiserHook)() = nullptr;
}

namespace ThreadUtilities {
namespace {

namespace fs = std::filesystem;

constexpr platform::DebugGuid pluginGuid{0xDE, 0xAD, 0xBE, 0xEF};

unsigned int ownId() {
    return static_cast<unsigned int>(getpid());
}

/// A folder of its own that goes with it.
class ScratchFolder {
 public:
    ScratchFolder() {
        std::string pattern = (fs::temp_directory_path() / "modules_test_XXXXXX").string();
        path = mkdtemp(pattern.data());
    }
    ~ScratchFolder() { fs::remove_all(path); }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    fs::path copyOfPlugin(const std::string& name) const {
        fs::copy_file(MODULES_TEST_PLUGIN, path / name);
        return path / name;
    }

    fs::path path;
};

class Plugin {
 public:
    explicit Plugin(const fs::path& path) : handle(dlopen(path.c_str(), RTLD_NOW)) {}
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

std::string pathAt(unsigned int processId, unsigned long long address, platform::DebugGuid& guid) {
    for (const auto& module : platform::listModules(processId)) {
        if (module.imageBase < address && address - module.imageBase < module.imageSize) {
            guid = module.debugGuid.value_or(platform::DebugGuid{});
            return wideToUtf8(module.path);
        }
    }
    return "";
}

TEST(ModuleChanges, LoadedAndUnloadedModulesAreSeen) {
    const auto before = platform::moduleListVersion(ownId());
    ASSERT_TRUE(before);
    EXPECT_EQ(platform::moduleListVersion(ownId()), before);
    unsigned long long address = 0;
    {
        const Plugin plugin(MODULES_TEST_PLUGIN);
        ASSERT_TRUE(plugin.isLoaded());
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
        const fs::path path = folder.copyOfPlugin(name);
        const Plugin plugin(path);
        ASSERT_TRUE(plugin.isLoaded()) << name;
        const ForkChild child([] { pause(); });
        platform::DebugGuid guid{};
        EXPECT_EQ(pathAt(child.id(), plugin.address(), guid), path);
        EXPECT_EQ(guid, pluginGuid);

        // Another program's file takes the name; then nothing has it.
        fs::copy_file("/proc/self/exe", folder.path / "other");
        fs::rename(folder.path / "other", path);
        fs::copy_file("/proc/self/exe", path.string() + " (deleted)",
                      fs::copy_options::overwrite_existing);
        for (const char* change : {"replaced on disk", "deleted"}) {
            for (const unsigned int process : {child.id(), ownId()}) {
                guid = {};
                EXPECT_EQ(pathAt(process, plugin.address(), guid), path) << change;
                EXPECT_EQ(guid, pluginGuid) << change;
            }
            fs::remove(path);
        }
    }
}

TEST(ModuleChanges, MoreThanAreUsuallyLoadedAreListed) {
    const ScratchFolder folder;
    std::vector<std::unique_ptr<Plugin>> plugins;
    for (int number = 0; number < 150; ++number) {
        plugins.push_back(std::make_unique<Plugin>(folder.copyOfPlugin(std::to_string(number))));
    }
    platform::DebugGuid guid{};
    EXPECT_EQ(pathAt(ownId(), plugins.back()->address(), guid), folder.path / "149");
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(ModuleChanges, AFileInMemoryHasOneName) {
    const int file = memfd_create("made", 0);
    const std::string content = contentOf(MODULES_TEST_PLUGIN);
    ASSERT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    const Plugin plugin("/proc/self/fd/" + std::to_string(file));
    ASSERT_TRUE(plugin.isLoaded());
    close(file);
    const ForkChild child([] { pause(); });
    for (const unsigned int process : {child.id(), ownId()}) {
        platform::DebugGuid guid{};
        EXPECT_EQ(pathAt(process, plugin.address(), guid), "/memfd:made");
        EXPECT_EQ(guid, pluginGuid);
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
    const Plugin moved(withMovedHeaders(folder));
    ASSERT_TRUE(moved.isLoaded()) << dlerror();
    const Plugin hidden(folder.copyOfPlugin("hidden.so"));
    ASSERT_TRUE(hidden.isLoaded());
    Dl_info place;
    ASSERT_NE(dladdr(reinterpret_cast<void*>(hidden.address()), &place), 0);
    platform::DebugGuid guid{};
    EXPECT_EQ(pathAt(ownId(), moved.address(), guid), folder.path / "moved.so");
    EXPECT_EQ(guid, pluginGuid);
    const unsigned long long addresses[] = {moved.address(), hidden.address()};
    mprotect(place.dli_fbase, 1, PROT_NONE);
    const ForkChild child([] { pause(); });
    for (const unsigned int process : {child.id(), ownId()}) {
        for (const unsigned long long address : addresses) {
            guid = {};
            EXPECT_NE(pathAt(process, address, guid), "");
            EXPECT_EQ(guid, pluginGuid);
        }
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
    platform::DebugGuid guid{};
    EXPECT_EQ(pathAt(ownId(), plugin.address(), guid), MODULES_TEST_PLUGIN);
    EXPECT_EQ(guid, pluginGuid);
}

std::atomic<int> hookCalls = 0;

TEST(ModuleChanges, LookupsFromAModulesInitialiserDoNotWaitForTheLoader) {
    pluginInitialiserHook = [] {
        getFrameDetails(0, 1);
        ++hookCalls;
    };
    constexpr int loads = 300;
    {
        const std::jthread reader([](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                getFrameDetails(0, 1);
                platform::listModules(ownId());
            }
        });
        for (int index = 0; index < loads; ++index) {
            const Plugin plugin(MODULES_TEST_PLUGIN);
            EXPECT_NE(getFrameDetails(0, plugin.address()), L"");
        }
    }
    pluginInitialiserHook = nullptr;
    EXPECT_EQ(hookCalls, loads);
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
    const std::string path = folder.copyOfPlugin("a b.so").string();
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
