#pragma once

#include <cstdint>

namespace ThreadUtilities::platform {

struct TableModule {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::uint64_t unwindHeader = 0;  ///< 0 when it has none
};

/// Brings the library's own list of loaded modules up to date, for C libraries that cannot look one
/// up in a signal handler. Takes the loader's lock; cheap when nothing was loaded or unloaded.
void refreshModuleTable() noexcept;

/// Finds a module in the list as it was refreshed last; false as well while another thread, or the
/// thread that this handler interrupts, refreshes it.
/// Context: signal handler.
bool findInModuleTable(std::uint64_t address, TableModule& module) noexcept;

}  // namespace ThreadUtilities::platform
