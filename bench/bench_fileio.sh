#!/bin/sh
# Sequential write then read of one logical file over 4 partitions on 2 paths,
# through DA_FD, against dd writing and cat reading the same number of bytes
# in the same directories. Reads run with a warm page cache for both sides.
#
#   bench/bench_fileio.sh [SIZE_MIB] [WORKDIR]      (default 2048 MiB under $TMPDIR)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
size_mib=${1:-2048}
work=${2:-${TMPDIR:-/tmp}/vrta_bench_fileio.$$}
build=${BUILD:-$here/build-fio-rel}
bufsize=1048576

if [ ! -x "$build/bench/bench_fileio" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_fileio >/dev/null
fi
prog=$build/bench/bench_fileio

mkdir -p "$work/p1" "$work/p2"
trap 'rm -rf "$work"' EXIT INT TERM
size=$((size_mib * 1048576))

now() { date +%s.%N; }
secs() { echo "$2 - $1" | bc -l; }
field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p"; }

# Writes: three rounds, the order of the two sides alternating, best of
# three for each. Every timed write starts from the same state, with both
# sides' files gone: on a virtual machine the reuse of just-freed page cache
# against fresh memory weighs more than either program.
half=$((size_mib / 2))
dd_w=999999
fd_w=999999
have_fd=0
clean() {
    rm -f "$work/p1/plain" "$work/p2/plain"
    if [ $have_fd = 1 ]; then "$prog" delete "$size" 4 $bufsize "$work/p1" "$work/p2"; have_fd=0; fi
    sync
}
write_dd() {
    dd if=/dev/zero of="$work/p1/plain" bs=$bufsize count=$half status=none
    dd if=/dev/zero of="$work/p2/plain" bs=$bufsize count=$((size_mib - half)) status=none
}
run_dd() {
    clean
    t0=$(now)
    write_dd
    t1=$(now)
    t=$(secs "$t0" "$t1")
    if [ "$(echo "$t < $dd_w" | bc)" = 1 ]; then dd_w=$t; fi
}
run_fd() {
    clean
    t0=$(now)
    out=$("$prog" write "$size" 4 $bufsize "$work/p1" "$work/p2")
    t1=$(now)
    have_fd=1
    t=$(secs "$t0" "$t1")
    if [ "$(echo "$t < $fd_w" | bc)" = 1 ]; then fd_w=$t; fi
}
run_fd; run_dd
run_dd; run_fd
run_fd; run_dd
echo "$out"
# Both sides' files for the reads.
clean
write_dd
"$prog" write "$size" 4 $bufsize "$work/p1" "$work/p2" >/dev/null
have_fd=1

# Warm the cache for both, then time the reads.
cat "$work/p1/plain" "$work/p2/plain" >/dev/null
"$prog" read "$size" 4 $bufsize "$work/p1" "$work/p2" >/dev/null
t0=$(now)
cat "$work/p1/plain" "$work/p2/plain" >/dev/null
t1=$(now)
cat_r=$(secs "$t0" "$t1")
t0=$(now)
out=$("$prog" read "$size" 4 $bufsize "$work/p1" "$work/p2")
t1=$(now)
fd_r=$(secs "$t0" "$t1")
echo "$out"

"$prog" delete "$size" 4 $bufsize "$work/p1" "$work/p2"
rm -f "$work/p1/plain" "$work/p2/plain"

mib() { echo "$size_mib / $1" | bc -l; }
printf 'write: dd %.0f MiB/s, DA_FD %.0f MiB/s, ratio %.3f\n' "$(mib "$dd_w")" "$(mib "$fd_w")" "$(echo "$dd_w / $fd_w" | bc -l)"
printf 'read:  cat %.0f MiB/s, DA_FD %.0f MiB/s, ratio %.3f\n' "$(mib "$cat_r")" "$(mib "$fd_r")" "$(echo "$cat_r / $fd_r" | bc -l)"
