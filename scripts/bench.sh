#!/usr/bin/env bash
# Runs the benchmarks, prints each figure with its ratio to the plain-file
# figure, and keeps the results with the machine's description in
# docs/PERFORMANCE.md.
set -euo pipefail
build="${1:-build-bench}"
root="$(cd "$(dirname "$0")/.." && pwd)"
# By default the files live in memory (/dev/shm) so that the figures show
# what the library costs, not how fast this machine's disk writes back;
# set KYSTORE_BENCH_DIR to measure on another file system.
if [ -z "${KYSTORE_BENCH_DIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  export KYSTORE_BENCH_DIR=/dev/shm
fi
json="$(mktemp)"
trap 'rm -f "$json"' EXIT
"$build/bench/kystore_bench" --benchmark_format=json --benchmark_out="$json" \
  --benchmark_out_format=json >/dev/null
python3 "$root/scripts/bench_report.py" "$json" "$root/docs/PERFORMANCE.md" \
  "${KYSTORE_BENCH_DIR:-/tmp}"
