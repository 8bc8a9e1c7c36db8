// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/process_module.h"

#include <elf.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "foundation/checked_bytes.h"
#include "linux/capture/handler/elf_headers.h"
#include "linux/kernel_calls.h"
#include "linux/modules/build_id.h"
#include "process/module_file.h"

namespace ThreadUtilities::process {
namespace {

using platform::ProgramHeader;

/// Notes that hold a build-id take about a hundred bytes.
constexpr std::size_t mostOfNotes = 1024;
/// Of a module without build-id: its headers, and its index' last entries with the tables behind.
constexpr std::size_t lookAtStart = 256;
constexpr std::size_t lookBeforeEnd = 64;
constexpr std::size_t lookBehindEnd = 192;

std::size_t readTask(pid_t task, std::uint64_t address, std::span<std::uint8_t> out) noexcept {
    const iovec there[] = {{reinterpret_cast<void*>(address), out.size()}};
    const iovec here[] = {{out.data(), out.size()}};
    return platform::copyMemory(task, there, here);
}

/// The unwind header of the image, and where the segment ends that it is in, both in the table's
/// addresses; both 0 where there is none.
AddressRange findUnwindHeader(const platform::ImageHeaders& headers) noexcept {
    for (ByteCursor table = headers.table(); !table.atEnd();) {
        const ProgramHeader header = platform::takeProgramHeader(table);
        if (header.type == PT_GNU_EH_FRAME) {
            return {header.address,
                    platform::readableSegmentOf(headers.table(), header.address).end};
        }
    }
    return {};
}

}  // namespace

ProcessModule::ProcessModule(pid_t task, const platform::MappedImage& image,
                             const platform::ImageReader& reader, std::uint64_t identity)
    : range(image.ranges.front()),
      fileName(range.name),
      imageBegin(image.begin()),
      imageSize(image.size),
      moduleIdentity(identity) {
    range.name = fileName;
    if (image.headers) {
        headers = *image.headers;
        noteBuildId(reader);
        if (!buildId) {
            noteOtherWitnesses(task);
        }
    }
}

std::uint64_t ProcessModule::addressInMemory(std::uint64_t address) const noexcept {
    return address - headers.extent.begin + imageBegin;
}

void ProcessModule::noteBuildId(const platform::ImageReader& reader) {
    Witness witness;
    std::vector<std::uint8_t> notes;
    buildId = platform::buildIdOf(headers.table(), [&](const ProgramHeader& note) {
        notes = platform::readNotes(reader, headers, note);
        witness.address = addressInMemory(note.address);
        witness.bytes = notes;
        return ByteCursor(notes.data(), notes.size());
    });
    if (buildId) {
        witness.bytes.resize(std::min(witness.bytes.size(), mostOfNotes));
        proofs.push_back(std::move(witness));
    }
}

void ProcessModule::noteOtherWitnesses(pid_t task) {
    const auto note = [&](std::uint64_t address, std::size_t size) {
        Witness witness{address, std::vector<std::uint8_t>(size)};
        witness.bytes.resize(readTask(task, address, witness.bytes));
        if (!witness.bytes.empty()) {
            proofs.push_back(std::move(witness));
        }
    };
    note(imageBegin, lookAtStart);
    const AddressRange header = findUnwindHeader(headers);
    std::uint8_t start[12]{};
    if (header.begin != 0 && readTask(task, addressInMemory(header.begin), start) != 0) {
        const std::uint64_t pairs = loadLittleEndian<std::uint32_t>(start + 8);
        const std::uint64_t end = header.begin + sizeof(start) + pairs * 8;
        const bool isInside = end - header.begin < header.end - header.begin;
        note(addressInMemory(isInside ? end - lookBeforeEnd : header.begin),
             lookBeforeEnd + lookBehindEnd);
    }
}

bool ProcessModule::isAt(const platform::MappedImage& image) const noexcept {
    const platform::MappedRange& first = image.ranges.front();
    return image.begin() == imageBegin && image.size == imageSize && first.inode == range.inode &&
           first.name == fileName;
}

const UnwindTables* ProcessModule::tables(pid_t task) const noexcept {
    if (areRead.load(std::memory_order_acquire)) [[likely]] {
        return &readOnce;
    }
    try {
        const std::lock_guard lock(reading);
        if (!areRead.load(std::memory_order_relaxed)) {
            readOnce = readTables(task);
            areRead.store(true, std::memory_order_release);
        }
        return &readOnce;
    } catch (const std::exception&) {
        return nullptr;
    }
}

// Files are preferred because what is read from the memory of a process it may have to fetch
// first, and count as its own; not where a build-id is missing, because nothing else tells that
// a file is what was loaded.
UnwindTables ProcessModule::readTables(pid_t task) const {
    const ModuleFile file(task, range, headers);
    const bool isFromFile = file.isOpen() && buildId && file.buildId() == buildId;
    const ImageBytes image = [&](std::uint64_t address, std::span<std::uint8_t> out) {
        return isFromFile ? file.read(address - imageBegin + headers.extent.begin, out)
                          : readTask(task, address, out);
    };
    if (const AddressRange header = findUnwindHeader(headers); header.begin != 0) {
        return {image, addressInMemory(header.begin), addressInMemory(header.end)};
    }
    const auto frames = file.isOpen() ? file.frames() : std::nullopt;
    return frames
               ? UnwindTables(image, {addressInMemory(frames->begin), addressInMemory(frames->end)})
               : UnwindTables();
}

}  // namespace ThreadUtilities::process
