#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
#
# Installs the library, moves it elsewhere, and builds and runs programs there that find it by CMake
# and by pkg-config.
#
#   installed_package.sh shared|static|deb SOURCE_FOLDER BUILD_FOLDER SCRATCH_FOLDER COMPILER
#
# CXXFLAGS and LDFLAGS are those of the library's build: they may choose the standard library.
#
# shared: what the build folder holds; static: a static library beside that, in the same folder;
# deb: the Debian packages that the build folder makes, unpacked.
set -euo pipefail
kind=$1 source=$2 build=$3 scratch=$4 compiler=$5
place="$scratch/second place"

# Two runs of the tests in one build folder take turns.
exec {lock}>"$scratch.lock"
flock "$lock"
rm -rf "$scratch"
mkdir -p "$scratch/first"

if [[ $kind == deb ]]; then
    command -v dpkg-shlibdeps >/dev/null || {
        echo "skipped: no dpkg-dev"
        exit 77
    }
    (cd "$build" && cpack -G DEB -B "$scratch/packages" >/dev/null)
    for package in "$scratch"/packages/*.deb; do
        dpkg-deb --extract "$package" "$scratch/first"
        dpkg-deb --field "$package" Package Depends
    done | tee "$scratch/fields"
    # A program needs the run-time package; that one, the C library of the system it was made on.
    grep -qx 'Depends: libthreadutilities1 (= .*)' "$scratch/fields"
    grep -qE '^Depends: (.*, )?libc6 \(>= ' "$scratch/fields"
    for package in libthreadutilities1 libthreadutilities-dev; do
        cmp "$source/LICENSE" "$scratch/first/usr/share/doc/$package/copyright"
    done
    mv "$scratch/first/usr" "$place"
    if [[ -e $build/companion/thread-utilities ]]; then
        grep -A 1 -x 'Package: thread-utilities' "$scratch/fields" | grep -q '^Depends: .*libdw1'
        "$place/bin/thread-utilities" --version
        test -e "$place/share/man/man1/thread-utilities.1"
        test -e "$place/share/bash-completion/completions/thread-utilities"
    fi
else
    cmake --install "$build" --prefix "$scratch/first"
    if [[ $kind == static ]]; then
        # Makefiles, where they are: CMake's own choice, and stricter about what depends on what.
        generator='Unix Makefiles'
        command -v make >/dev/null || generator=Ninja
        cmake -G "$generator" -S "$source" -B "$scratch/library" -DCMAKE_CXX_COMPILER="$compiler" \
            -DCMAKE_BUILD_TYPE= -DBUILD_SHARED_LIBS=OFF -DTHREAD_UTILITIES_TESTS=OFF \
            -DTHREAD_UTILITIES_EXAMPLES=OFF -DTHREAD_UTILITIES_COMPANION=OFF
        cmake --build "$scratch/library" -j 2
        cmake --install "$scratch/library" --prefix "$scratch/first"
    fi
    mv "$scratch/first" "$place"
fi
PKG_CONFIG_PATH=$(dirname "$(find "$place" -name ThreadUtilities.pc)")
export PKG_CONFIG_PATH
library_folder=$(dirname "$PKG_CONFIG_PATH")

# by_cmake NAME [ARGUMENT...]: a project of somebody's
by_cmake() {
    local folder=$scratch/consumer_$1
    echo "--- by CMake: $*"
    shift
    cmake -G Ninja -S "$source/tests/consumer" -B "$folder" \
        -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$place" \
        -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF "$@" >"$folder.log" || {
        cat "$folder.log"
        return 1
    }
    cmake --build "$folder"
    "$folder/consumer"
    "$folder/process_consumer"
}

# compile SOURCE PROGRAM [SOURCE_OR_OPTION...]: as somebody does by hand.
compile() {
    local input=$1 output=$2 flags
    shift 2
    # Its output is read by a shell: a blank in the path arrives quoted.
    flags=$(pkg-config --cflags --libs ${link_static:+--static} ThreadUtilitiesProcess ThreadUtilities)
    # The C library's start of a program that loads nothing refuses a search path.
    if [[ -z $link_static ]]; then
        flags+=" -Wl,-rpath,\"$library_folder\""
    fi
    eval "\"$compiler\" -std=c++20 ${CXXFLAGS:-} \"$input\" $flags ${LDFLAGS:-} $* -o \"$output\""
}

is_needed() { readelf -d "$1" | grep -q 'NEEDED.*libThreadUtilities'; }

link_static=
case $kind in
    shared | deb)
        by_cmake any
        is_needed "$scratch/consumer_any/consumer"
        ;;
    static)
        by_cmake shared -DKIND=shared -DCMAKE_BUILD_TYPE=Release
        is_needed "$scratch/consumer_shared/consumer"
        by_cmake static -DKIND=static
        by_cmake static_too -DBUILD_SHARED_LIBS=OFF
        ! is_needed "$scratch/consumer_static/consumer"
        ! is_needed "$scratch/consumer_static_too/consumer"
        if by_cmake neither -DKIND=neither >/dev/null 2>&1; then
            echo "found a component that is not there" >&2
            exit 1
        fi
        # Programs without a dynamic linker, at a fixed address and at any.
        by_cmake alone -DKIND=static -DCMAKE_EXE_LINKER_FLAGS=-static
        link_static=yes
        for option in -static -static-pie; do
            echo "--- by pkg-config: $option"
            compile "$source/tests/consumer/main.cpp" "$scratch/alone$option" "$option"
            "$scratch/alone$option"
        done
        link_static=
        rm "$library_folder"/libThreadUtilities*.so*  # a linker would prefer it
        ;;
esac

echo "--- by pkg-config"
compile "$source/tests/consumer/main.cpp" "$scratch/by_pkg_config"
"$scratch/by_pkg_config"
compile "$source/tests/consumer/process.cpp" "$scratch/process_by_pkg_config"
"$scratch/process_by_pkg_config"

if [[ $kind == static ]]; then
    compile "$source/tests/consumer/main.cpp" "$scratch/own_pthread_create" \
        "'$source/tests/consumer/own_pthread_create.cpp'"
    "$scratch/own_pthread_create"
fi

echo "--- the example of the README"
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$source/README.md" >"$scratch/example.cpp"
compile "$scratch/example.cpp" "$scratch/example"
"$scratch/example" | grep -q "]: worker"
