#!/bin/sh
# Rows per second of a row conversion shaped program (50 columns) as
# generated code, against the reference interpreter of the same intermediate
# code and against loops written by hand for the same columns, in one run;
# prints the rates and the ratios.
#
#   bench/bench_codegen.sh
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build-rel}

if [ ! -x "$build/bench/bench_codegen" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target bench_codegen >/dev/null
fi
out=$(MSGPATH="$here/msg" "$build/bench/bench_codegen" --benchmark_repetitions=3 \
      --benchmark_report_aggregates_only=true --benchmark_format=csv 2>/dev/null)
rate() { echo "$out" | grep "^\"$1/iterations:[0-9]*_median\"" | cut -d, -f7; }
gen=$(rate BM_Generated)
hand=$(rate BM_HandLoop)
inl=$(rate BM_HandInline)
interp=$(rate BM_Interpreter)
printf 'generated code          %14.0f rows/s\n' "$gen"
printf 'hand loop, helper calls %14.0f rows/s\n' "$hand"
printf 'hand loop, inline swap  %14.0f rows/s\n' "$inl"
printf 'reference interpreter   %14.0f rows/s\n' "$interp"
# Rates come in exponent form, which awk reads and bc does not.
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
printf 'generated / interpreter %14s\n' "$(ratio "$gen" "$interp")"
printf 'generated / hand loop   %14s\n' "$(ratio "$gen" "$hand")"
printf 'inline loop / generated %14s\n' "$(ratio "$inl" "$gen")"
