#pragma once

#include <cstdint>
#include "platform/code_modules.h"
#include "stack/cfi/compiled_rule.h"
#include "stack/cfi/register_file.h"
#include "stack/stack_words.h"
#include "stack/walk.h"

namespace ThreadUtilities::cfi {

struct TableStep {
    StepResult result = StepResult::Made;
    bool isSignalFrame = false;
    CompiledRule rule;  ///< that would have done the same; empty when there is none
};

/// One frame outward from `registers` by the tables of `module`, which covers `address`: the
/// address to look up, which is one byte before a return address. Takes some hundred nanoseconds.
/// Context: target stopped, or signal handler; no allocation, no lock, no log.
TableStep stepByTables(const platform::CodeModule& module, std::uint64_t address,
                       RegisterFile& registers, StackWords& words) noexcept;

}  // namespace ThreadUtilities::cfi
