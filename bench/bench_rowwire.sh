#!/bin/sh
# Rows per second of one table read the way a host reads it (the engine's
# entries and the fast vector, every row touched): over the wire through our
# data server, on loopback TCP and on a UNIX socket, plain and compressed,
# and on the direct path beside the wire; next to the same bytes copied over
# a plain loopback socket and cat of the table's data file, in the same run.
# Each command is timed whole (login and open included) three times, the
# best kept, with a warm page cache.
#
#   bench/bench_rowwire.sh [NROWS] [WORKDIR]      (default 10000000 rows of 100 bytes)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
nrows=${1:-10000000}
work=${2:-${TMPDIR:-/tmp}/vrta_bench_rowwire.$$}
build=${BUILD:-$here/build-rel}
export MSGPATH="$here/msg"

if [ ! -x "$build/bench/bench_rowwire" ] || [ ! -x "$build/tools/vrtaserv" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_rowwire vrtaserv vrtaname >/dev/null
fi
prog=$build/bench/bench_rowwire

mkdir -p "$work/dom"
sv=; ns=
stop() {
    [ -n "$ns" ] && kill "$ns" 2>/dev/null && wait "$ns" 2>/dev/null
    [ -n "$sv" ] && kill "$sv" 2>/dev/null && wait "$sv" 2>/dev/null
    rm -rf "$work"
}
trap stop EXIT INT TERM

"$prog" make "$work/dom" "$nrows"
dpf=$(ls "$work"/dom/rows.dpf*)
bytes=$(cat $dpf | wc -c)

export VRTA_USER=bench VRTA_PASSWORD=bench-pass
printf '%s\n' "$VRTA_PASSWORD" | "$build/tools/vrtaserv" passwd "$work/pw" bench 2>/dev/null
"$build/tools/vrtaserv" --port 0 --passwords "$work/pw" >"$work/sv.port" 2>"$work/sv.log" &
sv=$!
until [ -s "$work/sv.port" ]; do sleep 0.1; done
echo "BENCH $work/dom 127.0.0.1 $(head -1 "$work/sv.port")" >"$work/map"
"$build/tools/vrtaname" --port 0 --map "$work/map" >"$work/ns.port" 2>"$work/ns.log" &
ns=$!
until [ -s "$work/ns.port" ]; do sleep 0.1; done
nsport=$(head -1 "$work/ns.port")

now() { date +%s.%N; }
best() { # command...; the best wall time of three
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

cat $dpf >/dev/null
cat_t=$(best cat $dpf)
tcpcopy_t=$(best "$prog" sockcopy tcp $dpf)
unixcopy_t=$(best "$prog" sockcopy unix $dpf)
direct_t=$(best "$prog" engine "$nsport" BENCH direct)
tcp_t=$(best "$prog" engine "$nsport" BENCH tcp)
unix_t=$(best "$prog" engine "$nsport" BENCH unix)
tcpz_t=$(best "$prog" engine "$nsport" BENCH tcpz)
unixz_t=$(best "$prog" engine "$nsport" BENCH unixz)

rate() { echo "$nrows / $1" | bc -l; }
line() { printf '%-34s %7.3f s  %12.0f rows/s' "$1" "$2" "$(rate "$2")"; [ -n "${3:-}" ] && printf '  %s %.2f' "$3" "$4"; echo; }
printf 'rows %s of 100 bytes, data file %s bytes\n' "$nrows" "$bytes"
line "cat of the data file" "$cat_t"
line "raw copy, loopback TCP" "$tcpcopy_t"
line "raw copy, UNIX socket" "$unixcopy_t"
line "direct path" "$direct_t" "/ cat" "$(echo "$cat_t / $direct_t" | bc -l)"
line "wire, loopback TCP, plain" "$tcp_t" "/ raw TCP copy" "$(echo "$tcpcopy_t / $tcp_t" | bc -l)"
line "wire, UNIX socket, plain" "$unix_t" "/ raw UNIX copy" "$(echo "$unixcopy_t / $unix_t" | bc -l)"
line "wire, loopback TCP, compressed" "$tcpz_t" "/ raw TCP copy" "$(echo "$tcpcopy_t / $tcpz_t" | bc -l)"
line "wire, UNIX socket, compressed" "$unixz_t" "/ raw UNIX copy" "$(echo "$unixcopy_t / $unixz_t" | bc -l)"
