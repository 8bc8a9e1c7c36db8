// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/module_files.h"

#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "symbols/windows_files.h"

namespace ThreadUtilities::companion {
namespace {

namespace fs = std::filesystem;

/// Where the modules of a system lie that are not below a folder of their own.
constexpr const char* systemFolders[] = {"/usr/lib/x86_64-linux-gnu",
                                         "/usr/lib64",
                                         "/usr/lib",
                                         "/usr/bin",
                                         "/usr/sbin",
                                         "/usr/local/lib",
                                         "/usr/local/bin",
                                         "/lib/x86_64-linux-gnu",
                                         "/lib64",
                                         "/lib",
                                         "/bin",
                                         "/sbin",
                                         "/usr/libexec",
                                         "/usr/games"};
/// Plugins, and programs that keep their modules together.
constexpr const char* systemTrees[] = {"/usr/lib", "/usr/libexec", "/opt"};
constexpr const char* systemDebugFiles = "/usr/lib/debug";
/// A folder that somebody gives may be the root of everything.
constexpr std::size_t mostFiles = 2'000'000;

class ElfFile {
 public:
    explicit ElfFile(const fs::path& path)
        : descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
        elf_version(EV_CURRENT);
        if (descriptor >= 0) {
            elf = elf_begin(descriptor, ELF_C_READ_MMAP, nullptr);
        }
    }
    ElfFile(const ElfFile&) = delete;
    ElfFile& operator=(const ElfFile&) = delete;
    ~ElfFile() {
        elf_end(elf);
        if (descriptor >= 0) {
            close(descriptor);
        }
    }

    Elf* get() const { return elf != nullptr && elf_kind(elf) == ELF_K_ELF ? elf : nullptr; }

 private:
    int descriptor;
    Elf* elf = nullptr;
};

bool hasSection(Elf* elf, std::initializer_list<std::string_view> names) {
    std::size_t namesIndex = 0;
    if (elf_getshdrstrndx(elf, &namesIndex) != 0) {
        return false;
    }
    for (Elf_Scn* section = elf_nextscn(elf, nullptr); section != nullptr;
         section = elf_nextscn(elf, section)) {
        GElf_Shdr header;
        if (gelf_getshdr(section, &header) == nullptr || header.sh_type == SHT_NOBITS) {
            continue;
        }
        const char* const name = elf_strptr(elf, namesIndex, header.sh_name);
        if (name != nullptr && std::find(names.begin(), names.end(), name) != names.end()) {
            return true;
        }
    }
    return false;
}

bool isRegularFile(const fs::path& path) {
    std::error_code error;
    return fs::is_regular_file(path, error);
}

}  // namespace

bool ElfIdentity::matches(const ModuleGuid& guid) const {
    if (buildId.empty()) {
        return false;
    }
    ModuleGuid own = {};
    std::copy_n(buildId.begin(), std::min(buildId.size(), own.size()), own.begin());
    return own == guid;
}

std::string ElfIdentity::text() const {
    std::string digits;
    for (const char byte : buildId) {
        digits += "0123456789abcdef"[static_cast<std::uint8_t>(byte) >> 4];
        digits += "0123456789abcdef"[byte & 0xF];
    }
    return digits;
}

std::optional<ElfIdentity> identify(const fs::path& file) {
    if (!isRegularFile(file)) {
        return std::nullopt;
    }
    const ElfFile elf(file);
    if (elf.get() == nullptr) {
        return std::nullopt;
    }
    ElfIdentity identity;
    const void* bytes = nullptr;
    const ssize_t size = dwelf_elf_gnu_build_id(elf.get(), &bytes);
    if (size > 0) {
        identity.buildId.assign(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
    }
    identity.hasDebugInformation = hasSection(elf.get(), {".debug_info", ".zdebug_info"});
    return identity;
}

void ModuleFiles::refuse(const fs::path& file, const Module& module, const std::string& id,
                         const std::string& wanted) {
    refusals.push_back(file.string() + ": has " + id + ", the report's " + module.fileName +
                       " has " + wanted + ": not used");
}

/// True where nothing better can come.
bool ModuleFiles::consider(const fs::path& file, const Module& module, bool isNamedByUser) {
    const auto identity = identify(file);
    if (!identity) {
        return false;
    }
    if (!identity->matches(module.guid)) {
        if (isNamedByUser) {
            refuse(file, module,
                   "build-id " + (identity->buildId.empty() ? "(none)" : identity->text()),
                   buildIdText(module.guid) + "...");
        }
        return false;
    }
    if (!best || (identity->hasDebugInformation && !best->identity.hasDebugInformation)) {
        best = Found{file, *identity};
    }
    return identity->hasDebugInformation;
}

/// `folder` has the folders 00 to ff; in each the files that an id's further digits name. Only 16
/// bytes of the id are known.
bool ModuleFiles::considerTree(const fs::path& folder, const Module& module) {
    const std::string digits = buildIdText(module.guid);
    std::error_code error;
    for (const fs::directory_entry& entry :
         fs::directory_iterator(folder / digits.substr(0, 2), error)) {
        // The end of a short id was padded.
        const std::string stem = entry.path().stem().string();
        const std::string known = digits.substr(2, stem.size());
        if (stem.starts_with(known) && consider(entry.path(), module, false)) {
            return true;
        }
    }
    return false;
}

const ModuleFiles::FilesByName& ModuleFiles::filesBelow(const fs::path& folder) {
    const auto [known, isNew] = knownFolders.try_emplace(folder.string());
    if (isNew) {
        std::error_code error;
        fs::recursive_directory_iterator entry(
            folder, fs::directory_options::skip_permission_denied, error);
        while (!error && entry != fs::end(entry) && known->second.size() < mostFiles) {
            std::error_code entryError;
            if (entry->is_regular_file(entryError)) {
                known->second.emplace(entry->path().filename().string(), entry->path());
            }
            entry.increment(error);
        }
    }
    return known->second;
}

bool ModuleFiles::considerUserFolder(const fs::path& folder, const Module& module) {
    if (considerTree(folder / ".build-id", module) || considerTree(folder, module)) {
        return true;
    }
    if (isRegularFile(folder)) {
        return consider(folder, module, folder.filename() == module.fileName);
    }
    const FilesByName& files = filesBelow(folder);
    for (const std::string& name : {module.fileName, module.fileName + ".debug"}) {
        const auto [first, last] = files.equal_range(name);
        for (auto file = first; file != last; ++file) {
            if (consider(file->second, module, true)) {
                return true;
            }
        }
    }
    return false;
}

std::vector<fs::path> mappedFiles(unsigned int processId) {
    std::set<fs::path> paths;
    std::ifstream map("/proc/" + std::to_string(processId) + "/maps");
    for (std::string line; std::getline(map, line);) {
        const std::size_t path = line.find('/');
        if (path != std::string::npos) {
            paths.insert(line.substr(path));
        }
    }
    return {paths.begin(), paths.end()};
}

bool ModuleFiles::considerProcess(const Module& module) {
    if (!options.processId) {
        return false;
    }
    const fs::path process = "/proc/" + std::to_string(*options.processId);
    if (!processFiles) {
        // The program itself can be read when its file is gone.
        processFiles.emplace({process / "exe"});
        for (const fs::path& path : mappedFiles(*options.processId)) {
            processFiles->push_back((process / "root").string() + path.string());
        }
        processFiles->insert(processFiles->end(), options.mappedFiles.begin(),
                             options.mappedFiles.end());
    }
    return std::any_of(processFiles->begin(), processFiles->end(), [&](const fs::path& file) {
        const bool mayBe = file.filename() == module.fileName || file.filename() == "exe";
        return mayBe && consider(file, module, false);
    });
}

bool ModuleFiles::considerSystem(const Module& module) {
    if (module.fileName.empty() || module.fileName.find('/') != std::string::npos) {
        return false;
    }
    for (const char* const folder : systemFolders) {
        if (consider(fs::path(folder) / module.fileName, module, false)) {
            return true;
        }
        if (best) {
            break;
        }
    }
    for (const char* const tree : systemTrees) {
        if (best) {
            break;
        }
        const auto [first, last] = filesBelow(tree).equal_range(module.fileName);
        for (auto file = first; file != last; ++file) {
            if (consider(file->second, module, false)) {
                return true;
            }
        }
    }
    return considerTree(fs::path(systemDebugFiles) / ".build-id", module);
}

std::optional<ModuleFiles::Found> ModuleFiles::find(const Module& module) {
    best.reset();
    if (module.guid == nilGuid) {
        return std::nullopt;
    }
    const bool isFound =
        std::any_of(options.folders.begin(), options.folders.end(),
                    [&](const fs::path& folder) { return considerUserFolder(folder, module); }) ||
        considerProcess(module);
    if (!isFound) {
        considerSystem(module);
    }
    return best;
}

std::optional<ModuleFiles::FoundWindows> ModuleFiles::considerWindows(const fs::path& file,
                                                                      const Module& module) {
    const auto identity = identifyWindowsModule(file);
    if (!identity) {
        return std::nullopt;
    }
    if (identity->guid != module.guid) {
        refuse(file, module, "GUID " + guidText(identity->guid), guidText(module.guid));
        return std::nullopt;
    }
    FoundWindows found = {file, {}, identity->hasDwarf};
    const std::string name = identity->pdb.substr(identity->pdb.find_last_of("/\\") + 1);
    // The places in which llvm-symbolizer looks, in its order: it does not compare the GUID.
    for (const fs::path& pdb : {fs::path(identity->pdb), file.parent_path() / name}) {
        if (name.empty() || !isRegularFile(pdb)) {
            continue;
        }
        const auto guid = guidOfPdb(pdb);
        if (guid == module.guid) {
            found.pdb = pdb;
            return found;
        }
        refuse(pdb, module, "GUID " + (guid ? guidText(*guid) : "(none)"), guidText(module.guid));
        return std::nullopt;
    }
    return found;
}

std::optional<ModuleFiles::FoundWindows> ModuleFiles::findWindows(const Module& module) {
    if (module.guid == nilGuid) {
        return std::nullopt;
    }
    for (const fs::path& folder : options.folders) {
        const auto [first, last] = filesBelow(folder).equal_range(module.fileName);
        for (auto file = first; file != last; ++file) {
            if (const auto found = considerWindows(file->second, module)) {
                return found;
            }
        }
    }
    return std::nullopt;
}

}  // namespace ThreadUtilities::companion
