#!/usr/bin/env bash
# Installs what is missing, builds the library and its program velmora-solve
# (only those: the tests and examples are left to tools/test.sh), and solves
# the bundled default problem (a 3D Laplacian of 64000 unknowns) with
# velmora-solve.  Arguments go to velmora-solve; file paths in them are taken
# relative to the folder the script is called from, e.g.
#   bash tools/main.sh my_matrix.mtx
#   bash tools/main.sh --grid 60
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/tools/deps.sh"
echo "== configuring the build in $root/build"
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release >/dev/null
echo "== building velmora-solve and the library (a minute or two the first time)"
cmake --build "$root/build" -j"$(nproc)" --target velmora-solve
echo "== velmora-solve $*"
exec "$root/build/cli/velmora-solve" "$@"
