# Shell helpers of the comparison scripts; sourced, with $work, $cache set.

# DuckDB's C library from the npm package @duckdb/node-bindings-linux-x64,
# fetched into the cache (outside the tree) when missing; exported for the
# programs as VRTA_DUCKDB_LIB.
fetch_duck() {
    duck=$cache/duckdb/package/libduckdb.so
    if [ ! -f "$duck" ]; then
        mkdir -p "$cache/duckdb"
        (cd "$cache/duckdb" && npm pack --silent @duckdb/node-bindings-linux-x64 >/dev/null &&
            tar xzf duckdb-node-bindings-linux-x64-*.tgz)
    fi
    export VRTA_DUCKDB_LIB="$duck"
}

now() { date +%s.%N; }

# command...: prints the best wall time of three, after one warm-up whose
# output is left in $work/out.
best() {
    "$@" >"$work/out" 2>&1
    b=999999
    for i in 1 2 3; do
        t0=$(now)
        "$@" >/dev/null
        t1=$(now)
        t=$(echo "$t1 - $t0" | bc -l)
        if [ "$(echo "$t < $b" | bc)" = 1 ]; then b=$t; fi
    done
    echo "$b"
}
