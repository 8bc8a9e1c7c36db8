// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/unwind_tables.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <utility>
#include <vector>

#include "foundation/checked_bytes.h"
#include "platform/code_modules.h"
#include "unwind/eh_frame.h"
#include "unwind/encoded_pointer.h"
#include "unwind/table_reader.h"

namespace ThreadUtilities::process {
namespace {

using cfi::TableBytes;
using cfi::TableReader;

/// More than any program has; what is damaged asks for no more memory than this at a time.
constexpr std::uint64_t mostBytes = std::uint64_t{256} << 20;
constexpr std::uint64_t headerSize = 12;  ///< of the index, before its pairs, in the usual form
constexpr std::uint64_t pairSize = 8;

/// Version 1; the address of the frames relative to itself, the number of pairs, and the pairs
/// relative to the header, all in 32 bits. In any other form the index is not searched.
constexpr std::uint32_t usualForm = 0x3B031B01;

/// No memory but the tables'.
class NoMemory final : public cfi::AddressSpace {
 public:
    std::size_t read(std::uint64_t, void*, std::size_t) const noexcept override { return 0; }
    bool findModule(std::uint64_t, platform::CodeModule&, bool) const noexcept override {
        return false;
    }
    TableBytes tablesAround(const platform::CodeModule&, std::uint64_t) const noexcept override {
        return {};
    }
};

std::vector<std::uint8_t> readRange(const ImageBytes& image, AddressRange range) {
    if (range.begin >= range.end || range.end - range.begin > mostBytes) {
        return {};
    }
    std::vector<std::uint8_t> bytes(range.end - range.begin);
    if (const std::size_t size = image(range.begin, bytes); size != bytes.size()) {
        bytes.resize(size);
        bytes.shrink_to_fit();
    }
    return bytes;
}

TableBytes bytesAt(std::uint64_t address, const std::vector<std::uint8_t>& bytes) noexcept {
    return {{address, address + bytes.size()},
            reinterpret_cast<std::uint64_t>(bytes.data()) - address};
}

std::uint32_t wordAt(std::span<const std::uint8_t> bytes, std::uint64_t offset) noexcept {
    return offset + 4 <= bytes.size() ? loadLittleEndian<std::uint32_t>(bytes.data() + offset) : 0;
}

/// Where the entry ends that lies last of all which the index names. An FDE's CIE lies before it,
/// so nothing behind that is needed.
std::uint64_t endOfLastEntry(const ImageBytes& image, std::span<const std::uint8_t> index,
                             std::uint64_t header, std::uint64_t limit) {
    std::int32_t farthest = std::numeric_limits<std::int32_t>::min();
    for (std::uint64_t at = headerSize + 4; at + 4 <= index.size(); at += pairSize) {
        farthest = std::max(farthest, loadLittleEndian<std::int32_t>(index.data() + at));
    }
    const std::uint64_t entry = header + static_cast<std::uint64_t>(std::int64_t{farthest});
    std::uint8_t length[4]{};
    const bool isRead = image(entry, length) == sizeof(length);
    const std::uint64_t end = entry + sizeof(length) + loadLittleEndian<std::uint32_t>(length);
    return isRead && entry < limit && end < limit ? end : limit;
}

void append(std::vector<std::uint8_t>& bytes, std::uint32_t word) {
    std::uint8_t raw[sizeof(word)];
    std::memcpy(raw, &word, sizeof(word));
    bytes.insert(bytes.end(), raw, raw + sizeof(raw));
}

/// A distance as an index has it, modulo 2^32; whether it fits is another question.
std::uint32_t distance(std::uint64_t address, std::uint64_t base) noexcept {
    return static_cast<std::uint32_t>(address - base);
}

bool isNear(std::uint64_t address, std::uint64_t base) noexcept {
    const auto signedDistance = static_cast<std::int64_t>(address - base);
    return signedDistance == static_cast<std::int32_t>(signedDistance);
}

/// Where the code of each entry begins, and where the entry stands, in order of the code.
std::vector<std::pair<std::uint64_t, std::uint64_t>> listEntries(
    std::uint64_t frameAddress, std::span<const std::uint8_t> frames, TableBytes tables) {
    const NoMemory nothing;
    const TableReader reader(nothing, {}, tables);
    std::vector<std::pair<std::uint64_t, std::uint64_t>> entries;
    for (std::uint64_t at = 0; wordAt(frames, at) != 0;) {
        const bool isCie = wordAt(frames, at + 4) == 0;
        cfi::Fde fde;
        if (!isCie && cfi::parseFde(reader, frameAddress + at, fde)) {
            entries.emplace_back(fde.codeBegin, frameAddress + at);
        }
        at += std::uint64_t{4} + wordAt(frames, at);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

}  // namespace

UnwindTables::UnwindTables(const ImageBytes& image, std::uint64_t header, std::uint64_t limit)
    : indexAddress(header) {
    index = readRange(image, {header, std::min(header + headerSize, limit)});
    const bool isUsual = wordAt(index, 0) == usualForm && wordAt(index, 8) != 0;
    if (isUsual) {
        const std::uint64_t size = headerSize + std::uint64_t{wordAt(index, 8)} * pairSize;
        index = readRange(image, {header, std::min(header + size, limit)});
    } else {
        index = readRange(image, {header, std::min(header + 32, limit)});
    }
    const NoMemory nothing;
    frameAddress = cfi::framesOfHeader(TableReader(nothing, bytesAt(header, index), {}), header);
    const std::uint64_t end = isUsual ? endOfLastEntry(image, index, header, limit) : limit;
    frames = readRange(image, {frameAddress, end});
    if (!isUsual) {
        makeIndex();
    }
}

UnwindTables::UnwindTables(const ImageBytes& image, AddressRange range)
    : frameAddress(range.begin), frames(readRange(image, range)) {
    makeIndex();
}

cfi::TableBytes UnwindTables::around(std::uint64_t address) const noexcept {
    return address == indexAddress ? bytesAt(indexAddress, index) : bytesAt(frameAddress, frames);
}

// It is said to stand right before the frames, whatever else is there: nobody reads it but through
// these tables.
void UnwindTables::makeIndex() {
    index.clear();
    const auto entries = listEntries(frameAddress, frames, bytesAt(frameAddress, frames));
    if (entries.empty()) {
        return;
    }
    indexAddress = frameAddress - 4;
    append(index, usualForm);
    append(index, distance(frameAddress, indexAddress + 4));
    append(index, 0);
    std::uint32_t count = 0;
    for (const auto& [code, entry] : entries) {
        if (isNear(code, indexAddress) && isNear(entry, indexAddress)) {
            append(index, distance(code, indexAddress));
            append(index, distance(entry, indexAddress));
            ++count;
        }
    }
    std::memcpy(index.data() + 8, &count, sizeof(count));
}

}  // namespace ThreadUtilities::process
