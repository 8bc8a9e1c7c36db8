// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// A GUID as a 16-byte value in the system's layout. Plain value, safe to copy anywhere.
///
/// \code
/// const vesko::guid id(systemGuid);  // the system's own type, of the same 16 bytes
/// \endcode

#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace vesko {

/// Default: the nil GUID, all bytes zero.
struct guid {
    guid() = default;

    /// Copies the 16 bytes of a system GUID (any trivially copyable type of that size) as they
    /// stand in memory.
    template <typename SystemGuid,
              typename = std::enable_if_t<sizeof(SystemGuid) == 16 &&
                                          std::is_trivially_copyable_v<SystemGuid> &&
                                          !std::is_same_v<SystemGuid, guid>>>
    explicit guid(const SystemGuid& other) {
        std::memcpy(this, &other, sizeof(*this));
    }

    std::uint32_t Data1 = 0;
    std::uint16_t Data2 = 0;
    std::uint16_t Data3 = 0;
    std::array<std::uint8_t, 8> Data4 = {};
};

static_assert(sizeof(guid) == 16 && std::is_trivially_copyable_v<guid>);

}  // namespace vesko
