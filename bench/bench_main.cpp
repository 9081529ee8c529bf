// Runs the benchmarks registered by the other files, then removes the
// directory that held their files.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdlib>
#include <string>

#include "bench_support.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  // The report names the SQLite that was measured, not the one installed
  // when it is read.
  benchmark::AddCustomContext("sqlite_version", sqlite3_libversion());
  benchmark::AddCustomContext("scale_divisor", std::to_string(ScaleDivisor()));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::string cmd = "rm -rf '" + BenchDir() + "'";
  return system(cmd.c_str()) == 0 ? 0 : 1;
}
