#!/usr/bin/env bash
# Runs the benchmarks, prints each figure with its ratio to its twin
# (SQLite or the plain file), and keeps the results with the machine's
# description in docs/PERFORMANCE.md.
#
#   scripts/bench.sh [BUILD_DIR [BENCHMARK_OPTIONS...]]
#
# BUILD_DIR defaults to build-bench; options such as
# --benchmark_filter=BM_Lookup go to the benchmark program.  With
# KYSTORE_BENCH_SCALE=small every size is divided by 10, for a quick look.
set -euo pipefail
build="${1:-build-bench}"
shift || true
root="$(cd "$(dirname "$0")/.." && pwd)"
# By default the files live in memory (/dev/shm) so that the figures show
# what the library costs, not how fast this machine's disk writes back;
# set KYSTORE_BENCH_DIR to measure on another file system.
if [ -z "${KYSTORE_BENCH_DIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  export KYSTORE_BENCH_DIR=/dev/shm
fi
# KYSTORE_BENCH_JSON keeps the raw results there, so that the report can be
# made again (python3 scripts/bench_report.py JSON docs/PERFORMANCE.md DIR)
# without running everything again.
if [ -n "${KYSTORE_BENCH_JSON:-}" ]; then
  json="$KYSTORE_BENCH_JSON"
else
  json="$(mktemp)"
  trap 'rm -f "$json"' EXIT
fi
"$build/bench/kystore_bench" --benchmark_format=json --benchmark_out="$json" \
  --benchmark_out_format=json "$@" >/dev/null
python3 "$root/scripts/bench_report.py" "$json" "$root/docs/PERFORMANCE.md" \
  "${KYSTORE_BENCH_DIR:-/tmp}"
