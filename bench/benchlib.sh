# Shell helpers of the comparison scripts; sourced, with $here, $work, $nrows,
# $build and $cache set.

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

# NAME: builds bench/NAME when missing (sets $prog), fetches DuckDB's library,
# and makes the table of $nrows rows in $work for every engine; $work goes
# when the script ends.
prepare() {
    "$here/scripts/deps" libsqlite3-dev bc
    if [ ! -x "$build/bench/$1" ]; then
        cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
        cmake --build "$build" -j2 --target "$1" >/dev/null
    fi
    prog=$build/bench/$1
    fetch_duck
    mkdir -p "$work"
    trap 'rm -rf "$work"' EXIT INT TERM
    "$prog" make "$work" "$nrows"
    "$prog" duckmake "$work"
    rm -f "$work/t.csv"
}
