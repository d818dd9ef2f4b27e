#!/usr/bin/env bash
# Installs what is missing (the peers CHOLMOD, UMFPACK, sequential MUMPS and
# SuperLU, and gnuplot), builds the benchmark program and runs every solver
# at 1 and 2 threads.  Without arguments it writes bench/RESULTS.md and
# bench/factor_time.png; with any (sections, runs, --quick: see
# bench/solver_bench.cpp) the results go to build-bench/results/ instead.
#   tools/bench.sh [spd] [elast] [kkt] [lu] [real] [matching] [kkt-large] [spd-large]
#                  [runs] [--quick]
#                  [--threads 1,2]
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh libmumps-seq-dev libsuperlu-dev gnuplot-nox
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVELMORA_BUILD_BENCH=ON -DVELMORA_WERROR=ON \
  -DVELMORA_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j2 --target solver_bench >/dev/null

out=bench
if (($#)); then out=build-bench/results; fi
mkdir -p "$out"
commit=$(git rev-parse --short HEAD 2>/dev/null || true)

# Threads that wait at a barrier sleep instead of spinning: on a machine
# shared with other work a spinning thread holds the core its partner needs,
# and the fork-joins of the threaded BLAS then cost a time slice each.
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}
./build-bench/bench/solver_bench --out "$out" ${commit:+--commit "$commit"} "$@"

# One panel per thread count, one line per library: the blocks of the data
# file come in thread-count order, each after a comment "# threads t".
dat=$out/factor_time.dat
panels=$(awk 'BEGIN { b = 0 }
              /^# threads/ { if ($3 != t) { if (t != "") print first, b - 1, t; first = b; t = $3 }
                             b++ }
              END { if (t != "") print first, b - 1, t }' "$dat")
npanels=$(wc -l <<<"$panels")
{
  echo "set terminal pngcairo size $((560 * npanels + 80)),560 font ',10'"
  echo "set output '$out/factor_time.png'"
  echo "set logscale xy; set format xy '%g'; set grid; set key top left"
  echo "set xlabel 'n (unknowns)'; set ylabel 'factorization time (s), median'"
  echo "set multiplot layout 1,$npanels title 'Factorization time against problem size'"
  while read -r first last t; do
    echo "set title '$t thread$( ((t > 1)) && echo s)'"
    echo "plot for [i=$first:$last] '$dat' index i using 1:2 with linespoints title columnheader(1)"
  done <<<"$panels"
  echo "unset multiplot"
} | gnuplot
echo "wrote $out/factor_time.png"
