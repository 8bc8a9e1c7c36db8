// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/call_site.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "foundation/checked_bytes.h"

namespace ThreadUtilities::cfi {
namespace {

constexpr std::size_t longestCall = 7;  // without prefixes, which nothing here needs to know

/// The length that the operands of `FF /2` (call through a register or memory; Intel SDM volume 2,
/// 2.1.5) give the instruction; 0 for another operation.
std::size_t lengthOfIndirectCall(std::uint8_t modes, std::uint8_t scaled) noexcept {
    constexpr unsigned call = 2;
    constexpr unsigned inMemoryByScaled = 4;
    constexpr unsigned noBase = 5;
    const unsigned mode = modes >> 6;
    const unsigned operand = modes & 7;
    if ((modes >> 3 & 7) != call) {
        return 0;
    }
    if (mode == 3) {
        return 2;
    }
    const bool hasScaled = operand == inMemoryByScaled;
    const unsigned base = hasScaled ? scaled & 7 : operand;
    const std::size_t displacement = mode == 1 ? 1 : mode == 2 || base == noBase ? 4 : 0;
    return 2 + (hasScaled ? 1 : 0) + displacement;
}

bool endsInCall(const std::uint8_t (&code)[longestCall]) noexcept {
    constexpr std::uint8_t callRelative = 0xE8;
    constexpr std::uint8_t indirect = 0xFF;
    if (code[longestCall - 5] == callRelative) {
        return true;
    }
    for (std::size_t length = 2; length <= longestCall; ++length) {
        const std::uint8_t* const at = code + longestCall - length;
        if (at[0] == indirect &&
            lengthOfIndirectCall(at[1], length > 2 ? at[2] : std::uint8_t{0}) == length) {
            return true;
        }
    }
    return false;
}

template <class Value>
bool readAt(const AddressSpace& space, std::uint64_t address, Value& value) noexcept {
    return space.read(address, &value, sizeof(value)) == sizeof(value);
}

std::uint64_t relativeTo(std::uint64_t next, const std::uint8_t* offset) noexcept {
    return next + static_cast<std::uint64_t>(std::int64_t{loadLittleEndian<std::int32_t>(offset)});
}

/// Where an entry of a linkage table leads; `address` itself where it is none.
std::uint64_t throughLinkageTable(const AddressSpace& space, std::uint64_t address) noexcept {
    std::array<std::uint8_t, 16> entry{};
    if (!readAt(space, address, entry)) {
        return address;
    }
    constexpr std::array<std::uint8_t, 4> mark{0xF3, 0x0F, 0x1E, 0xFA};  // endbr64
    std::size_t at = std::equal(mark.begin(), mark.end(), entry.begin()) ? mark.size() : 0;
    at += entry[at] == 0xF2 ? 1 : 0;
    std::uint64_t target = address;
    if (entry[at] == 0xFF && entry[at + 1] == 0x25 &&
        readAt(space, relativeTo(address + at + 6, &entry[at + 2]), target)) {
        return target;
    }
    return address;
}

}  // namespace

bool isBehindSystemCall(const AddressSpace& space, std::uint64_t address) noexcept {
    constexpr std::array<std::uint8_t, 2> systemCall{0x0F, 0x05};
    std::array<std::uint8_t, 2> code{};
    return address >= code.size() && readAt(space, address - code.size(), code) &&
           code == systemCall;
}

CallTarget callBefore(const AddressSpace& space, std::uint64_t address) noexcept {
    CallTarget call;
    call.site = callSiteAt(space, address);
    std::array<std::uint8_t, 6> code{};
    if (call.site != CallSite::Behind || !readAt(space, address - code.size(), code)) {
        return call;
    }
    if (code[0] == 0xFF && code[1] == 0x15) {  // through a word of the linkage table
        call.isNamed = readAt(space, relativeTo(address, &code[2]), call.target);
    } else if (code[1] == 0xE8) {
        call.isNamed = true;
        call.target = throughLinkageTable(space, relativeTo(address, &code[2]));
    }
    return call;
}

CallSite callSiteAt(const AddressSpace& space, std::uint64_t address) noexcept {
    std::uint8_t code[longestCall];
    if (address < longestCall ||
        space.read(address - longestCall, code, longestCall) != longestCall) {
        return CallSite::Unreadable;
    }
    return endsInCall(code) ? CallSite::Behind : CallSite::NotBehind;
}

}  // namespace ThreadUtilities::cfi
