#!/usr/bin/env bash
# Whether LDF loading work grows faster than the file: instructions per byte of one
# parse of a synthetic cluster and of one ten times larger, counted exactly by
# callgrind (only the parse itself: the cluster's text is made before counting starts).
# Unlike timed figures, the count does not change with the load on the machine or with
# the caches, so a ratio above 1.2 means a look-up or container that grows worse than
# linearly.
set -euo pipefail
bin=${1:-build/bench/bench_ldf}
count() {
  valgrind --tool=callgrind --callgrind-out-file=/dev/null --collect-atstart=no --toggle-collect='*parse_once*' \
    "$bin" --parse-synthetic "$1" 2>&1 | sed -n 's/.*Collected : \([0-9]*\).*/\1/p'
}
bytes() { "$bin" --parse-synthetic "$1"; }
small_i=$(count 250); large_i=$(count 2500)
small_b=$(bytes 250); large_b=$(bytes 2500)
awk -v si="$small_i" -v li="$large_i" -v sb="$small_b" -v lb="$large_b" 'BEGIN {
  s = si / sb; l = li / lb; r = l / s;
  printf "instructions per byte: %.1f (%d bytes), %.1f (%d bytes)\n", s, sb, l, lb;
  printf "%-58s %10.4f %-6s (target <= 1.2)%s\n", "instructions per byte, 10x larger file / smaller file", r, "x", r <= 1.2 ? "" : "  MISSED";
  if (r > 1.2) printf "MISS: instructions per byte, 10x larger file / smaller file: %.4g x (target <= 1.2 x)\n", r;
}'
