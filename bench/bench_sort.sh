#!/bin/sh
# The external sorter against GNU sort on the same bytes: generated 100-byte
# records, each a 10-byte printable key, a payload and a line end, so that
# GNU sort takes them as lines. Both get the same memory and two threads
# where they can use them. Two cases: memory of an eighth of the data (both
# spill and merge), and memory enough to hold it all. Ratios are the
# sorter's time over GNU sort's: below 1 means the sorter took less time.
#
#   bench/bench_sort.sh [RECORDS] [WORKDIR]    (default 10000000 records under $TMPDIR)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
n=${1:-10000000}
work=${2:-${TMPDIR:-/tmp}/vrta_bench_sort.$$}
build=${BUILD:-$here/build-rel}
rounds=${ROUNDS:-3}

if [ ! -x "$build/bench/bench_sort" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_sort >/dev/null
fi
prog=$build/bench/bench_sort
export MSGPATH="${MSGPATH:-$here/msg}"

mkdir -p "$work"
trap 'rm -rf "$work"' EXIT INT TERM
in=$work/records
awk -v n="$n" 'BEGIN {
  srand(17)
  for (c = 32; c < 127; c++) ch[c - 32] = sprintf("%c", c)
  for (i = 1; i <= n; i++) {
    k = ""
    for (j = 0; j < 10; j++) k = k ch[int(rand() * 95)]
    printf "%s%089d\n", k, i
  }
}' > "$in"
bytes=$((n * 100))

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
best() { awk -v a="$1" -v b="$2" 'BEGIN { print (a < b ? a : b) }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }

run_case() {  # name membytes
    ours=999999 gnu=999999
    for round in $(seq "$rounds"); do
        rm -f "$work/ours" "$work/gnu"
        t0=$(now); "$prog" "$in" "$work/ours" 10 100 "$2" "$work"; t1=$(now)
        LC_ALL=C sort -S "${2}b" --parallel=2 -T "$work" -o "$work/gnu" "$in"; t2=$(now)
        ours=$(best "$ours" "$(secs "$t0" "$t1")"); gnu=$(best "$gnu" "$(secs "$t1" "$t2")")
    done
    # The same keys in the same order (ties may differ in their payload).
    if ! cut -c1-10 "$work/ours" | cmp -s - "$(cut -c1-10 "$work/gnu" > "$work/gk"; echo "$work/gk")"; then
        echo "bench_sort: $1: the outputs differ in key order" >&2
        exit 1
    fi
    printf "%-10s %6s MB memory  sorter %8ss  GNU sort %8ss  ratio %s\n" "$1" "$(($2 / 1048576))" "$ours" "$gnu" \
        "$(ratio "$ours" "$gnu")"
}

echo "$n records of 100 bytes ($((bytes / 1048576)) MB), best of $rounds"
run_case spill $((bytes / 8))
run_case memory $((bytes * 2))
