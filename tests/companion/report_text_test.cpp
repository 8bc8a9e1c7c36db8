// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "read/report_text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "companion/read_text.h"
#include "support/terminal.h"
#include "symbols/function_names.h"

namespace ThreadUtilities::companion {
namespace {

const std::string noId = "{00000000-0000-0000-0000-000000000000};";

TEST(ReportText, ShowsTheTreeWithItsHotPathAndWhatIsLeftOut) {
    const Pieces pieces(
        "Total sample count: 1000\nParallelism: 1\n\nThread 7 [1000]: u\ni\n"
        "  [990]: main+0x1" +
        noId + "\n   [600]: f+0x2" + noId + "\n    [250]: main+0x1" + noId + "\n   [300]: g+0x3" +
        noId + "\n   [9]: h+0x4" + noId + "\n\n");
    Symbols symbols({});
    symbols.resolve(pieces.document.frames);
    EXPECT_EQ(
        profileText(pieces.document.profiles.at(0), pieces.document.frames, symbols, {}, false),
        R"(Profile: 1000 samples of 1 thread, parallelism 1

Thread 7 u\ni: 1000 samples
>  99.0 %     990 ######## main+0x1
>  60.0 %     600 #####     f+0x2
   25.0 %     250 ###       main+0x1
   30.0 %     300 ##        g+0x3
    1.0 %      10          (no stack could be taken)
  1 call below 1 % not shown (--all)

Heaviest functions by own time
   35.0 %     350 ###      f+0x2
   33.1 %     331 ###      main+0x1
   30.0 %     300 ##       g+0x3
    0.9 %       9          h+0x4

Heaviest functions by total time
   99.0 %     990 ######## main+0x1
   60.0 %     600 #####    f+0x2
   30.0 %     300 ##       g+0x3
    0.9 %       9          h+0x4

)");
}

TEST(ReportText, PutsThreadsWithEqualStacksTogether) {
    std::string report = "[1][main]a+0x1" + noId + "\n";
    for (const char* const name : {"worker 10", "worker 9", "io", "worker 11", "", "io", "w07"}) {
        report += "[5][" + std::string(name) + "]b+0x1" + noId + "b+0x2" + noId + "\n";
    }
    const Pieces pieces(report);
    Symbols symbols({});
    symbols.resolve(pieces.document.frames);
    const std::string text =
        threadsText(pieces.document.threadReports.at(0), pieces.document.frames, symbols, {});
    EXPECT_EQ(text.substr(0, text.find('\n')),
              "7 threads: (no name), io (2 times), w07, worker 9 to worker 11");
    EXPECT_NE(text.find("\nThread 1: main\n    a+0x1{0000"), std::string::npos) << text;
}

TEST(ReportText, GivesATerminalNothingToObey) {
    const std::vector<std::pair<std::string, std::string>> names = {
        {"zwölf 漢 🧵", "zwölf 漢 🧵"},
        {"\x1B[2J\x7F\r", "\\x1b[2J\\x7f\\x0d"},
        {"\xC2\x9B"
         "2J",
         "\\xc2\\x9b2J"},
        {"\u202Etxt\u2028\u2066", "\\xe2\\x80\\xaetxt\\xe2\\x80\\xa8\\xe2\\x81\\xa6"},
        // No UTF-8: overlong, a surrogate, beyond Unicode, cut off.
        {"\x9B\xC0\x9B", "\\x9b\\xc0\\x9b"},
        {"\xE0\x82\x9B\xED\xA0\x80", "\\xe0\\x82\\x9b\\xed\\xa0\\x80"},
        {"\xF4\x90\x80\x80\xE6\xBC", "\\xf4\\x90\\x80\\x80\\xe6\\xbc"}};
    for (const auto& [name, expected] : names) {
        EXPECT_EQ(printable(name), expected);
    }
    const Pieces pieces("[1][x]a\x1B+0x1" + noId + '\n');
    Symbols symbols({});
    symbols.resolve(pieces.document.frames);
    EXPECT_EQ(symbols.summary().find('\x1B'), std::string::npos);
}

TEST(ReportText, LeavesTemplateArgumentsOutOfNames) {
    const std::vector<std::pair<const char*, const char*>> names = {
        {"std::map<int, std::vector<int> >::find(int const&)", "std::map::find(int const&)"},
        {"bool operator< <int>(A<int>, A<int>)", "bool operator< (A, A)"},
        {"A<1>::operator->() const", "A::operator->() const"},
        {"my_operator<int>(int)", "my_operator(int)"},
        {"std::ostream& operator<< <char>(int)", "std::ostream& operator<< (int)"},
        {"f<(a < b)>()", "f<(a < b)>()"}};
    for (const auto& [name, expected] : names) {
        EXPECT_EQ(withoutTemplateArguments(name), expected);
    }
}

}  // namespace
}  // namespace ThreadUtilities::companion
