# Toolchain: 64-bit Windows with Debian's mingw-w64 (POSIX thread model, for <thread> and <mutex>).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(triplet x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${triplet}-gcc-posix)
set(CMAKE_CXX_COMPILER ${triplet}-g++-posix)
set(CMAKE_RC_COMPILER ${triplet}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# A package of the user's, this library's for one, may be installed anywhere.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# -static and not just -static-libgcc -static-libstdc++: the thread library of the compiler would
# stay a DLL of its own otherwise. System libraries are import libraries either way.
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "-static -Wl,--build-id")
endforeach()
