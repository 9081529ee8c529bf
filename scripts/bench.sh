#!/usr/bin/env bash
# Runs the benchmarks, prints each figure with its ratio to the plain-file
# figure, and keeps the results with the machine's description in
# docs/PERFORMANCE.md.
set -euo pipefail
build="${1:-build-bench}"
root="$(cd "$(dirname "$0")/.." && pwd)"
json="$(mktemp)"
trap 'rm -f "$json"' EXIT
"$build/bench/kystore_bench" --benchmark_format=json --benchmark_out="$json" \
  --benchmark_out_format=json >/dev/null
python3 "$root/scripts/bench_report.py" "$json" "$root/docs/PERFORMANCE.md"
