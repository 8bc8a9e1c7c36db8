// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/eh_frame.h"

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/thread_context.h"
#include "unwind/address_space.h"
#include "unwind/encoded_pointer.h"

namespace ThreadUtilities::cfi {
namespace {

/// From here on the length field would be the 64-bit form, which no unwind table uses.
constexpr std::uint32_t firstReservedLength = 0xFFFFFFF0;

/// The body of the entry that `bytes` stands at, which it passes over; failed for a malformed one
/// and empty for the terminator.
ByteCursor takeEntry(ByteCursor& bytes) noexcept {
    const auto length = bytes.read<std::uint32_t>();
    if (length >= firstReservedLength) {
        bytes.fail();
    }
    return bytes.sub(length);
}

/// The augmentation letters of a CIE and the data that belongs to them.
void parseAugmentation(std::string_view letters, ByteCursor& bytes, Fde& fde) noexcept {
    for (const char letter : letters) {
        switch (letter) {
            case 'z':  // its length has been read
            case 'B':  // a pointer authentication key, on other processors
                break;
            case 'S':
                fde.isSignalFrame = true;
                break;
            case 'R':
                fde.pointerEncoding = bytes.read<std::uint8_t>();
                break;
            case 'L':
                bytes.read<std::uint8_t>();
                break;
            case 'P':
                readEncodedNumber(bytes, bytes.read<std::uint8_t>());
                break;
            default:
                // The length of its data is unknown, and with it where the next letter's begins.
                bytes.fail();
        }
    }
}

bool parseCie(const TableReader& reader, std::uint64_t entry, Fde& fde,
              bool& hasAugmentationLength) noexcept {
    ByteCursor bytes = reader.cie(entry).bytes;
    ByteCursor cie = takeEntry(bytes);
    if (cie.read<std::uint32_t>() != 0) {
        return false;
    }
    const auto version = cie.read<std::uint8_t>();
    if (version != 1 && version != 3 && version != 4) {
        return false;
    }
    const std::string_view augmentation = cie.cString();
    if (version == 4 && (cie.read<std::uint8_t>() != 8 || cie.read<std::uint8_t>() != 0)) {
        return false;  // address size, segment selector size
    }
    fde.codeAlignment = cie.uleb128();
    fde.dataAlignment = cie.sleb128();
    fde.returnAddressColumn = version == 1 ? cie.read<std::uint8_t>() : cie.uleb128();
    hasAugmentationLength = augmentation.starts_with('z');
    if (hasAugmentationLength) {
        ByteCursor data = cie.sub(cie.uleb128());
        parseAugmentation(augmentation, data, fde);
        if (!data.ok()) {
            return false;
        }
    } else if (!augmentation.empty()) {
        return false;
    }
    fde.initialInstructions = cie;
    return cie.ok() && fde.returnAddressColumn < platform::RegisterCount;
}

/// The index of the header: pairs of (start of code, address of its FDE), sorted by the first,
/// both as signed 32-bit distances from the header.
struct Index {
    std::uint64_t pairs = 0;
    std::uint64_t count = 0;
};
constexpr std::uint64_t pairSize = 8;
constexpr std::uint64_t maxPairs = std::uint64_t{1} << 32;
constexpr std::uint8_t pairEncoding = encoding::relativeToData | encoding::signed32;

/// An index in any other encoding is not used: no linker writes one.
Index indexOfHeader(const TableReader& reader, std::uint64_t header) noexcept {
    TableReader::Piece piece = reader.index(header);
    ByteCursor& bytes = piece.bytes;
    bytes.read<std::uint8_t>();
    const auto framesEncoding = bytes.read<std::uint8_t>();
    const auto countEncoding = bytes.read<std::uint8_t>();
    const auto tableEncoding = bytes.read<std::uint8_t>();
    readEncodedNumber(bytes, framesEncoding);
    if (countEncoding == encoding::omitted || tableEncoding != pairEncoding) {
        return {};
    }
    const std::uint64_t count = readEncodedNumber(bytes, countEncoding);
    if (!bytes.ok() || count > maxPairs) {
        return {};
    }
    return {piece.address(), count};
}

/// One half of a pair, as an address.
std::optional<std::uint64_t> indexed(const TableReader& reader, std::uint64_t header,
                                     std::uint64_t half) noexcept {
    TableReader::Piece piece = reader.index(half);
    const auto distance = piece.bytes.read<std::int32_t>();
    return piece.bytes.ok() ? checkedOffset(header, distance) : std::nullopt;
}

/// The FDE of the last pair whose code starts at or below `address`; `entry` is 0 when all start
/// above. False when the index leaves the readable bytes.
bool searchIndex(const TableReader& reader, std::uint64_t header, const Index& index,
                 std::uint64_t address, std::uint64_t& entry) noexcept {
    std::uint64_t first = 0;
    std::uint64_t count = index.count;
    while (count > 0) {
        const std::uint64_t half = count / 2;
        const auto start = indexed(reader, header, index.pairs + (first + half) * pairSize);
        if (!start) {
            return false;
        }
        if (*start <= address) {
            first += half + 1;
            count -= half + 1;
        } else {
            count = half;
        }
    }
    entry = 0;
    if (first == 0) {
        return true;
    }
    const auto found = indexed(reader, header, index.pairs + (first - 1) * pairSize + 4);
    entry = found.value_or(0);
    return found.has_value();
}

bool covers(const Fde& fde, std::uint64_t address) noexcept {
    return fde.codeBegin <= address && address < fde.codeEnd;
}

/// The entry at `entry`, if it covers the address.
bool isEntryOf(const TableReader& reader, std::uint64_t entry, std::uint64_t address,
               Fde& fde) noexcept {
    return entry != 0 && parseFde(reader, entry, fde) && covers(fde, address);
}

}  // namespace

LookupResult scanEntries(const TableReader& reader, std::uint64_t frames, std::uint64_t address,
                         unsigned mostEntries, Fde& fde, std::uint64_t& found) noexcept {
    std::uint64_t entry = frames;
    for (unsigned scanned = 0; scanned < mostEntries; ++scanned) {
        TableReader::Piece piece = reader.fde(entry);
        ByteCursor body = takeEntry(piece.bytes);
        if (!piece.bytes.ok()) {
            return LookupResult::Malformed;
        }
        if (body.atEnd()) {
            return LookupResult::NotCovered;
        }
        const std::uint64_t next = piece.address();
        const bool isCie = body.read<std::uint32_t>() == 0;
        if (!isCie && isEntryOf(reader, entry, address, fde)) {
            found = entry;
            return LookupResult::Found;
        }
        entry = next;
    }
    return LookupResult::LongSearch;
}

std::uint64_t framesOfHeader(const TableReader& reader, std::uint64_t header) noexcept {
    TableReader::Piece piece = reader.index(header);
    const auto version = piece.bytes.read<std::uint8_t>();
    const auto framesEncoding = piece.bytes.read<std::uint8_t>();
    piece.bytes.skip(2);
    const std::uint64_t frames =
        readEncodedPointer(piece.bytes, framesEncoding, piece.shift, header);
    return version == 1 && piece.bytes.ok() ? frames : 0;
}

LookupResult findFde(const TableReader& reader, std::uint64_t header, std::uint64_t frames,
                     std::uint64_t address, Fde& fde) noexcept {
    const Index index = indexOfHeader(reader, header);
    std::uint64_t entry = 0;
    if (index.count == 0) {
        const std::uint64_t scanned = reader.addressSpace().scannedEntry(address);
        if (scanned == noEntry) {
            return LookupResult::NotCovered;
        }
        if (isEntryOf(reader, scanned, address, fde)) {
            return LookupResult::Found;
        }
        const LookupResult result =
            scanEntries(reader, frames, address, mostEntriesWhileHeld, fde, entry);
        if (result == LookupResult::LongSearch) {
            reader.addressSpace().wantScan(frames, address);
        }
        return result;
    }
    if (!searchIndex(reader, header, index, address, entry)) {
        return LookupResult::Malformed;
    }
    if (entry == 0) {
        return LookupResult::NotCovered;
    }
    if (!parseFde(reader, entry, fde)) {
        return LookupResult::Malformed;
    }
    return covers(fde, address) ? LookupResult::Found : LookupResult::NotCovered;
}

bool parseFde(const TableReader& reader, std::uint64_t entry, Fde& fde) noexcept {
    TableReader::Piece piece = reader.fde(entry);
    TableReader::Piece body{takeEntry(piece.bytes), piece.shift};
    const std::uint64_t distanceFrom = body.address();
    const auto distance = body.bytes.read<std::uint32_t>();
    bool hasAugmentationLength = false;
    fde = {};
    fde.tableEnd = reader.end();
    if (distance == 0 || !parseCie(reader, distanceFrom - distance, fde, hasAugmentationLength)) {
        return false;
    }
    fde.codeBegin = readEncodedPointer(body.bytes, fde.pointerEncoding, piece.shift);
    const std::uint64_t size = readEncodedNumber(body.bytes, fde.pointerEncoding);
    if (hasAugmentationLength) {
        body.bytes.skip(body.bytes.uleb128());
    }
    const auto codeEnd = checkedAdd(fde.codeBegin, size);
    fde.codeEnd = codeEnd.value_or(0);
    fde.instructions = body.bytes;
    fde.instructionShift = piece.shift;
    return codeEnd.has_value() && body.bytes.ok();
}

}  // namespace ThreadUtilities::cfi
