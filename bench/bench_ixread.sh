#!/bin/sh
# Index lookups against SQLite's in one program: a table of N rows, 10,000
# point lookups and 1,000 ranges of about 1% of the rows; prints the ratios.
#
#   bench/bench_ixread.sh [N] [WORKDIR]     (default 10000000 rows)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build-rel}
"$here/scripts/deps" libsqlite3-dev
if [ ! -x "$build/bench/bench_ixread" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_ixread >/dev/null
fi
exec "$build/bench/bench_ixread" "${1:-10000000}" "${2:-${TMPDIR:-/tmp}}"
