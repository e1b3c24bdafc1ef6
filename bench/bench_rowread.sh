#!/bin/sh
# Sequential read of a table of 100-byte rows through a read cursor, plain
# and compressed with "VRTARLC2", against cat of the plain table's data file
# in the same run. Both sides read with a warm page cache; each is timed
# three times and the best kept.
#
#   bench/bench_rowread.sh [NROWS] [WORKDIR]      (default 10000000 rows under $TMPDIR)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
nrows=${1:-10000000}
work=${2:-${TMPDIR:-/tmp}/vrta_bench_rowread.$$}
build=${BUILD:-$here/build-rowread-rel}

if [ ! -x "$build/bench/bench_rowread" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_rowread >/dev/null
fi
prog=$build/bench/bench_rowread

mkdir -p "$work"
trap 'rm -rf "$work"' EXIT INT TERM

now() { date +%s.%N; }
secs() { echo "$2 - $1" | bc -l; }
field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p"; }

"$prog" make "$work" plain "$nrows"
"$prog" make "$work" packed "$nrows" VRTARLC2
dpf=$(ls "$work"/plain.dpf*)
bytes=$(cat $dpf | wc -c)
pbytes=$(cat "$work"/packed.dpf* | wc -c)

best() { # command...; prints the best wall time of three
    b=999999
    for i in 1 2 3; do
        t0=$(now)
        "$@" >/dev/null
        t1=$(now)
        t=$(secs "$t0" "$t1")
        if [ "$(echo "$t < $b" | bc)" = 1 ]; then b=$t; fi
    done
    echo "$b"
}

# Warm both.
cat $dpf >/dev/null
cat "$work"/packed.dpf* >/dev/null
"$prog" read "$work" plain >/dev/null

cat_t=$(best cat $dpf)
plain_t=$(best "$prog" read "$work" plain)
packed_t=$(best "$prog" read "$work" packed)
"$prog" read "$work" plain
"$prog" read "$work" packed

mib() { echo "$bytes / 1048576 / $1" | bc -l; }
printf 'rows %s of 100 bytes; plain data file %s bytes, VRTARLC2 data file %s bytes\n' "$nrows" "$bytes" "$pbytes"
printf 'cat of the data file:     %.3f s  %.0f MiB/s\n' "$cat_t" "$(mib "$cat_t")"
printf 'read cursor, plain:       %.3f s  %.0f MiB/s  ratio to cat %.3f\n' "$plain_t" "$(mib "$plain_t")" "$(echo "$cat_t / $plain_t" | bc -l)"
printf 'read cursor, VRTARLC2:    %.3f s  %.0f MiB/s  ratio to cat %.3f\n' "$packed_t" "$(mib "$packed_t")" "$(echo "$cat_t / $packed_t" | bc -l)"
