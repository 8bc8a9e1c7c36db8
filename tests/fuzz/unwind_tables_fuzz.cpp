// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Any bytes as `.eh_frame_hdr` and what follows it, in place and copied from another process:
// lookups end, read nothing outside, and what they find can be run and applied.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "fuzz/made_up_frame.h"
#include "process/unwind_tables.h"
#include "unwind/cfa_program.h"
#include "unwind/eh_frame.h"
#include "unwind/own_space.h"

namespace {

using namespace ThreadUtilities;
using namespace ThreadUtilities::cfi;

void look(const TableReader& reader, std::uint64_t header, std::uint64_t address) {
    Fde fde;
    if (findFde(reader, header, framesOfHeader(reader, header), address, fde) !=
        LookupResult::Found) {
        return;
    }
    require(fde.codeBegin <= address && address < fde.codeEnd);
    UnwindRow row;
    if (rowAt(fde, address, row)) {
        MadeUpFrame().apply(row, fde.returnAddressColumn, fde.tableEnd);
    }
}

void lookInCopy(const process::UnwindTables& tables, std::uint64_t address) {
    const TableBytes header = tables.around(tables.header());
    const std::uint64_t frames = framesOfHeader(TableReader(ownSpace, header, {}), tables.header());
    look(TableReader(ownSpace, header, tables.around(frames)), tables.header(), address);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::uint8_t> bytes(data, data + size);
    const auto begin = reinterpret_cast<std::uint64_t>(bytes.data());
    const platform::ReadableRange range{begin, begin + size};
    const process::ImageBytes image = [&](std::uint64_t address, std::span<std::uint8_t> out) {
        const std::uint64_t offset = address - begin;
        const std::size_t found = offset < size ? std::min(out.size(), size - offset) : 0;
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(found != 0 ? offset : 0), found,
                    out.begin());
        return found;
    };
    const process::UnwindTables indexed(image, begin, begin + size);
    const process::UnwindTables bare(image, {begin, begin + size});
    TableCopies copies;
    for (const std::uint64_t offset : {0x0, 0x100, 0x180, 0x1FF, 0x4000}) {
        look(TableReader(ownSpace, {range}, {range}), begin, begin + offset);
        look(TableReader(ownSpace, copies), begin, begin + offset);
        lookInCopy(indexed, begin + offset);
        lookInCopy(bare, begin + offset);
    }
    return 0;
}
