#pragma once

namespace ThreadUtilities::scripted {

/// The converters convert as the system's do; while they fail, they answer 0.
void setTextConversionFails(bool fails);

/// Calls of either converter since the last reset.
int textConversionCalls();
void resetTextConversion();

}  // namespace ThreadUtilities::scripted
