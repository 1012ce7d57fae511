#!/usr/bin/env bash
# Installs the build into a staging directory (DESTDIR) and builds a program
# outside the tree against it twice: through pkg-config and through
# find_package(karvex). Also checks the installed file set, the version file's
# SameMajorVersion rule, and that the installed tools run.
# Usage: test-install.sh BUILD_DIR CONSUMER_SOURCE_DIR C_COMPILER
HARNESS_DIR=$(cd "$(dirname "$0")" && pwd)
. "$HARNESS_DIR/harness.sh"
BUILD=$1
CONSUMER=$2
CC=$3
RUN_TIMEOUT=120
STAGE="$HARNESS_TMP/stage"

prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$BUILD/CMakeCache.txt")
DESTDIR="$STAGE" run_prog cmake --install "$BUILD"
if [ "$status" -ne 0 ]; then
    echo "cmake --install failed: $errors" >&2
    exit 1
fi
root="$STAGE$prefix"
pcfile=$(find "$root" -name karvex.pc | head -n 1)
libdir=$(dirname "$(dirname "$pcfile")")

test_installed_files() {
    local f
    for f in include/karvex/karvex_api.h bin/karvexctl lib/udev/rules.d/70-karvex.rules; do
        [ -f "$root/$f" ] || fail "$f not installed"
    done
    [ -x "$root/bin/karvex-emu" ] || fail "karvex-emu not installed"
    [ -L "$libdir/libkarvex.so" ] || fail "libkarvex.so (development link) missing in $libdir"
    [ -L "$libdir/libkarvex.so.1" ] || fail "libkarvex.so.1 (soname link) missing"
    [ "$(readlink "$libdir/libkarvex.so")" = libkarvex.so.1 ] || fail "libkarvex.so does not point at the soname"
    [ -f "$libdir/cmake/karvex/karvexConfig.cmake" ] || fail "karvexConfig.cmake missing"
    [ -f "$libdir/cmake/karvex/karvexConfigVersion.cmake" ] || fail "karvexConfigVersion.cmake missing"
    grep -q '^Requires.private: libudev$' "$pcfile" || fail "karvex.pc lacks Requires.private: libudev"
    # Only the public header goes out.
    [ "$(find "$root/include" -type f | wc -l)" = 1 ] || fail "more than the one public header installed"
}

test_pkg_config_consumer() {
    local flags
    flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR="$STAGE" pkg-config --cflags --libs karvex)
    # shellcheck disable=SC2086
    run_prog "$CC" -std=c99 -Wall -Wextra -Werror -o "$HARNESS_TMP/consumer-pc" "$CONSUMER/consumer.c" $flags
    status_is 0 "compile with pkg-config flags: $flags"
    LD_LIBRARY_PATH="$libdir" run_prog "$HARNESS_TMP/consumer-pc"
    status_is 0
    output_is "libkarvex API 1.0, TSTATUS_INVALID_HANDLE"
    [ "$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --modversion karvex)" = "$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$BUILD/CMakeCache.txt")" ] ||
        fail "karvex.pc version differs from the project version"
}

test_find_package_consumer() {
    run_prog cmake -S "$CONSUMER" -B "$HARNESS_TMP/consumer-cmake" -DCMAKE_PREFIX_PATH="$root" -DCMAKE_C_COMPILER="$CC"
    status_is 0 "configure: $errors"
    run_prog cmake --build "$HARNESS_TMP/consumer-cmake"
    status_is 0 "build"
    run_prog "$HARNESS_TMP/consumer-cmake/consumer"
    status_is 0 "run (the imported target carries the library's location)"
    output_is "libkarvex API 1.0, TSTATUS_INVALID_HANDLE"
    # SameMajorVersion: a request for 2 must not accept 1.x.
    run_prog cmake -S "$CONSUMER" -B "$HARNESS_TMP/consumer-v2" -DCMAKE_PREFIX_PATH="$root" -DCMAKE_C_COMPILER="$CC" \
        -DKARVEX_WANTED_VERSION=2
    [ "$status" -ne 0 ] || fail "find_package(karvex 2) accepted version 1"
}

test_installed_tools_run() {
    run_prog "$root/bin/karvexctl" --version
    status_is 0 "installed karvexctl finds the installed library"
    run_prog "$root/bin/karvex-emu" -- "$root/bin/karvexctl" list
    status_is 0
    output_matches '^/dev/hidraw0 1209:7a01 '
}

run_tests
