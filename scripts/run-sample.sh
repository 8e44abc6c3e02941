#!/usr/bin/env bash
# Sets everything up, builds fmp4mux and packages the bundled sample (10 s of H.264 + AAC in MPEG-TS) into DASH.
# Extra arguments go to fmp4mux, e.g. `bash scripts/run-sample.sh -f smooth`.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
ninja -C build/release fmp4mux
rm -rf out/sample
./build/release/apps/fmp4mux/fmp4mux "$@" samples/sample.ts out/sample
