// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/code_modules.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <set>
#include <vector>

#include "linux/capture/handler/module_table.h"

namespace ThreadUtilities::platform {
namespace {

/// An address in the code of every loaded module.
std::vector<std::uint64_t> codeOfAllModules() {
    std::vector<std::uint64_t> addresses;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* found) {
            for (unsigned index = 0; index < info->dlpi_phnum; ++index) {
                const ElfW(Phdr)& header = info->dlpi_phdr[index];
                if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
                    static_cast<std::vector<std::uint64_t>*>(found)->push_back(
                        info->dlpi_addr + header.p_vaddr + header.p_memsz / 2);
                    break;
                }
            }
            return 0;
        },
        &addresses);
    return addresses;
}

/// Older C libraries have no lookup for signal handlers; the own list then takes its place.
TEST(CodeModules, AreTheSameHoweverTheyAreFound) {
    prepareModuleLookup();
    refreshModuleTable();
    const auto addresses = codeOfAllModules();
    ASSERT_GT(addresses.size(), 4u);
    std::set<std::uint64_t> identities;
    for (const std::uint64_t address : addresses) {
        CodeModule module;
        CodeModule found;
        ASSERT_TRUE(findCodeModule(address, module));
        ASSERT_TRUE(findInModuleTable(address, found));
        EXPECT_EQ(found.begin, module.begin);
        EXPECT_EQ(found.unwindHeader, module.unwindHeader);
        if (!module.isPermanent && module.identity != 0) {
            EXPECT_TRUE(identities.insert(module.identity).second);
        }
    }
    CodeModule none;
    EXPECT_FALSE(findInModuleTable(0x1000, none));
}

bool isPermanentAt(const void* address) {
    CodeModule module;
    return findCodeModule(reinterpret_cast<std::uint64_t>(address), module) && module.isPermanent;
}

/// What came with the start stays however often it is opened and closed; what `dlopen` brought does
/// not.
TEST(CodeModules, ThoseOfTheStartAloneArePermanent) {
    for (const char* name : {"libstdc++.so.6", "libm.so.6", "libgcc_s.so.1"}) {
        void* const opened = dlopen(name, RTLD_NOW);
        ASSERT_NE(opened, nullptr) << dlerror();
        dlclose(opened);
        dlclose(dlopen(name, RTLD_NOW));
        EXPECT_NE(dlopen(name, RTLD_NOW | RTLD_NOLOAD), nullptr) << name;
    }
    EXPECT_TRUE(isPermanentAt(reinterpret_cast<void*>(&dlopen)));
    EXPECT_TRUE(isPermanentAt(dlsym(RTLD_DEFAULT, "_ZTISt9exception")));
    EXPECT_TRUE(isPermanentAt(dlsym(RTLD_DEFAULT, "cos")));
    void* const plugin = dlopen(REPLACED_LIBRARIES "sha1_100.so", RTLD_NOW);
    ASSERT_NE(plugin, nullptr) << dlerror();
    EXPECT_FALSE(isPermanentAt(dlsym(plugin, "callThrough")));
    dlclose(plugin);
}

}  // namespace
}  // namespace ThreadUtilities::platform
