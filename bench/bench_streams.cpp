// Throughput of stream I/O beside plain POSIX I/O of the same bytes.
//
// Each kystore figure has a plain-file twin measured in the same run, with
// the same size in MiB as its argument; scripts/bench.sh turns the pairs
// into ratios in docs/PERFORMANCE.md.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "kystore.h"

namespace {

const __int64 kChunk = 64 << 10;  // written and read 64 KiB at a time
const DWORD kBlockSize = 65536;

__int64 TotalBytes(const benchmark::State& state) {
  return static_cast<__int64>(state.range(0)) << 20;
}

const std::vector<char>& Chunk() {
  static std::vector<char> data = [] {
    std::vector<char> d(kChunk);
    for (size_t i = 0; i < d.size(); ++i) d[i] = static_cast<char>(i * 131 + 7);
    return d;
  }();
  return data;
}

// Writes `total` bytes into one root stream of a fresh storage.
void WriteStorage(const std::string& path, __int64 total) {
  kyStorage* s = kyStorage::Create(path.c_str(), 0x16, kBlockSize);
  if (s == nullptr) abort();
  kyStream* stm = s->CreateStream("data", 0x16);
  if (stm == nullptr) abort();
  for (__int64 done = 0; done < total; done += kChunk)
    if (stm->Write(Chunk().data(), kChunk) != kChunk) abort();
  stm->Release();
  s->Release();
}

void WritePlain(const std::string& path, __int64 total) {
  int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  if (fd < 0) abort();
  for (__int64 done = 0; done < total; done += kChunk)
    if (write(fd, Chunk().data(), kChunk) != kChunk) abort();
  close(fd);
}

void BM_WritePlainFile(benchmark::State& state) {
  std::string path = PathOf("plain.bin");
  for (auto _ : state) WritePlain(path, TotalBytes(state));
  state.SetBytesProcessed(state.iterations() * TotalBytes(state));
  RemoveFile(path);
}

void BM_WriteStream(benchmark::State& state) {
  std::string path = PathOf("write.kys");
  for (auto _ : state) WriteStorage(path, TotalBytes(state));
  state.SetBytesProcessed(state.iterations() * TotalBytes(state));
  RemoveFile(path);
}

void BM_ReadPlainFile(benchmark::State& state) {
  std::string path = PathOf("plain-read.bin");
  WritePlain(path, TotalBytes(state));
  std::vector<char> buf(kChunk);
  for (auto _ : state) {
    int fd = open(path.c_str(), O_RDONLY);
    __int64 total = 0;
    for (ssize_t n; (n = read(fd, buf.data(), buf.size())) > 0;) total += n;
    close(fd);
    if (total != TotalBytes(state)) abort();
  }
  state.SetBytesProcessed(state.iterations() * TotalBytes(state));
  RemoveFile(path);
}

// Reads the whole stream from an open storage, from the start each time.
void ReadStorage(benchmark::State& state, int bLoadIntoMemory) {
  std::string path = PathOf("read.kys");
  WriteStorage(path, TotalBytes(state));
  std::vector<char> buf(kChunk);
  kyStorage* s = kyStorage::Open(path.c_str(), 0x12, kBlockSize, bLoadIntoMemory);
  if (s == nullptr) abort();
  kyStream* stm = s->OpenStream("data", 0x12);
  if (stm == nullptr) abort();
  for (auto _ : state) {
    if (stm->Seek(0, 0, true) != 0) abort();
    __int64 total = 0;
    for (__int64 n; (n = stm->Read(buf.data(), kChunk)) > 0;) total += n;
    if (total != TotalBytes(state)) abort();
  }
  stm->Release();
  s->Release();
  state.SetBytesProcessed(state.iterations() * TotalBytes(state));
  RemoveFile(path);
}

void BM_ReadStream(benchmark::State& state) {
  ReadStorage(state, 0);
}
void BM_ReadStreamInMemory(benchmark::State& state) {
  ReadStorage(state, 1);
}

// What the in-memory load itself costs: opening the storage with it.
void BM_OpenWithLoad(benchmark::State& state) {
  std::string path = PathOf("load.kys");
  WriteStorage(path, TotalBytes(state));
  for (auto _ : state) {
    kyStorage* s = kyStorage::Open(path.c_str(), 0x12, kBlockSize, 1);
    if (s == nullptr) abort();
    s->Release();
  }
  state.SetBytesProcessed(state.iterations() * TotalBytes(state));
  RemoveFile(path);
}

// Transfers of 64 and 256 MiB; the in-memory forms only at 64 MiB.
void BothSizes(benchmark::internal::Benchmark* b) {
  b->Arg(Scaled(64))->Arg(Scaled(256));
}
void SmallSize(benchmark::internal::Benchmark* b) {
  b->Arg(Scaled(64));
}

}  // namespace

// I/O is measured by the wall clock: the time the caller waits.
BENCHMARK(BM_WritePlainFile)
    ->Apply(BothSizes)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2)
    ->UseRealTime();
BENCHMARK(BM_WriteStream)
    ->Apply(BothSizes)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2)
    ->UseRealTime();
BENCHMARK(BM_ReadPlainFile)
    ->Apply(BothSizes)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2)
    ->UseRealTime();
BENCHMARK(BM_ReadStream)
    ->Apply(BothSizes)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2)
    ->UseRealTime();
BENCHMARK(BM_ReadStreamInMemory)
    ->Apply(SmallSize)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2)
    ->UseRealTime();
BENCHMARK(BM_OpenWithLoad)
    ->Apply(SmallSize)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1)
    ->UseRealTime();
