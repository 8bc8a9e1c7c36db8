// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Compresses what is written.

#include <zlib.h>

#include <ostream>
#include <string_view>

namespace ThreadUtilities::companion {

class GzipOutput {
 public:
    explicit GzipOutput(std::ostream& target);
    GzipOutput(const GzipOutput&) = delete;
    GzipOutput& operator=(const GzipOutput&) = delete;
    ~GzipOutput() { deflateEnd(&state); }

    void write(std::string_view bytes) { compress(bytes, Z_NO_FLUSH); }
    /// At the end, once.
    void finish() { compress({}, Z_FINISH); }

 private:
    void compress(std::string_view bytes, int flush);

    std::ostream& output;
    z_stream state = {};
};

}  // namespace ThreadUtilities::companion
