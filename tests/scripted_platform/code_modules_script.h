#pragma once

#include "platform/code_modules.h"

namespace ThreadUtilities::scripted {

/// Adds a module of which all bytes can be read.
void addCodeModule(const platform::CodeModule& module);
void removeAllCodeModules();

}  // namespace ThreadUtilities::scripted
