#!/bin/sh
# Library calls through their code against the same work done directly, in
# the same run: PROBNORM against erfc, MEAN of six values against a loop,
# the DATE9. format against one snprintf. Prints each pair's times and the
# ratio code/direct.
#
#   bench/bench_fnc.sh
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build-rel}

if [ ! -x "$build/bench/bench_fnc" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_fnc >/dev/null
fi
out=$(MSGPATH="$here/msg" "$build/bench/bench_fnc" --benchmark_repetitions=5 \
      --benchmark_report_aggregates_only=true --benchmark_format=csv 2>/dev/null)
ns() { echo "$out" | grep "^\"$1_median\"" | cut -d, -f3; }
for pair in Norm Mean Date; do
    d=$(ns "BM_Direct$pair")
    c=$(ns "BM_Code$pair")
    printf '%-5s direct %8.1f ns  by code %8.1f ns  ratio %6.2f\n' "$pair" "$d" "$c" "$(echo "$c / $d" | bc -l)"
done
