#!/usr/bin/env bash
# Throughput and ratio of the three block compressors on 256 MiB of table
# rows, beside gzip -1 and lz4 on the same bytes in the same run.
#   bench/bench_compress.sh [MiB]
set -euo pipefail
cd "$(dirname "$0")/.."
mib="${1:-256}"
scripts/deps gzip lz4
build=build-exits-rel
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_BENCH=ON -DVRTA_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target bench_compress >/dev/null
# Files in memory where possible, so the external tools are not timed on disk writes.
if [ -d /dev/shm ]; then work="$(mktemp -d -p /dev/shm)"; else work="$(mktemp -d)"; fi
trap 'rm -rf "$work"' EXIT
data="$work/rows.dat"
"$build/bench/bench_compress" --gen "$data" "$mib"
size=$(stat -c %s "$data")
cat "$data" >/dev/null   # from the page cache for everyone

now() { date +%s.%N; }
# name, compress command, expand command: both read stdin and write stdout.
external() {
  local name=$1 pack=$2 unpack=$3 t0 t1 t2 csize
  t0=$(now); $pack <"$data" >"$work/c"; t1=$(now)
  $unpack <"$work/c" >"$work/d"; t2=$(now)
  cmp -s "$data" "$work/d" || { echo "$name: round trip differs" >&2; exit 1; }
  csize=$(stat -c %s "$work/c")
  awk -v n="$name" -v s="$size" -v c="$csize" -v a="$t0" -v b="$t1" -v d="$t2" \
    'BEGIN { printf "%s %.1f %.1f %.4f\n", n, s/1e6/(b-a), s/1e6/(d-b), c/s }'
  rm -f "$work/c" "$work/d"
}

{
  "$build/bench/bench_compress" --file "$data"
  external "gzip-1" "gzip -1 -c" "gzip -d -c"
  external "lz4" "lz4 -1 -c" "lz4 -d -c"
} | awk -v s="$size" 'BEGIN { printf "%-10s %12s %12s %8s\n", "coder", "pack MB/s", "unpack MB/s", "ratio"
                              printf "(%.0f MB of table rows, 64 KiB blocks for the exits)\n", s/1e6 }
        { printf "%-10s %12.1f %12.1f %8.3f\n", $1, $2, $3, $4 }'
