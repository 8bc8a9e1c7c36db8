// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// What a conversion begins with: stacks with weights, thread by thread, and their names.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "report/report.h"
#include "report/report_reader.h"
#include "symbols/symbols.h"
#include "tree/function_tree.h"

namespace ThreadUtilities::companion {

class Source {
 public:
    /// Throws InputError, as readDocument. Complaints, and what is left out, go to the error
    /// stream.
    Source(const std::filesystem::path& file, const SymbolOptions& symbolOptions);
    Source(Document&& wholeDocument, std::string documentTitle, const SymbolOptions& symbolOptions);
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    /// The file's name, for headings.
    const std::string& title() const { return name; }
    /// Of the profiles, one behind the other. Where there is none, a thread's stack in a report of
    /// all threads counts as one sample, and so does a single stack.
    const std::vector<ThreadProfile>& threads() const { return threadProfiles; }
    std::uint64_t samples() const { return sampleCount; }
    const FrameTable& frames() const { return document.frames; }
    const Symbols& symbols() const { return names; }
    FunctionTable& functions() { return functionTable; }

    /// At the end: says on the error stream what has no name. The exit status; throws InputError
    /// for a report of another system, none of whose frames has a name.
    int finish() const;

 private:
    Document document;
    std::string name;
    std::size_t leftOut = 0;
    std::vector<ThreadProfile> threadProfiles;
    std::uint64_t sampleCount = 0;
    Symbols names;
    FunctionTable functionTable;
};

/// Never empty: "thread ID" for one without a name.
std::string threadLabel(const ThreadProfile& thread);

/// Samples that ended in each node, and at last those without a single frame.
std::vector<std::uint64_t> ownSamples(const ThreadProfile& thread);

}  // namespace ThreadUtilities::companion
