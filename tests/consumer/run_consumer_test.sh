#!/usr/bin/env bash
# Installs the package from BUILD_DIR into a scratch prefix, then configures, builds and runs tests/consumer
# against it, as another project would.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
scratch="$build/consumer-check"
rm -rf "$scratch"
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
cmake -S "$here" -B "$scratch/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build"
"$scratch/build/consumer"
