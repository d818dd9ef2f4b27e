#!/usr/bin/env bash
# Installs what is missing, builds the library, its program velmora-solve and
# the examples, and solves the bundled default problem (a 3D Laplacian of
# 64000 unknowns) with velmora-solve.  Arguments go to velmora-solve, e.g.
#   bash tools/main.sh ../shared/matrices/west0479.mtx
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" >/dev/null
./build/cli/velmora-solve "$@"
