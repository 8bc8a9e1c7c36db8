#include "foundation/system_library.h"

#include <dlfcn.h>
#include <gnu/lib-names.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <string>

#include "foundation/ascii.h"
#include "foundation/text_conversion.h"

namespace ThreadUtilities {
namespace {

std::string folderOfCLibraryInMap() {
    std::ifstream map("/proc/self/maps");
    for (std::string line; std::getline(map, line);) {
        const auto path = line.find('/');
        if (path != line.npos && line.ends_with("/" LIBC_SO)) {
            return line.substr(path, line.rfind('/') + 1 - path);
        }
    }
    return {};
}

TEST(SystemLibraryOnLinux, TheFolderIsTheOneOfTheRunningCLibrary) {
    const std::string folder = wideToUtf8(platform::systemLibraryFolder().path);
    // The map shows the folder behind symbolic links (/lib is one of /usr/lib).
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(folder.c_str(), resolved), nullptr) << folder;
    EXPECT_EQ(std::string(resolved) + "/", folderOfCLibraryInMap());
}

TEST(SystemLibraryOnLinux, BindsWhatTheSystemHasAndRefusesTheRest) {
    const auto library = loadSystemLibrary(wideFromAscii(LIBC_SO));
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(platform::findEntryPoint(library, "gnu_get_libc_version"),
              dlsym(RTLD_DEFAULT, "gnu_get_libc_version"));
    EXPECT_EQ(platform::findEntryPoint(library, "noSuchFunction"), nullptr);
    platform::closeLibrary(library);

    for (const char* name : {"", ".", "../" LIBC_SO, "/lib/" LIBC_SO, "libNoSuchLibrary.so"}) {
        EXPECT_EQ(loadSystemLibrary(wideFromAscii(name)), nullptr) << name;
    }
}

}  // namespace
}  // namespace ThreadUtilities
