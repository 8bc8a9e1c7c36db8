// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "foundation/system_library.h"

#include <dlfcn.h>
#include <gnu/lib-names.h>
#include <gtest/gtest.h>

#include "foundation/ascii.h"

namespace ThreadUtilities {
namespace {

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
