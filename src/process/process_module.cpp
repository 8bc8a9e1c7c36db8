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

/// What is looked at of an index, and of the tables that follow it. The last entries say where
/// functions and their entries lie, therefore they differ when one before them has grown.
constexpr std::size_t lookBeforeEnd = 64;
constexpr std::size_t lookBehindEnd = 64;

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
        noteIndex(task);
    }
}

std::uint64_t ProcessModule::addressInMemory(std::uint64_t address) const noexcept {
    return address - headers.extent.begin + imageBegin;
}

void ProcessModule::noteBuildId(const platform::ImageReader& reader) {
    Witness witness;
    std::vector<std::uint8_t> notes;
    hasBuildId = platform::buildIdOf(headers.table(), [&](const ProgramHeader& note) {
                     notes = platform::readNotes(reader, headers, note);
                     witness.address = addressInMemory(note.address);
                     witness.bytes = notes;
                     return ByteCursor(notes.data(), notes.size());
                 }).has_value();
    if (hasBuildId) {
        witness.bytes.resize(std::min(witness.bytes.size(), mostOfNotes));
        proofs.push_back(std::move(witness));
    }
}

void ProcessModule::noteIndex(pid_t task) {
    const AddressRange header = findUnwindHeader(headers);
    std::uint8_t start[12]{};
    if (header.begin == 0 || readTask(task, addressInMemory(header.begin), start) == 0) {
        return;
    }
    const std::uint64_t pairs = loadLittleEndian<std::uint32_t>(start + 8);
    const std::uint64_t end = header.begin + sizeof(start) + pairs * 8;
    const bool isInside = end < header.end && end - header.begin > lookBeforeEnd;
    Witness look{addressInMemory(isInside ? end - lookBeforeEnd : header.begin),
                 std::vector<std::uint8_t>(lookBeforeEnd + lookBehindEnd)};
    look.bytes.resize(readTask(task, look.address, look.bytes));
    if (!look.bytes.empty()) {
        proofs.push_back(std::move(look));
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

/// Whether the bytes are those that were in memory, build-id included.
bool ProcessModule::isSame(const ImageBytes& image) const {
    return std::all_of(proofs.begin(), proofs.end(), [&](const Witness& proof) {
        std::vector<std::uint8_t> found(proof.bytes.size());
        return image(proof.address, found) == found.size() && found == proof.bytes;
    });
}

// Files are preferred because what is read from the memory of a process it may have to fetch
// first, and count as its own; not where a build-id is missing, because nothing else tells that
// a file is what was loaded.
UnwindTables ProcessModule::readTables(pid_t task) const {
    const ModuleFile file(task, range, headers);
    const ImageBytes inFile = [&](std::uint64_t address, std::span<std::uint8_t> out) {
        return file.read(address - imageBegin + headers.extent.begin, out);
    };
    const ImageBytes inMemory = [&](std::uint64_t address, std::span<std::uint8_t> out) {
        return readTask(task, address, out);
    };
    const ImageBytes& image = file.isOpen() && hasBuildId && isSame(inFile) ? inFile : inMemory;
    if (const AddressRange header = findUnwindHeader(headers); header.begin != 0) {
        return {image, addressInMemory(header.begin), addressInMemory(header.end)};
    }
    const auto frames = file.isOpen() ? file.frames() : std::nullopt;
    return frames
               ? UnwindTables(image, {addressInMemory(frames->begin), addressInMemory(frames->end)})
               : UnwindTables();
}

}  // namespace ThreadUtilities::process
