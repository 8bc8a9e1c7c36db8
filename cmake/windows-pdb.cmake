# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Toolchain: the same as windows-cross.cmake, but compiled and linked by LLVM, whose linker writes
# PDBs: the debug information that a symbol server keeps. Headers and libraries are mingw-w64's.
include("${CMAKE_CURRENT_LIST_DIR}/windows-cross.cmake")

execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libstdc++.dll.a
    OUTPUT_VARIABLE libstdcxx OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
cmake_path(GET libstdcxx PARENT_PATH gcc_folder)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
foreach(language C CXX)
    set(CMAKE_${language}_COMPILER_TARGET ${triplet})
    set(CMAKE_${language}_FLAGS_INIT "-g -gcodeview -Wno-unused-command-line-argument")
endforeach()
# Clang does not find the folders of Debian's compiler by itself.
set(CMAKE_SYSROOT /usr/${triplet})
string(APPEND CMAKE_CXX_FLAGS_INIT " -stdlib++-isystem ${gcc_folder}/include/c++"
    " -stdlib++-isystem ${gcc_folder}/include/c++/${triplet}")
foreach(kind EXE SHARED MODULE)
    # An empty name: beside the image and named after it. The thread library is named here, because
    # GCC's own driver would name it.
    set(CMAKE_${kind}_LINKER_FLAGS_INIT
        "-fuse-ld=lld -Wl,--pdb= -L${gcc_folder} -lwinpthread")
endforeach()
