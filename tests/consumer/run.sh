#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds two programs against
# the installed copy: once through the CMake package, once through the
# pkg-config file.  Usage: run.sh <build-dir> <source-dir>
set -euo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 <build-dir> <source-dir>" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
src=$(cd "$2" && pwd)
work="$build/consumer_install"
prefix="$work/prefix"

rm -rf "$work"
mkdir -p "$work"

echo "== install into $prefix"
cmake --install "$build" --prefix "$prefix"

libdir=""
for d in "$prefix/lib" "$prefix/lib64" "$prefix"/lib/*-linux-gnu; do
  if [ -e "$d/pkgconfig/velmora.pc" ]; then
    libdir="$d"
    break
  fi
done
if [ -z "$libdir" ]; then
  echo "no velmora.pc under $prefix" >&2
  find "$prefix" >&2
  exit 1
fi
if ! ls "$libdir"/libvelmora.so* > /dev/null 2>&1; then
  echo "no libvelmora.so in $libdir" >&2
  exit 1
fi
export OMP_NUM_THREADS=2

# run_and_expect <expected line> <program>
run_and_expect() {
  local want="$1" out
  shift
  echo "== run $*"
  out=$(LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$@")
  printf '%s\n' "$out"
  if ! grep -qx "$want" <<<"$out"; then
    echo "missing \"$want\" in the output of $*" >&2
    return 1
  fi
}

echo "== (a) CMake package"
cmake -S "$src/tests/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release
cmake --build "$work/cmake"
run_and_expect "consumer: ok" "$work/cmake/consumer"
run_and_expect "fortran diag: ok" "$work/cmake/diag_fortran"

echo "== (b) pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
cflags=$(pkg-config --cflags velmora)
libs=$(pkg-config --libs velmora)
echo "cflags: $cflags"
echo "libs: $libs"
mkdir -p "$work/pc"
# shellcheck disable=SC2086
cc -std=c99 -Wall -Wextra -Wpedantic -Werror $cflags "$src/tests/consumer/consumer.c" \
  -o "$work/pc/consumer" $libs
# shellcheck disable=SC2086
(cd "$work/pc" && gfortran -Wall -Werror "$src/tests/fortran/diag_fortran.f90" \
  -o "$work/pc/diag_fortran" $libs)
run_and_expect "consumer: ok" "$work/pc/consumer"
run_and_expect "fortran diag: ok" "$work/pc/diag_fortran"

echo "== (c) the installed velmora-solve, which finds the library beside it"
solver="$prefix/bin/velmora-solve"
[ -x "$solver" ] || { echo "no $solver" >&2; exit 1; }
out=$(env -u LD_LIBRARY_PATH "$solver" --grid 6)
printf '%s\n' "$out"
grep -q '^backward error' <<<"$out" || { echo "velmora-solve printed no summary" >&2; exit 1; }

echo "== installed consumers: ok"
