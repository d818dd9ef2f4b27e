#!/usr/bin/env bash
# Builds the fuzz targets with libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer (clang 14, in build-fuzz) and runs each for a
# fixed number of runs, one target after another on one OpenMP thread per
# run, from its seed corpus.  Usage: tools/fuzz.sh [runs] [target...]
# (default 1000000 runs of mm_reader, checkers and velmora).  New inputs go
# to build-fuzz/fuzz/run/<target>, findings to build-fuzz/fuzz/findings/;
# a finding ends the script with a failure.  Long campaigns: run it under
# nice -n 19.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-1000000}
shift || true
targets=("$@")
((${#targets[@]})) || targets=(mm_reader checkers velmora)

bash tools/deps.sh clang-14 libclang-rt-14-dev libomp-14-dev libblas3 libblas-dev liblapack3
cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 \
  -DCMAKE_CXX_COMPILER=clang++-14 -DVELMORA_WERROR=ON -DVELMORA_SANITIZE=ON -DVELMORA_FUZZ=ON \
  -DVELMORA_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target fuzz_targets

dir=build-fuzz/fuzz
mkdir -p "$dir/findings"
export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1
export LSAN_OPTIONS=suppressions=$PWD/fuzz/lsan.supp
for t in "${targets[@]}"; do
  mkdir -p "$dir/run/$t"
  cp -n "$dir/corpus/$t"/* "$dir/run/$t"/ 2>/dev/null || true
  start=$(date +%s)
  # -close_fd_mask=3: the reports the calls print at msglvl 1 are not kept.
  if ! OMP_NUM_THREADS=1 "$dir/fuzz_$t" -runs="$runs" -seed=1 -max_len=4096 -timeout=30 \
    -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$dir/findings/$t-" \
    "$dir/run/$t" >"$dir/$t.log" 2>&1; then
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written' "$dir/$t.log" | head -20
    echo "fuzz_$t: finding after $(grep -o 'number_of_executed_units: [0-9]*' "$dir/$t.log")"
    exit 1
  fi
  echo "fuzz_$t: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$dir/$t.log"), no finding" \
    "($(($(date +%s) - start)) s in all)"
done
