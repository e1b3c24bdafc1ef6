#!/bin/sh
# Rows per second of one table read the way a host reads it (the engine's
# entries and the fast vector, every row touched): over the wire through our
# data server, on loopback TCP and on a UNIX socket, plain and compressed,
# and on the direct path beside the wire; next to the same bytes copied over
# a plain loopback socket and cat of the table's data file, in the same run.
# Each command is timed whole (login and open included) three times, the
# best kept, with a warm page cache; for the engine's roads the row loop
# alone is shown too, since starting the engine, the login and the open are
# a fixed cost the baselines do not pay.
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
    for p in $ns $sv; do { kill "$p" && wait "$p"; } 2>/dev/null || true; done
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
field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p" "$2"; }
# best NAME command...: the best wall time of three in $NAME_t; for the
# engine, the best time of its row loop alone (after login and open) in
# $NAME_r. Every run must have read all the rows.
best() {
    name=$1; shift
    b=999999; r=999999
    for i in 1 2 3; do
        t0=$(now)
        "$@" >"$work/out"
        t1=$(now)
        t=$(echo "$t1 - $t0" | bc -l)
        if [ "$(echo "$t < $b" | bc)" = 1 ]; then b=$t; fi
        n=$(field rows "$work/out")
        if [ -n "$n" ] && [ "$n" != "$nrows" ]; then echo "$name read $n rows, not $nrows" >&2; exit 1; fi
        rs=$(field readseconds "$work/out")
        if [ -n "$rs" ] && [ "$(echo "$rs < $r" | bc)" = 1 ]; then r=$rs; fi
    done
    eval "${name}_t=$b ${name}_r=$r"
}

cat $dpf >/dev/null
best cat sh -c 'exec cat "$@" >/dev/null' cat $dpf
best tcpcopy "$prog" sockcopy tcp $dpf
best unixcopy "$prog" sockcopy unix $dpf
best direct "$prog" engine "$nsport" BENCH direct
best tcp "$prog" engine "$nsport" BENCH tcp
best unix "$prog" engine "$nsport" BENCH unix
best tcpz "$prog" engine "$nsport" BENCH tcpz
best unixz "$prog" engine "$nsport" BENCH unixz

ratio() { echo "$1 / $2" | bc -l; }
rate() { echo "$nrows / $1" | bc -l; }
line() { printf '%-32s %7.3f s %11.0f rows/s' "$1" "$2" "$(rate "$2")"; [ -n "${3:-}" ] && printf '  %-15s %.2f' "$3" "$4"; echo; }
eline() { # the engine's road: whole command, then its row loop alone
    line "$1" "$2" "$3" "$(ratio "$4" "$2")"
    line "  its row loop alone" "$5" "$3" "$(ratio "$4" "$5")"
}
printf 'rows %s of 100 bytes, data file %s bytes; whole commands (login and open included), best of 3\n' "$nrows" "$bytes"
line "cat of the data file" "$cat_t"
line "raw copy, loopback TCP" "$tcpcopy_t"
line "raw copy, UNIX socket" "$unixcopy_t"
eline "direct path" "$direct_t" "/ cat" "$cat_t" "$direct_r"
eline "wire, loopback TCP, plain" "$tcp_t" "/ raw TCP copy" "$tcpcopy_t" "$tcp_r"
eline "wire, UNIX socket, plain" "$unix_t" "/ raw UNIX copy" "$unixcopy_t" "$unix_r"
eline "wire, loopback TCP, compressed" "$tcpz_t" "/ raw TCP copy" "$tcpcopy_t" "$tcpz_r"
eline "wire, UNIX socket, compressed" "$unixz_t" "/ raw UNIX copy" "$unixcopy_t" "$unixz_r"
