#!/usr/bin/env bash
# Installs what is missing, builds the library, and runs the example that
# solves a diagonal system, real and complex, through the public interface.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" >/dev/null
./build/examples/velmora_diag_example
