#!/bin/sh
# Round trips per second of a small request through the wire layer on one
# loopback TCP connection, against a plain TCP echo of the same bytes, in
# the same run; prints both rates and their ratio.
#
#   bench/bench_wire.sh
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build-rel}

if [ ! -x "$build/bench/bench_wire" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_wire >/dev/null
fi
out=$(MSGPATH="$here/msg" "$build/bench/bench_wire" --benchmark_repetitions=3 \
      --benchmark_report_aggregates_only=true --benchmark_format=csv 2>/dev/null)
rate() { echo "$out" | grep "^\"$1/min_time:2.000/real_time_median\"" | cut -d, -f7; }
echo=$(rate BM_PlainEcho)
wire=$(rate BM_WireRoundTrip)
printf 'plain TCP echo    %12.0f round trips/s\n' "$echo"
printf 'wire layer        %12.0f round trips/s\n' "$wire"
printf 'ratio wire/echo   %12.2f\n' "$(echo "$wire / $echo" | bc -l)"
