#!/bin/sh
# Rows per second of one table read the way a host reads it (the engine's
# entries and the fast vector, every row touched): over the wire through our
# data server, on loopback TCP and on a UNIX socket, plain and compressed,
# and on the direct path beside the wire; next to the same bytes copied over
# a plain loopback socket and cat of the table's data file, in the same run.
# Each road and its baseline run in turn, RUNS pairs (default 5), with a warm
# page cache for both; the figures are medians, the ratios taken pair by
# pair, so that a machine whose speed drifts does not favour either side.
# Whole commands are timed (engine start, login and open included); for the
# engine's roads the row loop alone is shown too, since starting the engine,
# the login (a deliberately slow password check on the server) and the open
# are a fixed cost the baselines do not pay.
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
# waitport FILE PID LOG: the port the server wrote to FILE, within 10 s and
# while it lives.
waitport() {
    i=0
    until [ -s "$1" ]; do
        if [ $i -ge 100 ] || ! kill -0 "$2" 2>/dev/null; then echo "the server did not start:" >&2; cat "$3" >&2; exit 1; fi
        sleep 0.1
        i=$((i + 1))
    done
}

"$prog" make "$work/dom" "$nrows"
dpf=$(ls "$work"/dom/rows.dpf*)
# The new table's pages are written back now, not while a road is timed.
sync "$dpf"
bytes=$(cat $dpf | wc -c)

export VRTA_USER=bench VRTA_PASSWORD=bench-pass
printf '%s\n' "$VRTA_PASSWORD" | "$build/tools/vrtaserv" passwd "$work/pw" bench 2>/dev/null
"$build/tools/vrtaserv" --port 0 --passwords "$work/pw" >"$work/sv.port" 2>"$work/sv.log" &
sv=$!
waitport "$work/sv.port" $sv "$work/sv.log"
echo "BENCH $work/dom 127.0.0.1 $(head -1 "$work/sv.port")" >"$work/map"
"$build/tools/vrtaname" --port 0 --map "$work/map" >"$work/ns.port" 2>"$work/ns.log" &
ns=$!
waitport "$work/ns.port" $ns "$work/ns.log"
nsport=$(head -1 "$work/ns.port")

now() { date +%s.%N; }
field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p" "$2"; }
median() { tr ' ' '\n' | grep . | sort -g | awk '{a[NR] = $1} END {print NR % 2 ? a[(NR + 1) / 2] : (a[NR / 2] + a[NR / 2 + 1]) / 2}'; }
div() { echo "$1 / $2" | bc -l; }

base_cat() { cat $dpf >/dev/null; }
base_tcpcopy() { "$prog" sockcopy tcp $dpf; }
base_unixcopy() { "$prog" sockcopy unix $dpf; }
road() { "$prog" engine "$nsport" BENCH "$1"; }

# one COMMAND...: its wall time in $t, its row loop in $r (the engine's
# roads only); every run must have read all the rows.
one() {
    t0=$(now)
    "$@" >"$work/out"
    t1=$(now)
    t=$(div "$t1 - $t0" 1)
    n=$(field rows "$work/out")
    if [ -n "$n" ] && [ "$n" != "$nrows" ]; then echo "$* read $n rows, not $nrows" >&2; exit 1; fi
    r=$(field readseconds "$work/out")
}

# pair ROAD BASE: the baseline and the road in turn, $runs times. Sets
# ROAD_b, ROAD_t, ROAD_r (median times of the baseline, the road, its row
# loop) and ROAD_w, ROAD_l (median of the pair by pair ratios baseline /
# road, whole and row loop).
pair() {
    bl= tl= rl= wl= ll= i=0
    while [ $i -lt "$runs" ]; do
        one base_$2
        bt=$t
        one road $1
        bl="$bl $bt" tl="$tl $t" rl="$rl $r"
        wl="$wl $(div "$bt" "$t")" ll="$ll $(div "$bt" "$r")"
        i=$((i + 1))
    done
    eval "$1_b=$(echo $bl | median) $1_t=$(echo $tl | median) $1_r=$(echo $rl | median)"
    eval "$1_w=$(echo $wl | median) $1_l=$(echo $ll | median)"
}

runs=${RUNS:-5}
base_cat
for p in "direct cat" "tcp tcpcopy" "unix unixcopy" "tcpz tcpcopy" "unixz unixcopy"; do pair $p; done

rate() { div "$nrows" "$1"; }
line() { printf '%-32s %7.3f s %11.0f rows/s' "$1" "$2" "$(rate "$2")"; [ -n "${3:-}" ] && printf '  %-15s %.2f' "$3" "$4"; echo; }
eline() { # ROAD TITLE BASETITLE: the baseline, the whole command, then its row loop alone
    eval "b=\$$1_b t=\$$1_t r=\$$1_r w=\$$1_w l=\$$1_l"
    line "$3" "$b"
    line "$2" "$t" "/ $3" "$w"
    line "  its row loop alone" "$r" "/ $3" "$l"
}
printf 'rows %s of 100 bytes, data file %s bytes; whole commands (login and open included)\n' "$nrows" "$bytes"
printf 'each road in turn with its baseline, %s pairs: median times, median of the ratios pair by pair\n' "$runs"
eline direct "direct path" "cat"
eline tcp "wire, loopback TCP, plain" "raw TCP copy"
eline unix "wire, UNIX socket, plain" "raw UNIX copy"
eline tcpz "wire, loopback TCP, compressed" "raw TCP copy"
eline unixz "wire, UNIX socket, compressed" "raw UNIX copy"
