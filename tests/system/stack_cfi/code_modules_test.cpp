#include "platform/code_modules.h"

#include <gtest/gtest.h>
#include <link.h>

#include <set>
#include <vector>

#include "platform/linux/module_table.h"

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

/// Older C libraries have no lookup for signal handlers; the own list then takes its place. And
/// what is read in place and what through a copy of the module's first page is the same.
TEST(CodeModules, AreTheSameHoweverTheyAreFound) {
    prepareModuleLookup();
    refreshModuleTable();
    const auto addresses = codeOfAllModules();
    ASSERT_GT(addresses.size(), 4u);
    std::set<std::uint64_t> identities;
    for (const std::uint64_t address : addresses) {
        CodeModule held;
        CodeModule free;
        TableModule found;
        ASSERT_TRUE(findCodeModule(address, true, held));
        ASSERT_TRUE(findCodeModule(address, false, free));
        ASSERT_TRUE(findInModuleTable(address, found));
        EXPECT_EQ(found.begin, held.begin);
        EXPECT_EQ(found.unwindHeader, held.unwindHeader);
        EXPECT_EQ(held.identity, free.identity);
        if (!held.isPermanent && held.identity != 0) {
            EXPECT_TRUE(identities.insert(held.identity).second);
        }
    }
    TableModule none;
    EXPECT_FALSE(findInModuleTable(0x1000, none));
}

}  // namespace
}  // namespace ThreadUtilities::platform
