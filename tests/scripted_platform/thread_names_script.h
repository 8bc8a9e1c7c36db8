#pragma once

#include <string>
#include <vector>

namespace ThreadUtilities::scripted {

/// Gives a thread the name that the system then tells, malformed ones included. Empty takes it
/// away.
void setThreadName(unsigned int threadId, const std::string& name);

/// Every name that the library gave to any thread, in order, as it reached the system.
std::vector<std::string> namesGiven();

/// Forgets all names.
void clearThreadNames();

}  // namespace ThreadUtilities::scripted
