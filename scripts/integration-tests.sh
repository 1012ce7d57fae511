#!/usr/bin/env bash
# Prints the executables of the integration suites a build directory's ctest
# knows, one per line: the list the valgrind runs use. Taken from ctest rather
# than a glob of the directory, so that memcheck logs and the binaries of
# suites that no longer exist are never picked up. The emulator's own
# self-test checks no library code and is left out.
#
# Usage: scripts/integration-tests.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
(cd "$build" && ctest -N -R '^it_') | sed -n 's/^ *Test *#[0-9]*: \(it_[A-Za-z0-9_]*\)$/\1/p' |
  grep -vx it_emulator_selftest | sed "s#^#$build/tests/#"
