#!/usr/bin/env bash
# Exact instruction count of one command exchange (library's own code), measured by
# callgrind as the difference between two run lengths so start-up costs cancel out.
set -euo pipefail
bin=${1:-build/bench/bench_exchange}
count() {
  valgrind --tool=callgrind --callgrind-out-file=/dev/null "$bin" --count "$1" 2>&1 |
    sed -n 's/.*Collected : \([0-9]*\).*/\1/p'
}
a=$(count 10000)
b=$(count 30000)
n=$(( (b - a) / 20000 ))
echo "command exchange, library's own cost: $n instructions per exchange (target: under 2000)"
if [ "$n" -ge 2000 ]; then
  echo "MISS: command exchange, library's own cost: $n instructions (target < 2000 instructions)"
fi
