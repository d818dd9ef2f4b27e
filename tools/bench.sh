#!/usr/bin/env bash
# Installs what is missing (with the peers: CHOLMOD, UMFPACK, sequential
# MUMPS and SuperLU), builds the benchmark programs and runs the comparison
# on one thread; without a section word every section runs.
#   tools/bench.sh [spd] [kkt] [lu] [matching] [runs] [--quick]
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh libmumps-seq-dev libsuperlu-dev
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVELMORA_BUILD_BENCH=ON -DVELMORA_WERROR=ON \
  -DVELMORA_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" >/dev/null
OMP_NUM_THREADS=1 ./build-bench/bench/solver_bench "$@"
