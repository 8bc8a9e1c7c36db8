#pragma once

namespace ThreadUtilities::platform {

/// In a copied process `action` runs once everything registered has been restarted, and before
/// other code of the copy. One action; without one nothing more happens.
void setActionAfterCopy(void (*action)()) noexcept;

}  // namespace ThreadUtilities::platform
