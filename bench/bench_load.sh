#!/bin/sh
# Loading a CSV of generated rows into a table and reading every row back as
# CSV, through the vrta tool, against sqlite3 importing the same file into a
# fresh database and selecting every row as CSV. Ratios are vrta over sqlite3:
# below 1 means vrta took less time.
#
#   bench/bench_load.sh [ROWS] [WORKDIR]      (default 1000000 rows under $TMPDIR)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
rows=${1:-1000000}
work=${2:-${TMPDIR:-/tmp}/vrta_bench_load.$$}
build=${BUILD:-$here/build-load-rel}

command -v sqlite3 >/dev/null || "$here/scripts/deps" sqlite3
if [ ! -x "$build/tools/vrta" ]; then
    cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVRTA_TESTS=OFF >/dev/null
    cmake --build "$build" -j2 --target vrta_cli >/dev/null
fi
vrta=$build/tools/vrta
export MSGPATH="${MSGPATH:-$here/msg}"

mkdir -p "$work"
trap 'rm -rf "$work"' EXIT INT TERM
csv=$work/rows.csv
awk -v n="$rows" 'BEGIN {
  print "id,station,temp,rain,note"
  split("Oslo Rome Lima Cairo Perth Quito Tromso Hilo", st, " ")
  srand(11)
  for (i = 1; i <= n; i++)
    printf "%d,%s,%s,%s,%s\n", i, st[1 + i % 8], (int(rand() * 700) - 300) / 10 "", int(rand() * 400) / 4 "",
           (i % 100 ? "plain" : "\"a, b\"")
}' > "$csv"

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }

# Best of three for each step; both sides start from nothing every round
# and read with a warm page cache.
best() { awk -v a="$1" -v b="$2" 'BEGIN { print (a < b ? a : b) }'; }
vl=999999 vr=999999 sl=999999 sr=999999
for round in 1 2 3; do
    rm -rf "$work/dom" "$work/db.sqlite"
    t0=$(now); "$vrta" load "$work/dom" rows "$csv" >/dev/null; t1=$(now)
    "$vrta" print "$work/dom" rows --csv > "$work/vrta.out"; t2=$(now)
    vl=$(best "$vl" "$(secs "$t0" "$t1")"); vr=$(best "$vr" "$(secs "$t1" "$t2")")

    t0=$(now)
    sqlite3 "$work/db.sqlite" <<SQL
CREATE TABLE rows(id REAL, station TEXT, temp REAL, rain REAL, note TEXT);
.mode csv
.import --skip 1 $csv rows
SQL
    t1=$(now)
    sqlite3 -csv -header "$work/db.sqlite" "SELECT * FROM rows" > "$work/sqlite.out"
    t2=$(now)
    sl=$(best "$sl" "$(secs "$t0" "$t1")"); sr=$(best "$sr" "$(secs "$t1" "$t2")")
done

n=$(($(wc -l < "$work/vrta.out") - 1))
[ "$n" -eq "$rows" ] || { echo "vrta read back $n rows, not $rows" >&2; exit 1; }
cmp -s "$csv" "$work/vrta.out" || { echo "vrta read back rows that differ from the CSV" >&2; exit 1; }
echo "rows: $rows, CSV $(wc -c < "$csv") bytes"
printf "%-22s %10s %10s %8s\n" step vrta sqlite3 ratio
printf "%-22s %9ss %9ss %8s\n" "load from CSV" "$vl" "$sl" "$(ratio "$vl" "$sl")"
printf "%-22s %9ss %9ss %8s\n" "read back as CSV" "$vr" "$sr" "$(ratio "$vr" "$sr")"
t_v=$(awk -v a="$vl" -v b="$vr" 'BEGIN { print a + b }')
t_s=$(awk -v a="$sl" -v b="$sr" 'BEGIN { print a + b }')
printf "%-22s %9ss %9ss %8s\n" "both" "$t_v" "$t_s" "$(ratio "$t_v" "$t_s")"
