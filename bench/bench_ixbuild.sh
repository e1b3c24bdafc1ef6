#!/bin/sh
# Index builds against SQLite's CREATE INDEX in one program: a table of N
# rows, a column of 100 values and one of N/2; prints times, sizes, ratios.
#
#   bench/bench_ixbuild.sh [N] [WORKDIR]     (default 10000000 rows)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build-rel}
"$here/scripts/deps" libsqlite3-dev
if [ ! -x "$build/bench/bench_ixbuild" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_ixbuild >/dev/null
fi
exec "$build/bench/bench_ixbuild" "${1:-10000000}" "${2:-${TMPDIR:-/tmp}}"
