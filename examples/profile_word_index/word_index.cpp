// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "word_index.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <system_error>

namespace fs = std::filesystem;

namespace {

bool isWordCharacter(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

/// The file's text, or its beginning where it is very long.
std::string readFile(const fs::path& file) {
    constexpr std::uintmax_t longestText = 4 * 1024 * 1024;
    std::error_code unreadable;
    const std::uintmax_t size = fs::file_size(file, unreadable);
    std::string text(unreadable ? 0 : std::min(size, longestText), '\0');
    std::ifstream stream(file, std::ios::binary);
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(stream.gcount()));
    return text;
}

}  // namespace

std::vector<fs::path> filesBelow(const fs::path& folder) {
    std::vector<fs::path> files;
    constexpr auto options = fs::directory_options::skip_permission_denied;
    for (const auto& entry : fs::recursive_directory_iterator(folder, options)) {
        std::error_code unreadable;
        if (entry.is_regular_file(unreadable)) {
            files.push_back(entry.path());
        }
    }
    return files;
}

WordCounts countWords(const fs::path& file) {
    const std::string text = readFile(file);
    WordCounts counts;
    auto position = text.begin();
    while (position != text.end()) {
        const auto begin = std::find_if(position, text.end(), isWordCharacter);
        position = std::find_if_not(begin, text.end(), isWordCharacter);
        if (begin != position) {
            ++counts[std::string(begin, position)];
        }
    }
    return counts;
}

void WordIndex::merge(const WordCounts& counts) {
    const std::lock_guard lock(mutex);
    for (const auto& [word, count] : counts) {
        words[word] += count;
    }
}

std::size_t WordIndex::size() const {
    const std::lock_guard lock(mutex);
    return words.size();
}
