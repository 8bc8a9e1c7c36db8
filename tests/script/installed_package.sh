#!/usr/bin/env bash
# Installs the library, moves it elsewhere, and builds and runs a program there that finds it by
# CMake and by pkg-config.
#
#   installed_package.sh shared|static SOURCE_FOLDER BUILD_FOLDER SCRATCH_FOLDER COMPILER
set -euo pipefail
kind=$1 source=$2 build=$3 scratch=$4 compiler=$5

rm -rf "$scratch"
mkdir -p "$scratch"

if [[ $kind == static ]]; then
    build=$scratch/library
    cmake -G Ninja -S "$source" -B "$build" -DCMAKE_CXX_COMPILER="$compiler" \
        -DCMAKE_BUILD_TYPE= -DBUILD_SHARED_LIBS=OFF -DTHREAD_UTILITIES_TESTS=OFF \
        -DTHREAD_UTILITIES_EXAMPLES=OFF
    cmake --build "$build" -j 2
fi

cmake --install "$build" --prefix "$scratch/first"
mv "$scratch/first" "$scratch/second place"

echo "--- by CMake"
cmake -G Ninja -S "$source/tests/consumer" -B "$scratch/consumer" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$scratch/second place" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
cmake --build "$scratch/consumer"
"$scratch/consumer/consumer"

echo "--- by pkg-config"
# pkg-config's output is read by a shell: a blank in the path arrives quoted.
PKG_CONFIG_PATH=$(dirname "$(find "$scratch/second place" -name ThreadUtilities.pc)")
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --libs ThreadUtilities)
library_folder=$(dirname "$PKG_CONFIG_PATH")
eval "\"$compiler\" -std=c++20 \"$source/tests/consumer/main.cpp\" $flags \
    -Wl,-rpath,\"$library_folder\" -o \"$scratch/by_pkg_config\""
"$scratch/by_pkg_config"

echo "--- the example of the README"
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$source/README.md" >"$scratch/example.cpp"
eval "\"$compiler\" -std=c++20 \"$scratch/example.cpp\" $flags \
    -Wl,-rpath,\"$library_folder\" -o \"$scratch/example\""
"$scratch/example" | grep -q "]: worker"
