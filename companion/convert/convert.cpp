// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

#include "commands.h"
#include "convert/formats.h"
#include "convert/output_file.h"
#include "convert/source.h"

namespace ThreadUtilities::companion {
namespace {

const Format& chooseFormat(const ConvertOptions& options) {
    const Format* const format = findFormat(options.format, options.output);
    if (format != nullptr) {
        return *format;
    }
    std::string names;
    std::string endings;
    for (const Format& each : formats()) {
        names += (names.empty() ? "" : ", ") + std::string(each.name);
        endings += (endings.empty() ? "" : ", ") + std::string(each.endings.front());
    }
    throw std::runtime_error(options.format.empty()
                                 ? "which format? --to one of " + names +
                                       ", or -o with a file that ends in one of " + endings
                                 : "no format " + options.format + ", but " + names);
}

/// Beside the input, which may be a pipe.
std::filesystem::path outputPath(const ConvertOptions& options, const Format& format) {
    if (!options.output.empty()) {
        return options.output;
    }
    if (!std::filesystem::is_regular_file(options.file) || format.name == "folded") {
        return "-";
    }
    std::filesystem::path path = options.file;
    return path.replace_extension(format.endings.front());
}

}  // namespace

int runConvert(const ConvertOptions& options) {
    const Format& format = chooseFormat(options);
    const std::filesystem::path path = outputPath(options, format);
    keepInput(options.file, path);
    Source source(options.file, options.symbols);
    OutputFile output(path);
    format.write(source, output.stream());
    output.commit();
    if (options.output.empty() && path != "-") {
        std::cout << path.string() << '\n';
    }
    return source.finish();
}

}  // namespace ThreadUtilities::companion
