#!/usr/bin/env bash
# The project inside another CMake project (add_subdirectory, as FetchContent
# does it) builds only the library and hands the parent karvex::karvex; the
# optional parts come when asked for. The emulator is never picked up or
# dropped silently: asked for without umockdev, configuring fails and says
# why; switched off, the build says which suites it leaves out.
# Usage: test-cmake-project.sh SOURCE_DIR CONSUMER_SOURCE_DIR C_COMPILER CXX_COMPILER
HARNESS_DIR=$(cd "$(dirname "$0")" && pwd)
. "$HARNESS_DIR/harness.sh"
SOURCE=$(cd "$1" && pwd)
CONSUMER=$(cd "$2" && pwd)
CC=$3
CXX=$4
RUN_TIMEOUT=600
PARENT="$HARNESS_TMP/parent"
COMPILERS=(-DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX")

mkdir -p "$PARENT"
cat >"$PARENT/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.19)
project(parent LANGUAGES C CXX)
add_subdirectory("$SOURCE" karvex)
add_executable(consumer "$CONSUMER/consumer.c")
target_link_libraries(consumer PRIVATE karvex::karvex)
CMAKE

# A pkg-config search path with libudev but without umockdev.
NO_UMOCKDEV="$HARNESS_TMP/pc-no-umockdev"
mkdir -p "$NO_UMOCKDEV"
ln -s "$(pkg-config --variable=pcfiledir libudev)/libudev.pc" "$NO_UMOCKDEV/"

targets_of() { # BUILD_DIR: one target name a line
    cmake --build "$1" --target help | sed -n 's/^\.\.\. \([^ ]*\).*/\1/p'
}

test_subproject_builds_only_the_library() {
    local extra
    run_prog cmake -S "$PARENT" -B "$PARENT/build" "${COMPILERS[@]}"
    status_is 0 "configure the parent: $errors"
    targets_of "$PARENT/build" >"$HARNESS_TMP/targets"
    grep -qx karvex "$HARNESS_TMP/targets" || fail "no karvex target"
    extra=$(grep -E '^(karvexctl|karvex-emu|karvex_emulator|karvex_manpages|karvex_bench|c_header_check|example_|unit_|it_|api_|fuzz_)' \
        "$HARNESS_TMP/targets" | tr '\n' ' ')
    [ -z "$extra" ] || fail "the parent gets targets it did not ask for: $extra"
    [ ! -e "$PARENT/build/karvex/CTestTestfile.cmake" ] || fail "the subproject registered tests"
    ! grep -q 'libkarvex\|70-karvex' "$PARENT/build/karvex/cmake_install.cmake" ||
        fail "the subproject installs into the parent's prefix without KARVEX_INSTALL"
    run_prog cmake --build "$PARENT/build" --target consumer -j2
    status_is 0 "build the parent's program"
    run_prog "$PARENT/build/consumer"
    status_is 0
    output_is "libkarvex API 1.0, TSTATUS_INVALID_HANDLE"
}

test_subproject_gets_the_tools_when_asked() {
    PKG_CONFIG_LIBDIR="$NO_UMOCKDEV" run_prog cmake -S "$PARENT" -B "$PARENT/build-tools" "${COMPILERS[@]}" \
        -DKARVEX_BUILD_TOOLS=ON
    status_is 0 "configure with the tools: $errors"
    targets_of "$PARENT/build-tools" >"$HARNESS_TMP/targets"
    grep -qx karvexctl "$HARNESS_TMP/targets" || fail "KARVEX_BUILD_TOOLS=ON gave no karvexctl target"
    ! grep -qx karvex-emu "$HARNESS_TMP/targets" || fail "karvex-emu built without KARVEX_BUILD_EMULATOR"
}

test_emulator_without_umockdev_fails_loudly() {
    PKG_CONFIG_LIBDIR="$NO_UMOCKDEV" run_prog cmake -S "$SOURCE" -B "$HARNESS_TMP/no-umockdev" "${COMPILERS[@]}" \
        -DKARVEX_BUILD_MANPAGES=OFF
    [ "$status" -ne 0 ] || fail "configured although the emulator cannot be built"
    errors_contain "umockdev-1.0 was not found"
    errors_contain "-DKARVEX_BUILD_EMULATOR=OFF"
}

test_without_emulator_the_left_out_suites_show() {
    local dir="$HARNESS_TMP/without-emulator"
    PKG_CONFIG_LIBDIR="$NO_UMOCKDEV" run_prog cmake -S "$SOURCE" -B "$dir" "${COMPILERS[@]}" \
        -DKARVEX_BUILD_EMULATOR=OFF -DKARVEX_BUILD_MANPAGES=OFF
    status_is 0 "configure with KARVEX_BUILD_EMULATOR=OFF: $errors"
    [[ "$output" == *"integration, API and tool tests are left out"* ]] || fail "configure does not say what it leaves out"
    run_prog ctest --test-dir "$dir" -N
    [[ "$output" != *" it_"* && "$output" != *" api_"* ]] || fail "integration or API tests registered: $output"
    run_prog ctest --test-dir "$dir" -R '^emulator_suites$'
    status_is 0
    output_matches 'emulator_suites[ .]*\*+Skipped' "ctest reports the left-out suites as skipped"
}

run_tests
