#include "stack/cfi/frame_description.h"

#include "stack/cfi/encoded_pointer.h"

namespace ThreadUtilities::cfi {
namespace {

using platform::ReadableRange;

/// A table without an index is searched entry by entry, on a thread that stands still.
constexpr unsigned maxScannedEntries = 1 << 16;

/// From here on the length field would be the 64-bit form, which no unwind table uses.
constexpr std::uint32_t firstReservedLength = 0xFFFFFFF0;

ByteCursor cursorAt(ReadableRange bytes, std::uint64_t address) noexcept {
    if (address < bytes.begin || address > bytes.end) {
        ByteCursor outside;
        outside.fail();
        return outside;
    }
    return {reinterpret_cast<const std::uint8_t*>(address),
            reinterpret_cast<const std::uint8_t*>(bytes.end)};
}

std::uint64_t addressOf(const ByteCursor& cursor) noexcept {
    return reinterpret_cast<std::uint64_t>(cursor.data());
}

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
void parseAugmentation(std::string_view letters, ByteCursor& bytes,
                       FrameDescription& description) noexcept {
    for (const char letter : letters) {
        switch (letter) {
            case 'z':  // its length has been read
            case 'B':  // a pointer authentication key, on other processors
                break;
            case 'S':
                description.isSignalFrame = true;
                break;
            case 'R':
                description.pointerEncoding = bytes.read<std::uint8_t>();
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

bool parseCommonPart(ReadableRange section, std::uint64_t entry, FrameDescription& description,
                     bool& hasAugmentationLength) noexcept {
    ByteCursor bytes = cursorAt(section, entry);
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
    description.codeAlignment = cie.uleb128();
    description.dataAlignment = cie.sleb128();
    description.returnAddressColumn = version == 1 ? cie.read<std::uint8_t>() : cie.uleb128();
    hasAugmentationLength = augmentation.starts_with('z');
    if (hasAugmentationLength) {
        ByteCursor data = cie.sub(cie.uleb128());
        parseAugmentation(augmentation, data, description);
        if (!data.ok()) {
            return false;
        }
    } else if (!augmentation.empty()) {
        return false;
    }
    description.initialInstructions = cie;
    return cie.ok() && description.returnAddressColumn < platform::RegisterCount;
}

/// The index of the header: pairs of (start of code, address of its FDE), sorted by the first,
/// both as signed 32-bit distances from the header.
struct Index {
    const std::uint8_t* pairs = nullptr;
    std::uint64_t count = 0;
};
constexpr std::uint64_t pairSize = 8;
constexpr std::uint8_t pairEncoding = encoding::relativeToData | encoding::signed32;

/// An index in any other encoding is not used: no linker writes one.
Index indexOfHeader(const UnwindTables& tables) noexcept {
    ByteCursor bytes = cursorAt(tables.headerBytes, tables.header);
    bytes.read<std::uint8_t>();
    const auto framesEncoding = bytes.read<std::uint8_t>();
    const auto countEncoding = bytes.read<std::uint8_t>();
    const auto tableEncoding = bytes.read<std::uint8_t>();
    readEncodedNumber(bytes, framesEncoding);
    if (countEncoding == encoding::omitted || tableEncoding != pairEncoding) {
        return {};
    }
    const std::uint64_t count = readEncodedNumber(bytes, countEncoding);
    if (!bytes.ok() || count > bytes.remaining() / pairSize) {
        return {};
    }
    return {bytes.data(), count};
}

std::uint64_t indexed(const UnwindTables& tables, const std::uint8_t* number) noexcept {
    return tables.header +
           static_cast<std::uint64_t>(std::int64_t{loadLittleEndian<std::int32_t>(number)});
}

/// The FDE of the last pair whose code starts at or below `address`; 0 when all start above.
std::uint64_t searchIndex(const UnwindTables& tables, const Index& index,
                          std::uint64_t address) noexcept {
    std::uint64_t first = 0;
    std::uint64_t count = index.count;
    while (count > 0) {
        const std::uint64_t half = count / 2;
        const std::uint8_t* const pair = index.pairs + (first + half) * pairSize;
        if (indexed(tables, pair) <= address) {
            first += half + 1;
            count -= half + 1;
        } else {
            count = half;
        }
    }
    return first == 0 ? 0 : indexed(tables, index.pairs + (first - 1) * pairSize + 4);
}

bool covers(const FrameDescription& description, std::uint64_t address) noexcept {
    return description.codeBegin <= address && address < description.codeEnd;
}

LookupResult scanEntries(const UnwindTables& tables, std::uint64_t address,
                         FrameDescription& description) noexcept {
    ByteCursor bytes = cursorAt(tables.frameBytes, tables.frames);
    for (unsigned scanned = 0; scanned < maxScannedEntries && !bytes.atEnd(); ++scanned) {
        const std::uint64_t entry = addressOf(bytes);
        ByteCursor body = takeEntry(bytes);
        if (!bytes.ok()) {
            return LookupResult::Malformed;
        }
        if (body.atEnd()) {
            return LookupResult::NotCovered;
        }
        const bool isCommonPart = body.read<std::uint32_t>() == 0;
        if (!isCommonPart && parseFrameDescription(tables.frameBytes, entry, description) &&
            covers(description, address)) {
            return LookupResult::Found;
        }
    }
    return bytes.ok() ? LookupResult::NotCovered : LookupResult::Malformed;
}

}  // namespace

std::uint64_t framesOfHeader(std::uint64_t header, ReadableRange range) noexcept {
    ByteCursor bytes = cursorAt(range, header);
    const auto version = bytes.read<std::uint8_t>();
    const auto framesEncoding = bytes.read<std::uint8_t>();
    bytes.skip(2);
    const std::uint64_t frames = readEncodedPointer(bytes, framesEncoding, header);
    return version == 1 && bytes.ok() ? frames : 0;
}

LookupResult findFrameDescription(const UnwindTables& tables, std::uint64_t address,
                                  FrameDescription& description) noexcept {
    const Index index = indexOfHeader(tables);
    if (index.count == 0) {
        return scanEntries(tables, address, description);
    }
    const std::uint64_t entry = searchIndex(tables, index, address);
    if (entry == 0) {
        return LookupResult::NotCovered;
    }
    if (!parseFrameDescription(tables.frameBytes, entry, description)) {
        return LookupResult::Malformed;
    }
    return covers(description, address) ? LookupResult::Found : LookupResult::NotCovered;
}

bool parseFrameDescription(ReadableRange section, std::uint64_t entry,
                           FrameDescription& description) noexcept {
    ByteCursor bytes = cursorAt(section, entry);
    ByteCursor fde = takeEntry(bytes);
    const std::uint64_t distanceFrom = addressOf(fde);
    const auto distance = fde.read<std::uint32_t>();
    bool hasAugmentationLength = false;
    description = {};
    description.tableEnd = reinterpret_cast<const std::uint8_t*>(section.end);
    if (distance == 0 ||
        !parseCommonPart(section, distanceFrom - distance, description, hasAugmentationLength)) {
        return false;
    }
    description.codeBegin = readEncodedPointer(fde, description.pointerEncoding);
    const std::uint64_t size = readEncodedNumber(fde, description.pointerEncoding);
    if (hasAugmentationLength) {
        fde.skip(fde.uleb128());
    }
    const auto codeEnd = checkedAdd(description.codeBegin, size);
    description.codeEnd = codeEnd.value_or(0);
    description.instructions = fde;
    return codeEnd.has_value() && fde.ok();
}

}  // namespace ThreadUtilities::cfi
