// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Feeds a fuzz target with the files of a corpus, for builds without libFuzzer: each input whole,
// and cut off at every length.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

// Cutting takes time in the square of the length.
constexpr std::size_t longestToCut = 4096;

void run(const std::vector<char>& input, std::size_t size) {
    // An allocation of exactly this size lets AddressSanitizer see every byte read beyond it.
    const auto copy = std::make_unique<std::uint8_t[]>(size);
    std::copy_n(input.begin(), size, copy.get());
    LLVMFuzzerTestOneInput(copy.get(), size);
}

}  // namespace

int main(int argc, char** argv) {
    int inputs = 0;
    for (int argument = 1; argument < argc; ++argument) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[argument])) {
            if (!entry.is_regular_file()) {
                continue;
            }
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> input{std::istreambuf_iterator<char>(file), {}};
            std::size_t size = input.size() <= longestToCut ? 0 : input.size();
            for (; size <= input.size(); ++size) {
                run(input, size);
            }
            ++inputs;
        }
    }
    std::printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
