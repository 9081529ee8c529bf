// Throughput of stream I/O beside plain POSIX I/O of the same bytes, and the
// cost of creating and opening storages with many root streams.
//
// Each kystore figure has a plain-file twin measured in the same run;
// scripts/bench.sh turns the pairs into ratios in docs/PERFORMANCE.md.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kystore.h"

namespace {

const __int64 kTotal = 64ll << 20;  // 64 MiB per transfer benchmark
const __int64 kChunk = 64 << 10;    // written and read 64 KiB at a time
const int kManyStreams = 10000;

std::string BenchDir() {
  static std::string dir = [] {
    const char* base = getenv("KYSTORE_BENCH_DIR");
    std::string d = std::string(base && *base ? base : "/tmp") + "/kystore-bench-XXXXXX";
    std::vector<char> buf(d.begin(), d.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) abort();
    return std::string(buf.data());
  }();
  return dir;
}

std::string PathOf(const char* name) {
  return BenchDir() + "/" + name;
}

const std::vector<char>& Chunk() {
  static std::vector<char> data = [] {
    std::vector<char> d(kChunk);
    for (size_t i = 0; i < d.size(); ++i) d[i] = static_cast<char>(i * 131 + 7);
    return d;
  }();
  return data;
}

// Writes kTotal bytes into one root stream of a fresh storage.
void WriteStorage(const std::string& path) {
  kyStorage* s = kyStorage::Create(path.c_str(), 0x16, 65536);
  if (s == nullptr) abort();
  kyStream* stm = s->CreateStream("data", 0x16);
  if (stm == nullptr) abort();
  for (__int64 done = 0; done < kTotal; done += kChunk)
    if (stm->Write(Chunk().data(), kChunk) != kChunk) abort();
  stm->Release();
  s->Release();
}

void WritePlain(const std::string& path) {
  int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  if (fd < 0) abort();
  for (__int64 done = 0; done < kTotal; done += kChunk)
    if (write(fd, Chunk().data(), kChunk) != kChunk) abort();
  close(fd);
}

void BM_WritePlainFile(benchmark::State& state) {
  std::string path = PathOf("plain.bin");
  for (auto _ : state) WritePlain(path);
  state.SetBytesProcessed(state.iterations() * kTotal);
}

void BM_WriteStream(benchmark::State& state) {
  std::string path = PathOf("write.kys");
  for (auto _ : state) WriteStorage(path);
  state.SetBytesProcessed(state.iterations() * kTotal);
}

void BM_ReadPlainFile(benchmark::State& state) {
  std::string path = PathOf("plain-read.bin");
  WritePlain(path);
  std::vector<char> buf(kChunk);
  for (auto _ : state) {
    int fd = open(path.c_str(), O_RDONLY);
    __int64 total = 0;
    for (ssize_t n; (n = read(fd, buf.data(), buf.size())) > 0;) total += n;
    close(fd);
    if (total != kTotal) abort();
  }
  state.SetBytesProcessed(state.iterations() * kTotal);
}

// Reads the whole stream from an open storage, from the start each time.
void ReadStorage(benchmark::State& state, int bLoadIntoMemory) {
  std::string path = PathOf("read.kys");
  WriteStorage(path);
  std::vector<char> buf(kChunk);
  kyStorage* s = kyStorage::Open(path.c_str(), 0x12, 65536, bLoadIntoMemory);
  if (s == nullptr) abort();
  kyStream* stm = s->OpenStream("data", 0x12);
  if (stm == nullptr) abort();
  for (auto _ : state) {
    if (stm->Seek(0, 0, true) != 0) abort();
    __int64 total = 0;
    for (__int64 n; (n = stm->Read(buf.data(), kChunk)) > 0;) total += n;
    if (total != kTotal) abort();
  }
  stm->Release();
  s->Release();
  state.SetBytesProcessed(state.iterations() * kTotal);
}

void BM_ReadStream(benchmark::State& state) {
  ReadStorage(state, 0);
}
void BM_ReadStreamInMemory(benchmark::State& state) {
  ReadStorage(state, 1);
}

// What the in-memory load itself costs: opening the 64 MiB storage with it.
void BM_OpenWithLoad(benchmark::State& state) {
  std::string path = PathOf("load.kys");
  WriteStorage(path);
  for (auto _ : state) {
    kyStorage* s = kyStorage::Open(path.c_str(), 0x12, 65536, 1);
    if (s == nullptr) abort();
    s->Release();
  }
  state.SetBytesProcessed(state.iterations() * kTotal);
}

void MakeManyStreams(const std::string& path) {
  kyStorage* s = kyStorage::Create(path.c_str(), 0x16, 4096);
  if (s == nullptr) abort();
  const std::vector<char>& data = Chunk();
  char name[16];
  for (int i = 0; i < kManyStreams; ++i) {
    snprintf(name, sizeof(name), "%08x", 0x10000000 + i);
    kyStream* stm = s->CreateStream(name, 0x16);
    if (stm == nullptr || stm->Write(data.data(), 1024) != 1024) abort();
    stm->Release();
  }
  s->Release();
}

void BM_Create10000Streams(benchmark::State& state) {
  std::string path = PathOf("many-create.kys");
  for (auto _ : state) MakeManyStreams(path);
  state.SetItemsProcessed(state.iterations() * kManyStreams);
}

void BM_Open10000Streams(benchmark::State& state) {
  std::string path = PathOf("many-open.kys");
  MakeManyStreams(path);
  for (auto _ : state) {
    kyStorage* s = kyStorage::Open(path.c_str(), 0x12, 4096, 0);
    if (s == nullptr) abort();
    s->Release();
  }
}

}  // namespace

// I/O is measured by the wall clock: the time the caller waits.
BENCHMARK(BM_WritePlainFile)->Unit(benchmark::kMillisecond)->MinTime(2)->UseRealTime();
BENCHMARK(BM_WriteStream)->Unit(benchmark::kMillisecond)->MinTime(2)->UseRealTime();
BENCHMARK(BM_ReadPlainFile)->Unit(benchmark::kMillisecond)->MinTime(2)->UseRealTime();
BENCHMARK(BM_ReadStream)->Unit(benchmark::kMillisecond)->MinTime(2)->UseRealTime();
BENCHMARK(BM_ReadStreamInMemory)->Unit(benchmark::kMillisecond)->MinTime(2)->UseRealTime();
BENCHMARK(BM_OpenWithLoad)->Unit(benchmark::kMillisecond)->MinTime(1)->UseRealTime();
BENCHMARK(BM_Create10000Streams)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Open10000Streams)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::string cmd = "rm -rf '" + BenchDir() + "'";
  return system(cmd.c_str()) == 0 ? 0 : 1;
}
