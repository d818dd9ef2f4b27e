#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test twice: in a
# release build with warnings as errors (with the installed-package tests of
# C and Fortran consumers, and the Python package's tests), and in a build
# with AddressSanitizer and UndefinedBehaviorSanitizer.  Then the tests that
# run the parallel regions (label parallel) once more under ThreadSanitizer,
# and each fuzz target for a fixed number of runs under libFuzzer with both
# sanitizers.  Source formatting is checked first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh clang-format python3-numpy python3-scipy python3-pytest
jobs=$(nproc)

echo "== format"
files=$(git ls-files '*.c' '*.cpp' '*.h' 2>/dev/null || find src include tests examples -name '*.[ch]' -o -name '*.cpp')
clang-format --dry-run --Werror $files

echo "== release build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DVELMORA_WERROR=ON >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

echo "== sanitizer build"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVELMORA_WERROR=ON -DVELMORA_SANITIZE=ON \
  -DVELMORA_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build-asan -j"$jobs"
ctest --test-dir build-asan --output-on-failure -j"$jobs"

echo "== thread sanitizer build"
# clang with LLVM's OpenMP runtime, whose tool archer tells the sanitizer
# about the runtime's synchronization, and the reference BLAS and LAPACK,
# which start no threads (the OpenMP build of the BLAS brings GCC's runtime).
bash tools/deps.sh clang-14 libclang-rt-14-dev libomp-14-dev libblas3 libblas-dev liblapack3
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 \
  -DCMAKE_CXX_COMPILER=clang++-14 -DVELMORA_WERROR=ON -DVELMORA_TSAN=ON \
  -DVELMORA_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build-tsan -j"$jobs" --target parallel_tests
# Without address-space randomisation where the system allows it: this
# sanitizer runtime cannot map its shadow memory under the widest settings.
norand=()
if setarch "$(uname -m)" -R true 2>/dev/null; then norand=(setarch "$(uname -m)" -R); fi
"${norand[@]}" ctest --test-dir build-tsan --output-on-failure -L parallel -j"$jobs"

echo "== fuzz"
# A fixed number of runs of each target from its seed corpus (about a
# minute in all); long campaigns: tools/fuzz.sh with more runs.
bash tools/fuzz.sh 40000
