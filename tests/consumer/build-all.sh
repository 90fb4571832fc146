#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# build-all.sh SOURCES OUTPUT: builds the program in every way that a product team might, against the installed packages.
set -eu

sources=$1
output=$2
flags="-Wall -Wextra -Wpedantic -Werror"
mkdir -p "$output"
for compiler in g++ clang++; do
    for standard in 14 20; do
        build=$(mktemp -d)
        cmake -S "$sources" -B "$build" -DCMAKE_CXX_COMPILER=$compiler -DCMAKE_CXX_STANDARD=$standard \
            -DCMAKE_CXX_STANDARD_REQUIRED=ON -DCMAKE_CXX_EXTENSIONS=OFF -DCMAKE_CXX_FLAGS="$flags" >/dev/null
        cmake --build "$build" >/dev/null
        mv "$build/meter" "$output/meter-cmake-$compiler-$standard"
        rm -rf "$build"
        # shellcheck disable=SC2046,SC2086  # words on purpose
        $compiler -std=c++$standard $flags $(pkg-config --cflags orvstacksdk) -o "$output/meter-pkgconfig-$compiler-$standard" \
            "$sources/main.cpp" $(pkg-config --libs orvstacksdk)
    done
done

# README's program, by CMake and as README tells.
build=$(mktemp -d)
"$sources/readme-program.sh" "$sources/README.md" >"$build/mine.cpp"
cp "$build/mine.cpp" "$build/first-steps.cpp"
cp "$sources/readme.cmake" "$build/CMakeLists.txt"
cmake -S "$build" -B "$build/build" -DCMAKE_CXX_STANDARD=17 -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$build/build" >/dev/null
mkdir -p "$output/readme"
mv "$build/build/first-steps" "$output/readme/cmake"
told=$(grep -F 'pkg-config --cflags --libs orvstacksdk' "$sources/README.md" | sed 's/^ *//')
(cd "$build" && eval "$told" && mv mine "$output/readme/told")
rm -rf "$build"

# The programs of docs/other-languages.md: the one in C by CMake, in a project without C++, and by pkg-config.
build=$(mktemp -d)
cp "$sources/first-steps.c" "$build"
cp "$sources/c.cmake" "$build/CMakeLists.txt"
mkdir -p "$output/c"
for compiler in gcc clang; do
    cmake -S "$build" -B "$build/$compiler" -DCMAKE_C_COMPILER=$compiler -DCMAKE_C_FLAGS="$flags" >/dev/null
    cmake --build "$build/$compiler" >/dev/null
    mv "$build/$compiler/first-steps" "$output/c/cmake-$compiler"
    # shellcheck disable=SC2046,SC2086  # words on purpose
    $compiler -std=c99 $flags "$sources/first-steps.c" $(pkg-config --cflags --libs orvstacksdk-c) -o "$output/c/pkgconfig-$compiler"
done
cp "$sources/first-steps.py" "$output/c/python"
rm -rf "$build"

# The platform has a package of its own.
build=$(mktemp -d)
cp "$sources/platform.cpp" "$build"
cp "$sources/platform.cmake" "$build/CMakeLists.txt"
cmake -S "$build" -B "$build/build" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$build/build" >/dev/null
mkdir -p "$output/platform"
mv "$build/build/platform" "$output/platform/cmake"
# shellcheck disable=SC2046,SC2086  # words on purpose
g++ $flags $(pkg-config --cflags orvplatform) -o "$output/platform/pkgconfig" "$sources/platform.cpp" $(pkg-config --libs orvplatform)
rm -rf "$build"

# A version that is not there must be refused, not linked.
refused=$(mktemp -d)
sed 's/OrvStackSdk 1.0/OrvStackSdk 2.0/' "$sources/CMakeLists.txt" >"$refused/CMakeLists.txt"
cp "$sources/main.cpp" "$refused"
if cmake -S "$refused" -B "$refused/build" >/dev/null 2>&1; then
    echo "build-all.sh: find_package accepts version 2.0" >&2
    exit 1
fi
rm -rf "$refused"
