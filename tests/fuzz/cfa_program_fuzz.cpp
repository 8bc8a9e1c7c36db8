// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Any bytes as the programs of a CIE and an FDE: they end, read nothing outside, and the row can be
// applied. The first byte is the length of the first program, the second the address asked for.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/made_up_frame.h"
#include "unwind/cfa_program.h"

using namespace ThreadUtilities;
using namespace ThreadUtilities::cfi;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::vector<std::uint8_t> bytes(data + 2, data + size);
    const std::size_t cieSize = std::min<std::size_t>(data[0], bytes.size());
    Fde fde;
    fde.codeEnd = 256;
    fde.dataAlignment = -8;
    fde.returnAddressColumn = platform::Rip;
    fde.initialInstructions = ByteCursor(bytes.data(), cieSize);
    fde.instructions = ByteCursor(bytes.data() + cieSize, bytes.size() - cieSize);
    UnwindRow row;
    if (rowAt(fde, data[1], row)) {
        MadeUpFrame().apply(row, platform::Rip, bytes.data() + bytes.size());
    }
    return 0;
}
