// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Any bytes as the operations of an expression: it ends and reads nothing outside.

#include "unwind/expression.h"
#include "unwind/own_space.h"

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/made_up_frame.h"

using namespace ThreadUtilities;
using namespace ThreadUtilities::cfi;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::uint8_t> bytes(data, data + size);
    const MadeUpFrame frame;
    StackWords words(ownSpace, {});
    const std::uint64_t initial = 0x1000;
    std::uint64_t result = 0;
    evaluateExpression(ByteCursor(bytes.data(), bytes.size()), frame.registers, words, &initial,
                       result);
    return 0;
}
