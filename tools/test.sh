#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test twice: in a
# release build with warnings as errors (with the installed-package tests of
# C and Fortran consumers), and in a build with AddressSanitizer and
# UndefinedBehaviorSanitizer.  Source formatting is checked first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh clang-format
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
