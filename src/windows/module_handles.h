// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Asking for a list whose length is known only to the one who answers.

#include <cstdint>
#include <vector>

namespace ThreadUtilities::platform {

/// The handles that `ask` reports. `ask(handles, sizeInBytes, bytesNeeded)` fills as many handles
/// as fit, sets the bytes that all of them take, and returns false on failure, which gives an empty
/// list. Asks again, with room for as many as were reported, until a report fits the list that it
/// was made for: modules may be loaded between two questions.
template <typename Handle, typename Ask>
std::vector<Handle> askForHandles(Ask ask) {
    std::vector<Handle> handles(1024);
    for (;;) {
        std::uint32_t bytesNeeded = 0;
        const auto size = static_cast<std::uint32_t>(handles.size() * sizeof(Handle));
        if (!ask(handles.data(), size, bytesNeeded)) {
            return {};
        }
        const std::size_t count = bytesNeeded / sizeof(Handle);
        const bool fits = count <= handles.size();
        handles.resize(count);
        if (fits) {
            return handles;
        }
    }
}

}  // namespace ThreadUtilities::platform
