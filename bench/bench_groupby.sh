#!/bin/sh
# Group-by queries on a table of NROWS rows (K1 about 100 values, K2 about a
# million, X, Y) through the module's query call (vrtasql), against SQLite and
# DuckDB (its C library from the npm package @duckdb/node-bindings-linux-x64,
# fetched into the cache when missing) on the same rows, in the same run:
#
#   g100      SELECT k1, COUNT(*), SUM(x), AVG(y) FROM t GROUP BY k1
#   g1m       SELECT k2, COUNT(*), SUM(x), AVG(y) FROM t GROUP BY k2
#   distinct  SELECT COUNT(DISTINCT k2) FROM t
#
# The module and DuckDB get THREADS threads (default 2). Memory: each engine
# works in its own default, said in the first line: the module's group-by
# trees get MEM bytes for all threads (default 0: GRPBYROWCACHE unset, 2 MB a
# thread, past which trees spill to work files; more memory makes bigger trees
# that miss the cache, which is slower here), DuckDB its default limit, SQLite
# its default page cache. Each command is a whole
# process, timed three times after a warm-up, the best kept. Ratios are the
# other engine's time over the module's: above 1 means the module is faster.
# All three must give the same answer.
#
#   bench/bench_groupby.sh [NROWS] [WORKDIR] [THREADS] [MEM]   (default 10000000 rows under $TMPDIR)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
nrows=${1:-10000000}
work=${2:-${TMPDIR:-/tmp}/vrta_bench_groupby.$$}
threads=${3:-2}
mem=${4:-0}
build=${BUILD:-$here/build-rel}
cache=${VRTA_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/vrta}

. "$here/bench/benchlib.sh"
prepare bench_groupby

echo "rows $nrows, threads $threads; memory: vrta group-by $([ "$mem" = 0 ] && echo "default (2 MB a thread)" || echo "$mem bytes"), DuckDB and SQLite their defaults"
printf "%-9s %10s %10s %10s %12s %12s\n" query vrta sqlite duckdb sqlite/vrta duckdb/vrta
status=0
for q in g100 g1m distinct; do
    v=$(best "$prog" vrta "$work" $q "$threads" "$mem"); vout=$(cat "$work/out")
    s=$(best "$prog" sqlite "$work" $q); sout=$(cat "$work/out")
    d=$(best "$prog" duckdb "$work" $q "$threads"); dout=$(cat "$work/out")
    if [ "$vout" != "$sout" ] || [ "$vout" != "$dout" ]; then
        echo "answers differ on $q: vrta '$vout' sqlite '$sout' duckdb '$dout'" >&2
        status=1
    fi
    printf "%-9s %10.3f %10.3f %10.3f %12.2f %12.2f\n" $q "$v" "$s" "$d" \
        "$(echo "$s / $v" | bc -l)" "$(echo "$d / $v" | bc -l)"
done
exit $status
