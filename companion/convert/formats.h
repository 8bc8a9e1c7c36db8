// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The formats of other viewers. Weights are own samples, as the report has them.

#include <filesystem>
#include <ostream>
#include <span>
#include <string_view>

#include "convert/source.h"

namespace ThreadUtilities::companion {

/// One line a stack, for flamegraph.pl and its relatives: "thread;outer;inner WEIGHT". In names,
/// `;`, backslashes and control characters stand as `\x3B`.
void writeFolded(Source& source, std::ostream& output);

/// https://www.speedscope.app/file-format-schema.json: all threads together, then one by one.
void writeSpeedscope(Source& source, std::ostream& output);

/// https://github.com/google/pprof/blob/main/proto/profile.proto, compressed. A report has no
/// addresses of its own run: each module gets an address range behind the one before.
void writePprof(Source& source, std::ostream& output);

/// The processed profile format, version 48, of profiler.firefox.com. A report has no times: each
/// sample lasts a millisecond, and equal ones follow each other.
void writeFirefox(Source& source, std::ostream& output);

/// A page for a browser, without anything outside of it.
void writeHtml(Source& source, std::ostream& output);

struct Format {
    std::string_view name;
    /// Of a file, the first one by default.
    std::span<const std::string_view> endings;
    void (*write)(Source& source, std::ostream& output);
};

std::span<const Format> formats();

/// Null if there is none. An ending is looked for where the name is empty.
const Format* findFormat(std::string_view name, const std::filesystem::path& output);

}  // namespace ThreadUtilities::companion
