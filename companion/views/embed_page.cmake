# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Makes OUTPUT, a source file with the page of folder PAGE in one piece before its data and one
# behind them. Run with cmake -P.
cmake_minimum_required(VERSION 3.25)

file(READ "${PAGE}/page.html" page)
file(READ "${PAGE}/page.css" style)
set(script)
foreach(name model picture page)
    file(READ "${PAGE}/${name}.js" text)
    string(APPEND script "${text}")
endforeach()
string(REPLACE "@STYLE@" "${style}" page "${page}")
string(REPLACE "@SCRIPT@" "${script}" page "${page}")
string(FIND "${page}" "@DATA@" data)
string(SUBSTRING "${page}" 0 ${data} before)
math(EXPR data "${data} + 6")
string(SUBSTRING "${page}" ${data} -1 behind)
file(WRITE "${OUTPUT}" "// Made from the files in ${PAGE}.
#include \"views/page_text.h\"

namespace ThreadUtilities::companion {

const std::string_view pageBeforeData = R\"~~page~~(${before})~~page~~\";
const std::string_view pageBehindData = R\"~~page~~(${behind})~~page~~\";

}  // namespace ThreadUtilities::companion
")
