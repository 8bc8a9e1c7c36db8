// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/debug_files.h"

#include <elfutils/libdwelf.h>
#include <libelf.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "symbols/module_files.h"

namespace ThreadUtilities::companion {
namespace {

namespace fs = std::filesystem;

/// A server that works begins to answer within a second or two.
constexpr auto longestAnswer = std::chrono::seconds(10);

bool isPipeOrDevice(const fs::path& path) {
    std::error_code error;
    return fs::is_other(path, error);
}

std::string buildIdOf(Dwfl_Module* module) {
    const unsigned char* bytes = nullptr;
    GElf_Addr address = 0;
    const int size = dwfl_module_build_id(module, &bytes, &address);
    return size > 0
               ? std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size))
               : std::string();
}

/// libdwfl opens whatever has the right name, and waits where that is a pipe that nobody writes to.
bool wouldWait(const DebugFileSearch& search, const fs::path& file, const char* debugLink,
               const std::string& buildId) {
    const std::string digits = ElfIdentity{buildId, false}.text();
    const fs::path inTree = digits.size() < 3 ? fs::path()
                                              : fs::path(".build-id") / digits.substr(0, 2) /
                                                    (digits.substr(2) + ".debug");
    for (const fs::path& folder : search.folders) {
        if (isPipeOrDevice(folder / inTree) ||
            (debugLink != nullptr && isPipeOrDevice(folder / debugLink))) {
            return true;
        }
    }
    return debugLink != nullptr && (isPipeOrDevice(file.parent_path() / debugLink) ||
                                    isPipeOrDevice(file.parent_path() / ".debug" / debugLink));
}

/// libdwfl compares what it finds on this machine, but believes a server.
bool hasBuildId(int descriptor, std::string_view wanted) {
    Elf* const elf = elf_begin(descriptor, ELF_C_READ_MMAP, nullptr);
    const void* bytes = nullptr;
    const auto size = elf == nullptr ? -1 : dwelf_elf_gnu_build_id(elf, &bytes);
    const bool isSame = size > 0 && std::string_view(static_cast<const char*>(bytes),
                                                     static_cast<std::size_t>(size)) == wanted;
    elf_end(elf);
    return isSame;
}

}  // namespace

int findDebugFile(Dwfl_Module* module, void** userData, const char* moduleName, Dwarf_Addr base,
                  const char* fileName, const char* debugLink, GElf_Word checksum,
                  char** debugFileName) {
    DebugFileSearch& search = *static_cast<DebugFileSearch*>(*userData);
    search.isServerWrong = false;
    const char* mainFile = nullptr;
    dwfl_module_info(module, nullptr, nullptr, nullptr, nullptr, nullptr, &mainFile, nullptr);
    const std::string buildId = buildIdOf(module);
    if (mainFile == nullptr || wouldWait(search, mainFile, debugLink, buildId)) {
        return -1;
    }
    const auto begin = std::chrono::steady_clock::now();
    const int descriptor = dwfl_standard_find_debuginfo(
        module, userData, moduleName, base, fileName, debugLink, checksum, debugFileName);
    if (descriptor < 0) {
        if (std::chrono::steady_clock::now() - begin > longestAnswer) {
            search.isServerSilent = true;
            unsetenv("DEBUGINFOD_URLS");
        }
        return descriptor;
    }
    // The file that several modules share is asked for by its own name.
    const bool isOfModule = fileName != nullptr && std::string_view(fileName) == mainFile;
    if (isOfModule && !buildId.empty() && !hasBuildId(descriptor, buildId)) {
        search.isServerWrong = true;
        close(descriptor);
        std::free(*debugFileName);
        *debugFileName = nullptr;
        return -1;
    }
    return descriptor;
}

}  // namespace ThreadUtilities::companion
