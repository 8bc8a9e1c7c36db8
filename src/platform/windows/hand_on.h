#pragma once

#include <exception>

namespace ThreadUtilities::platform {

/// Hands a notice of the loader on. Without memory for its list of threads the library is still of
/// use, and an exception must not reach the loader.
inline void handOn(void (*handler)()) noexcept {
    try {
        handler();
    } catch (const std::exception&) {
    }
}

}  // namespace ThreadUtilities::platform
