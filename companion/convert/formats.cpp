// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "convert/formats.h"

#include <array>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace ThreadUtilities::companion {
namespace {

constexpr std::string_view htmlEndings[] = {".html", ".htm"};
constexpr std::string_view foldedEndings[] = {".folded"};
constexpr std::string_view speedscopeEndings[] = {".speedscope.json", ".speedscope"};
constexpr std::string_view pprofEndings[] = {".pb.gz", ".pprof"};
constexpr std::string_view firefoxEndings[] = {".firefox.json"};

constexpr std::array<Format, 5> allFormats = {{
    {"html", htmlEndings, &writeHtml},
    {"folded", foldedEndings, &writeFolded},
    {"speedscope", speedscopeEndings, &writeSpeedscope},
    {"pprof", pprofEndings, &writePprof},
    {"firefox", firefoxEndings, &writeFirefox},
}};

}  // namespace

std::span<const Format> formats() {
    return allFormats;
}

const Format* findFormat(std::string_view name, const std::filesystem::path& output) {
    const std::string file = output.filename().string();
    for (const Format& format : allFormats) {
        if (format.name == name) {
            return &format;
        }
        for (const std::string_view ending : format.endings) {
            if (name.empty() && file.size() > ending.size() && file.ends_with(ending)) {
                return &format;
            }
        }
    }
    return nullptr;
}

}  // namespace ThreadUtilities::companion
