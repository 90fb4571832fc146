#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# elsewhere.sh BUILD COMPILER
#   Installs a build to another prefix than it was configured for, then builds README's program against that by CMake and by
#   pkg-config, against the build folder by CMake, and as README tells; each must start and say that there is no broker.
# shellcheck source=tests/consumer/head.sh
. "$(dirname "$0")/head.sh"

outside=$(grep -E '^-- (Installing|Up-to-date): ' "$work/log" | grep -vF ": $work/prefix" || true)
[ -z "$outside" ] || fail "installed outside of the prefix: $outside"
for settings in gateway.ini gateway-app.ini; do
    [ -f "$work/prefix/etc/orv/$settings" ] || fail "$settings is not in the prefix"
done
# Where it was configured for must not be what makes it work.
mv "$work/prefix" "$work/moved"
libraries=$(dirname "$(find "$work/moved" -name libOrvStackSdk.so)")

mkdir "$work/project"
cp "$tree/tests/consumer/readme.cmake" "$work/project/CMakeLists.txt"
"$tree/tests/consumer/readme-program.sh" "$tree/README.md" >"$work/project/first-steps.cpp"
grep -q 'int main' "$work/project/first-steps.cpp" || fail "README.md shows no program"
printf '[broker]\nport = 1\n[connman]\nbus_address = unix:path=/nonexistent\n' >"$work/gateway.ini"
# starts PROGRAM: it does, and finds no broker.
starts() {
    ORV_GATEWAY_CONFIG=$work/gateway.ini "$@" >"$work/said" 2>&1 && fail "found a broker: $*"
    grep -qx 'OrvRoute cannot connect to MQTT broker.' "$work/said" || fail "$* said: $(cat "$work/said")"
}

quietly cmake -S "$work/project" -B "$work/by-cmake" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$work/moved"
grep -q "OrvStackSdk_DIR:PATH=$work/moved" "$work/by-cmake/CMakeCache.txt" || fail "CMake has found another installation"
quietly cmake --build "$work/by-cmake"
starts env LD_LIBRARY_PATH="$libraries" "$work/by-cmake/first-steps"

quietly cmake -S "$work/project" -B "$work/by-tree" -DCMAKE_CXX_COMPILER="$compiler" -DOrvStackSdk_DIR="$build"
quietly cmake --build "$work/by-tree"
starts "$work/by-tree/first-steps"

PKG_CONFIG_PATH=$libraries/pkgconfig
export PKG_CONFIG_PATH
for package in orvstacksdk orvstacksdk-c orvplatform; do
    stray=$(pkg-config --cflags --libs $package | tr ' ' '\n' | grep -E '^-[IL]' | cut -c 3- | xargs realpath -m | grep -v "^$work/moved" || true)
    [ -z "$stray" ] || fail "$package.pc leads to $stray"
done
# shellcheck disable=SC2046  # words on purpose
quietly "$compiler" -std=c++17 "$work/project/first-steps.cpp" $(pkg-config --cflags --libs orvstacksdk) \
    -Wl,-rpath-link,"$libraries" -o "$work/by-pkgconfig"
starts env LD_LIBRARY_PATH="$libraries" "$work/by-pkgconfig"

quietly "$compiler" -std=c++17 -I"$tree/libs/OrvStackSdk/include" "$work/project/first-steps.cpp" -L"$build/lib" \
    -lOrvStackSdk -Wl,-rpath,"$build/lib" -o "$work/as-told"
starts "$work/as-told"
