#!/usr/bin/env bash
# Runs velmora-solve as a user would and checks what it prints.
# Usage: run.sh <velmora-solve> <matrix-dir> <case>
#   default        the bundled problem on a 20^3 grid
#   west0479       a general matrix that needs the matching
#   bcsstk13       a symmetric positive definite matrix
#   reorientation  a symmetric indefinite matrix: type -2
#   dump           the analysis' Matrix Market dump solves as the original does
#   mangled        every broken file refused with one line and a failure status
#   options        right-hand side and solution files, pattern and complex files,
#                  a wrong command line
set -uo pipefail

if [ $# -ne 3 ]; then
  echo "usage: $0 <velmora-solve> <matrix-dir> <case>" >&2
  exit 2
fi
prog=$1
dir=$2
case=$3
# Every case but the bundled problem reads the team's matrix folder; without
# it the case is skipped (status 77), naming the folder.
if [ "$case" != default ] && [ ! -d "$dir" ]; then
  echo "SKIP: the matrix folder $dir is absent"
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

bad() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# solve <args...>: runs the program; sets status, out, err.
solve() {
  echo "== velmora-solve $*"
  "$prog" "$@" >"$work/out" 2>"$work/err"
  status=$?
  out=$(cat "$work/out")
  err=$(cat "$work/err")
  printf '%s\n' "$out"
  if [ -n "$err" ]; then printf 'stderr: %s\n' "$err"; fi
}

# field <label>: the first word after the label in the summary.
field() {
  printf '%s\n' "$out" | awk -v l="$1 " 'index($0, l) == 1 { print substr($0, 17); exit }' |
    awk '{ print $1 }'
}

# below <value> <bound>: value < bound, as numbers.
below() {
  awk -v v="$1" -v b="$2" 'BEGIN { exit !(v != "" && v + 0 == v && v + 0 < b + 0) }'
}

# expect_success <max backward error>: status 0, no sanitizer report, a small backward error.
expect_success() {
  [ "$status" -eq 0 ] || bad "status $status, expected 0"
  case "$err" in *Sanitizer* | *"runtime error"*) bad "sanitizer report" ;; esac
  local berr
  berr=$(field "backward error")
  below "$berr" "$1" || bad "backward error '$berr' not below $1"
}

# expect_refusal <name> [text]: a failure status (not a signal), stdout
# empty, one line on stderr naming the file (and holding the text).
expect_refusal() {
  local name=$1 text=${2:-}
  if [ "$status" -eq 0 ] || [ "$status" -ge 126 ]; then bad "$name: status $status"; fi
  [ -z "$out" ] || bad "$name: something on standard output"
  local lines
  lines=$(printf '%s' "$err" | awk 'END { print NR }')
  [ "$lines" -eq 1 ] || bad "$name: $lines lines on standard error, expected 1"
  case "$err" in velmora-solve:*) ;; *) bad "$name: the message does not start with velmora-solve:" ;; esac
  case "$err" in *"$name"*) ;; *) bad "$name: the message does not name the file" ;; esac
  if [ -n "$text" ]; then
    case "$err" in *"$text"*) ;; *) bad "$name: the message lacks '$text'" ;; esac
  fi
}

case "$case" in
  default)
    solve --grid 20
    expect_success 1e-14
    case "$out" in *"bundled default problem"*) ;; *) bad "no mention of the bundled problem" ;; esac
    [ "$(field n)" = 8000 ] || bad "n is not 8000"
    [ "$(field mtype)" = 2 ] || bad "mtype is not 2"
    [ "$(field inertia)" = 8000 ] || bad "inertia is not 8000 positive"
    below "$(field error)" 1e-10 || bad "error with the known x too large"
    for label in "nnz" "ordering" "factors" "perturbed" "refinement" "time" "GFLOP/s"; do
      [ -n "$(field "$label")" ] || bad "no '$label' line"
    done
    ;;
  west0479)
    solve "$dir/west0479.mtx"
    expect_success 1e-13
    [ "$(field mtype)" = 11 ] || bad "mtype is not 11"
    [ "$(field matching)" = "1," ] || bad "matching is not on"
    below "$(field error)" 1e-6 || bad "error with the known x too large"
    solve --x-random --nrhs 3 --ordering 4 --refine 2 "$dir/west0479.mtx"
    expect_success 1e-13
    [ "$(field right-hand)" = 3, ] || bad "not 3 right-hand sides"
    ;;
  bcsstk13)
    solve --threads 2 "$dir/bcsstk13.mtx"
    expect_success 1e-13
    [ "$(field mtype)" = 2 ] || bad "mtype is not 2"
    [ "$(field threads)" = 2 ] || bad "not 2 threads"
    ;;
  reorientation)
    solve "$dir/reorientation_1.mtx"
    expect_success 1e-13
    [ "$(field mtype)" = -2 ] || bad "mtype is not -2"
    grep -q '^inertia .* [1-9][0-9]* negative' <<<"$out" ||
      bad "no negative eigenvalue in the inertia"
    ;;
  dump)
    # The coordinate dump of the analysis (phase 11) holds the pattern;
    # velmora-solve gives a pattern file the same values, so the dump solved
    # as the same type gives the same backward error.
    VELMORA_WRITE_MTX=1 VELMORA_WRITE_PREFIX="$work/dump" solve "$dir/dwt_992.mtx"
    expect_success 1e-14
    first=$(field "backward error")
    [ -f "$work/dump_000-phase-11.mtx" ] || bad "no dump_000-phase-11.mtx"
    solve --mtype 2 "$work/dump_000-phase-11.mtx"
    expect_success 1e-14
    [ "$(field "backward error")" = "$first" ] ||
      bad "backward error $(field "backward error") of the dump, $first of the original"
    ;;
  mangled)
    for f in mangle1 mangle2 mangle3 mangle4 mangled5 mangled8 mangled9 a0 empty; do
      solve "$dir/$f.mtx"
      expect_refusal "$f.mtx"
    done
    solve "$work/no-such-file.mtx"
    expect_refusal no-such-file.mtx "cannot open"
    printf '%%%%MatrixMarket matrix coordinate real general\n2 2 2\n1 1 1\n2 2 \001\000\n' \
      >"$work/binary.mtx"
    solve "$work/binary.mtx"
    expect_refusal binary.mtx "binary.mtx:4: value"
    ;;
  options)
    solve --help
    [ "$status" -eq 0 ] || bad "--help status $status"
    case "$out" in usage:*) ;; *) bad "--help prints no usage" ;; esac
    solve --no-such-option
    [ "$status" -eq 2 ] || bad "unknown option: status $status, expected 2"
    solve --ordering 9 "$dir/west0067.mtx"
    [ "$status" -eq 2 ] || bad "--ordering 9: status $status, expected 2"
    # The solution of one run is the right-hand side of the next.
    solve --output "$work/x.mtx" "$dir/LFAT5.mtx"
    expect_success 1e-14
    head -1 "$work/x.mtx" | grep -qx '%%MatrixMarket matrix array real general' ||
      bad "the solution file has no array banner"
    solve --rhs "$work/x.mtx" --output "$work/y.mtx" "$dir/LFAT5.mtx"
    expect_success 1e-14
    [ "$(field error)" = "" ] || bad "an error reported without a known x"
    solve --rhs "$dir/west0067.mtx" "$dir/LFAT5.mtx"
    expect_refusal west0067.mtx "rows"
    # A pattern file gets a diagonally dominant matrix: positive definite.
    solve "$dir/dwt_992.mtx"
    expect_success 1e-14
    [ "$(field mtype)" = 2 ] || bad "pattern: mtype is not 2"
    # A general type on a symmetric file, and a symmetric type on a general one.
    solve --mtype 11 "$dir/494_bus.mtx"
    expect_success 1e-13
    solve --mtype -2 "$dir/west0067.mtx"
    expect_refusal west0067.mtx "not symmetric"
    # Complex matrices: general ones as 13, Hermitian ones as 4, or -4
    # after a non-positive pivot (cha.mtx is indefinite).
    for f in c cha w156 arrowc; do
      solve "$dir/$f.mtx"
      expect_success 1e-13
    done
    [ "$(field mtype)" = 13 ] || bad "arrowc: mtype is not 13"
    solve --mtype 3 "$dir/arrowc.mtx"
    expect_success 1e-13
    ;;
  *)
    echo "unknown case $case" >&2
    exit 2
    ;;
esac

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed" >&2
  exit 1
fi
echo "all checks passed"
