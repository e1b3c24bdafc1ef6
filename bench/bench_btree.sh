#!/bin/sh
# The index B-tree against SQLite in one program: N 8-byte keys put in sorted
# and in random order, then M random point lookups; prints the ratios.
#
#   bench/bench_btree.sh [N] [M] [WORKDIR]     (default 10000000 keys, 1000000 lookups)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build-rel}
"$here/scripts/deps" libsqlite3-dev
if [ ! -x "$build/bench/bench_btree" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_btree >/dev/null
fi
exec "$build/bench/bench_btree" "${1:-10000000}" "${2:-1000000}" "${3:-${TMPDIR:-/tmp}}"
