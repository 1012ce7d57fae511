#!/usr/bin/env bash
# Builds the library and runs the main job: a session against emulated adapters.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build/plain" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build/plain" -j"$(nproc)"
"$root/build/plain/examples/version"
