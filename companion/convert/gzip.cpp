// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "convert/gzip.h"

#include <array>
#include <ios>
#include <new>
#include <ostream>
#include <string_view>

namespace ThreadUtilities::companion {

GzipOutput::GzipOutput(std::ostream& target) : output(target) {
    constexpr int gzipHeader = 16;
    constexpr int defaultMemory = 8;
    if (deflateInit2(&state, Z_DEFAULT_COMPRESSION, Z_DEFLATED, gzipHeader + MAX_WBITS,
                     defaultMemory, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::bad_alloc();
    }
}

void GzipOutput::compress(std::string_view bytes, int flush) {
    std::array<char, 16384> room;
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    state.avail_in = static_cast<uInt>(bytes.size());
    do {
        state.next_out = reinterpret_cast<Bytef*>(room.data());
        state.avail_out = room.size();
        deflate(&state, flush);
        output.write(room.data(), static_cast<std::streamsize>(room.size() - state.avail_out));
    } while (state.avail_out == 0);
}

}  // namespace ThreadUtilities::companion
