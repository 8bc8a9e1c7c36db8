// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/module_list.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "linux/kernel_calls.h"
#include "linux/modules/mapped_images.h"
#include "linux/modules/process_map.h"
#include "linux/proc_file.h"
#include "unwind/rule_cache.h"

namespace ThreadUtilities::process {
namespace {

/// Spread over 64 bits, as keys of the rule cache are to be; never that of no module.
std::uint64_t identityOf(std::uint64_t number) noexcept {
    std::uint64_t mixed = number * 0x9E3779B97F4A7C15;
    mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
    mixed ^= mixed >> 31;
    return mixed == 0 || mixed == cfi::RuleCache::noIdentity ? 1 : mixed;
}

/// Compares what several witnesses say with the memory, a few system calls for all.
class WitnessCheck {
 public:
    explicit WitnessCheck(pid_t task) noexcept : processTask(task) {}

    bool add(const Witness& witness) noexcept {
        if (count == witnesses.size() || size + witness.bytes.size() > bytes.size()) {
            if (!isPassed()) {
                return false;
            }
            count = size = 0;
        }
        there[count] = {reinterpret_cast<void*>(witness.address), witness.bytes.size()};
        witnesses[count++] = &witness;
        size += witness.bytes.size();
        return true;
    }

    bool isPassed() const noexcept {
        if (count == 0) {
            return true;
        }
        const iovec here[] = {{const_cast<std::uint8_t*>(bytes.data()), size}};
        if (platform::copyMemory(processTask, std::span(there).first(count), here) != size) {
            return false;
        }
        const std::uint8_t* found = bytes.data();
        for (const Witness* witness : std::span(witnesses).first(count)) {
            if (std::memcmp(found, witness->bytes.data(), witness->bytes.size()) != 0) {
                return false;
            }
            found += witness->bytes.size();
        }
        return true;
    }

 private:
    const pid_t processTask;
    std::array<iovec, 32> there{};
    std::array<const Witness*, 32> witnesses{};
    std::size_t count = 0;
    std::size_t size = 0;
    std::array<std::uint8_t, 4096> bytes;
};

}  // namespace

ModuleList::ModuleList(unsigned int processId, const ModuleList* before,
                       std::uint64_t& lastIdentity) {
    const platform::LiveTask task = platform::findLiveTask(processId);
    liveTask = task.id;
    pages = platform::Descriptor(platform::openFile(
        platform::ProcPath("/proc/", static_cast<unsigned int>(liveTask), "/pagemap").text(),
        O_RDONLY));
    const auto ranges = platform::parseProcessMap(task.mapText);
    mappings.reserve(ranges.size());
    for (const platform::MappedRange& range : ranges) {
        mappings.push_back({range.begin, range.end});
        if (firstFile == 0 && range.fileOffset == 0 && range.inode != 0) {
            firstFile = range.begin;
        }
    }
    platform::visitMappedImages(
        liveTask, ranges,
        [&](const platform::MappedImage& image, const platform::ImageReader& reader) {
            auto known = before != nullptr ? before->takeOver(liveTask, image) : nullptr;
            modules.push_back(known ? std::move(known)
                                    : std::make_shared<const ProcessModule>(
                                          liveTask, image, reader, identityOf(++lastIdentity)));
        });
}

const ProcessModule* ModuleList::find(std::uint64_t address) const noexcept {
    const auto above = std::upper_bound(
        modules.begin(), modules.end(), address,
        [](std::uint64_t wanted, const auto& module) { return wanted < module->begin(); });
    if (above == modules.begin()) {
        return nullptr;
    }
    const ProcessModule& below = *above[-1];
    return address - below.begin() < below.size() ? &below : nullptr;
}

std::shared_ptr<const ProcessModule> ModuleList::takeOver(
    pid_t task, const platform::MappedImage& image) const noexcept {
    const auto found = std::lower_bound(
        modules.begin(), modules.end(), image.begin(),
        [](const auto& module, std::uint64_t wanted) { return module->begin() < wanted; });
    if (found == modules.end() || !(*found)->isAt(image)) {
        return nullptr;
    }
    const ProcessModule* const module = found->get();
    return areUnchanged(task, {&module, 1}) ? *found : nullptr;
}

std::uint64_t ModuleList::mappingEnd(std::uint64_t address) const noexcept {
    const auto found = std::upper_bound(
        mappings.begin(), mappings.end(), address,
        [](std::uint64_t wanted, const AddressRange& mapping) { return wanted < mapping.end; });
    return found != mappings.end() && found->begin <= address ? found->end : 0;
}

std::array<char, EI_CLASS + 1> ModuleList::startOfFirstFile() const noexcept {
    std::array<char, EI_CLASS + 1> start{};
    const iovec there[] = {{reinterpret_cast<void*>(firstFile), start.size()}};
    const iovec here[] = {{start.data(), start.size()}};
    platform::copyMemory(liveTask, there, here);
    return start;
}

bool ModuleList::isOf32Bits() const noexcept {
    const auto start = startOfFirstFile();
    return std::memcmp(start.data(), ELFMAG, SELFMAG) == 0 && start[EI_CLASS] == ELFCLASS32;
}

bool ModuleList::showsMemory() const noexcept {
    return startOfFirstFile()[0] != 0;
}

bool areUnchanged(pid_t task, std::span<const ProcessModule* const> modules) noexcept {
    WitnessCheck check(task);
    for (const ProcessModule* module : modules) {
        for (const Witness& witness : module->witnesses()) {
            if (!check.add(witness)) {
                return false;
            }
        }
    }
    return check.isPassed();
}

}  // namespace ThreadUtilities::process
