#!/bin/sh
# WHERE clauses on a table of NROWS rows (ID, A, B, CITY, X) through the
# module's WHERE cursor, against SQLite (with an index on A) and DuckDB (its C
# library from the npm package @duckdb/node-bindings-linux-x64, fetched into
# the cache when missing) on the same rows, in the same run:
#
#   sel    a < 1000              about 0.1% of the rows, returned
#   scan   b < 50                half of the rows, returned (no index on B)
#   count  (b < 30 and city = 'LIMA') or (x > 0.9 and a > 500000), counted
#
# Each command is a whole process, timed three times after a warm-up, the best
# kept. Ratios are the other engine's time over the module's: above 1 means
# the module is faster. All three must return the same rows.
#
#   bench/bench_where.sh [NROWS] [WORKDIR]    (default 10000000 rows under $TMPDIR)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
nrows=${1:-10000000}
work=${2:-${TMPDIR:-/tmp}/vrta_bench_where.$$}
build=${BUILD:-$here/build-rel}
cache=${VRTA_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/vrta}

. "$here/bench/benchlib.sh"
prepare bench_where

printf "%-6s %10s %10s %10s %12s %12s\n" query vrta sqlite duckdb sqlite/vrta duckdb/vrta
status=0
for q in sel scan count; do
    v=$(best "$prog" vrta "$work" $q); vout=$(cat "$work/out")
    s=$(best "$prog" sqlite "$work" $q); sout=$(cat "$work/out")
    d=$(best "$prog" duckdb "$work" $q); dout=$(cat "$work/out")
    # DuckDB's rows come back in no promised order; the sum is checked all the same.
    if [ "$vout" != "$sout" ] || [ "$vout" != "$dout" ]; then
        echo "answers differ on $q: vrta '$vout' sqlite '$sout' duckdb '$dout'" >&2
        status=1
    fi
    printf "%-6s %10.3f %10.3f %10.3f %12.2f %12.2f\n" $q "$v" "$s" "$d" \
        "$(echo "$s / $v" | bc -l)" "$(echo "$d / $v" | bc -l)"
done
exit $status
