// Many small streams in one storage, beside the same rows in SQLite.
//
// Every workload is registered twice, as BM_<Workload>/kystore/<N> and
// BM_<Workload>/sqlite/<N>, and both run in the same process on files in the
// same directory.  A stream is 100 bytes under an 8-character name; the
// storage uses data blocks of 4096 bytes and 64-bit offsets (the default).
// Files with N streams that a workload only reads are built once per run
// (by the create workload when it ran) and shared.
//
// The sizes are divided by 10 when KYSTORE_BENCH_SCALE=small.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "bench_support.h"
#include "kystore.h"
#include "sqlite_table.h"

namespace {

const int kStreamBytes = 100;
const DWORD kBlockSize = 4096;
const char kFolder[] = "folder";
// The folder's row is the first one inserted, so it gets rowid 1.
const int64_t kFolderRow = 1;
// Lookups per iteration of the lookup workloads.
const int64_t kLookups = 10000;

enum class Layout { kRoot, kChildren };
// kKystoreGathered: kystore with its writes gathered (BeginWriteBatch), as
// SQLite gathers its rows in one transaction.  Same file, same bytes.
enum class Engine { kKystore, kKystoreGathered, kSqlite };

const char* StreamBytes() {
  static char data[kStreamBytes];
  static bool filled = false;
  if (!filled) {
    for (int i = 0; i < kStreamBytes; ++i) data[i] = static_cast<char>(i * 37 + 11);
    filled = true;
  }
  return data;
}

// The names of the first n streams, the same for both engines.
const std::vector<std::string>& Names(int64_t n) {
  static std::map<int64_t, std::vector<std::string>> cache;
  std::vector<std::string>& names = cache[n];
  if (names.empty()) {
    char name[16];
    for (int64_t i = 0; i < n; ++i) {
      snprintf(name, sizeof(name), "%08x", static_cast<unsigned>(0x10000000 + i));
      names.emplace_back(name);
    }
  }
  return names;
}

// Indexes of the streams the lookup workloads visit, drawn once per N with
// a fixed seed so that both engines look up the same names in the same order.
const std::vector<int64_t>& LookupOrder(int64_t n) {
  static std::map<int64_t, std::vector<int64_t>> cache;
  std::vector<int64_t>& order = cache[n];
  if (order.empty()) {
    std::mt19937_64 random(20240601);
    std::uniform_int_distribution<int64_t> pick(0, n - 1);
    for (int64_t i = 0; i < Scaled(kLookups); ++i) order.push_back(pick(random));
  }
  return order;
}

std::string FileFor(Layout layout, Engine engine, int64_t n) {
  return PathOf(std::string(layout == Layout::kRoot ? "root-" : "children-") + std::to_string(n) +
                (engine != Engine::kSqlite ? ".kys" : ".db"));
}

// --- building: the timed part of the create workloads ---------------------

void WriteStream(kyStream* stm) {
  if (stm == nullptr || stm->Write(StreamBytes(), kStreamBytes) != kStreamBytes) abort();
  stm->Release();
}

void BuildKystore(const std::string& path, Layout layout, int64_t n, bool gathered = false) {
  kyStorage* s = kyStorage::Create(path.c_str(), 0x16, kBlockSize);
  if (s == nullptr || (gathered && !s->BeginWriteBatch())) abort();
  if (layout == Layout::kRoot) {
    for (const std::string& name : Names(n)) WriteStream(s->CreateStream(name.c_str(), 0x16));
  } else {
    kyStream* folder = s->CreateStream(kFolder, 1, 0x16);
    if (folder == nullptr) abort();
    // The folder looks the name up before it creates (bCheckExisting 1).
    for (const std::string& name : Names(n))
      WriteStream(folder->CreateStream(name.c_str(), 0, 0x16, 1));
    folder->Release();
  }
  if (gathered && !s->EndWriteBatch()) abort();
  s->Release();
}

void BuildSqlite(const std::string& path, Layout layout, int64_t n) {
  SqliteTable db(path, true);
  db.Begin();
  int64_t parent = 0;
  if (layout == Layout::kChildren) {
    parent = db.Insert(0, kFolder, nullptr, 0);
    if (parent != kFolderRow) abort();
  }
  for (const std::string& name : Names(n))
    db.Insert(parent, name.c_str(), StreamBytes(), kStreamBytes);
  db.Commit();
}

void Build(Layout layout, Engine engine, int64_t n) {
  const std::string path = FileFor(layout, engine, n);
  if (engine == Engine::kKystore) {
    RemoveFile(path);
    BuildKystore(path, layout, n);
  } else {
    BuildSqlite(path, layout, n);
  }
}

std::set<std::string>& Built() {
  static std::set<std::string> built;
  return built;
}

// The file with n streams in `layout`, built on first use.
std::string Prepared(Layout layout, Engine engine, int64_t n) {
  const std::string path = FileFor(layout, engine, n);
  if (Built().insert(path).second) Build(layout, engine, n);
  return path;
}

// --- reading one stream ---------------------------------------------------

void ReadAll(kyStream* stm) {
  char buf[kStreamBytes];
  if (stm == nullptr || stm->Seek(0, 0, true) != 0 || stm->Read(buf, kStreamBytes) != kStreamBytes)
    abort();
  benchmark::DoNotOptimize(buf);
  stm->Release();
}

void SelectAll(SqliteTable& db, int64_t parent, const std::string& name) {
  char buf[kStreamBytes];
  if (db.Select(parent, name.c_str(), buf, kStreamBytes) != kStreamBytes) abort();
  benchmark::DoNotOptimize(buf);
}

// --- memory ----------------------------------------------------------------

// Heap and resident figures of what was opened since `heapBefore` and
// `residentBefore` were taken.
void MemoryCounters(benchmark::State& state, int64_t heapBefore, int64_t residentBefore) {
  state.counters["heap_bytes"] = static_cast<double>(HeapInUse() - heapBefore);
  state.counters["peak_rss_bytes"] = static_cast<double>(ResidentPeak());
  state.counters["rss_growth_bytes"] = static_cast<double>(ResidentPeak() - residentBefore);
}

// The same per stream, for n streams of 8-character names.  "Beyond the
// names" takes each name's 9 bytes (with its terminator) off: what is left
// is what the engine spends to find, order and describe a stream (0 when
// less than the names is held: the names are not kept in memory).
void MemoryCountersPerStream(benchmark::State& state, int64_t n, int64_t heapBefore,
                             int64_t residentBefore) {
  MemoryCounters(state, heapBefore, residentBefore);
  const double held = state.counters["heap_bytes"];
  const double names = static_cast<double>(n) * 9;
  state.counters["heap_per_stream"] = held / n;
  state.counters["heap_per_stream_beyond_names"] = held > names ? (held - names) / n : 0;
}

// --- workloads ---------------------------------------------------------------

void Create(benchmark::State& state, Layout layout, Engine engine) {
  const int64_t n = state.range(0);
  const std::string path = FileFor(layout, engine, n);
  for (auto _ : state) {
    state.PauseTiming();
    RemoveFile(path);
    SqliteTable::RemoveFiles(path);
    state.ResumeTiming();
    if (engine != Engine::kSqlite)
      BuildKystore(path, layout, n, engine == Engine::kKystoreGathered);
    else
      BuildSqlite(path, layout, n);
  }
  Built().insert(path);
  state.SetItemsProcessed(state.iterations() * n);
  state.counters["file_bytes"] = static_cast<double>(FileSize(path));
}

void BM_CreateRootKystore(benchmark::State& state) {
  Create(state, Layout::kRoot, Engine::kKystore);
}
void BM_CreateRootSqlite(benchmark::State& state) {
  Create(state, Layout::kRoot, Engine::kSqlite);
}
void BM_CreateRootGatheredKystore(benchmark::State& state) {
  Create(state, Layout::kRoot, Engine::kKystoreGathered);
}
void BM_CreateChildrenGatheredKystore(benchmark::State& state) {
  Create(state, Layout::kChildren, Engine::kKystoreGathered);
}
void BM_CreateChildrenKystore(benchmark::State& state) {
  Create(state, Layout::kChildren, Engine::kKystore);
}
void BM_CreateChildrenSqlite(benchmark::State& state) {
  Create(state, Layout::kChildren, Engine::kSqlite);
}

// Opens the storage, reads the last stream created, closes everything.  The
// memory counters come from one more open, held while they are read.
void BM_OpenReadOneKystore(benchmark::State& state) {
  const int64_t n = state.range(0);
  const std::string path = Prepared(Layout::kRoot, Engine::kKystore, n);
  const std::string& name = Names(n).back();
  for (auto _ : state) {
    kyStorage* s = kyStorage::Open(path.c_str(), 0x12, kBlockSize, 0);
    if (s == nullptr) abort();
    ReadAll(s->OpenStream(name.c_str(), 0x12));
    s->Release();
  }
  ResetResidentPeak();
  const int64_t resident = ResidentNow();
  const int64_t heap = HeapInUse();
  kyStorage* s = kyStorage::Open(path.c_str(), 0x12, kBlockSize, 0);
  if (s == nullptr) abort();
  // A lookup first, so that whatever is built on demand is counted too.
  ReadAll(s->OpenStream(name.c_str(), 0x12));
  MemoryCountersPerStream(state, n, heap, resident);
  s->Release();
}

void BM_OpenReadOneSqlite(benchmark::State& state) {
  const int64_t n = state.range(0);
  const std::string path = Prepared(Layout::kRoot, Engine::kSqlite, n);
  const std::string& name = Names(n).back();
  for (auto _ : state) {
    SqliteTable db(path, false);
    SelectAll(db, 0, name);
  }
  ResetResidentPeak();
  const int64_t resident = ResidentNow();
  const int64_t heap = HeapInUse();
  SqliteTable db(path, false);
  SelectAll(db, 0, name);
  MemoryCounters(state, heap, resident);
}

void BM_LookupRootKystore(benchmark::State& state) {
  const int64_t n = state.range(0);
  const std::vector<std::string>& names = Names(n);
  const std::vector<int64_t>& order = LookupOrder(n);
  kyStorage* s =
      kyStorage::Open(Prepared(Layout::kRoot, Engine::kKystore, n).c_str(), 0x12, kBlockSize, 0);
  if (s == nullptr) abort();
  for (auto _ : state) {
    for (int64_t i : order) ReadAll(s->OpenStream(names[i].c_str(), 0x12));
  }
  s->Release();
  state.SetItemsProcessed(state.iterations() * order.size());
}

void BM_LookupRootSqlite(benchmark::State& state) {
  const int64_t n = state.range(0);
  const std::vector<std::string>& names = Names(n);
  const std::vector<int64_t>& order = LookupOrder(n);
  SqliteTable db(Prepared(Layout::kRoot, Engine::kSqlite, n), false);
  for (auto _ : state) {
    for (int64_t i : order) SelectAll(db, 0, names[i]);
  }
  state.SetItemsProcessed(state.iterations() * order.size());
}

// Children are looked up through the folder's object, which never preloads
// them.  The memory counters show what the folder holds after the lookups.
void BM_LookupChildKystore(benchmark::State& state) {
  const int64_t n = state.range(0);
  const std::vector<std::string>& names = Names(n);
  const std::vector<int64_t>& order = LookupOrder(n);
  kyStorage* s = kyStorage::Open(Prepared(Layout::kChildren, Engine::kKystore, n).c_str(), 0x12,
                                 kBlockSize, 0);
  if (s == nullptr) abort();
  const int64_t resident = ResidentNow();
  const int64_t heap = HeapInUse();
  kyStream* folder = s->OpenStream(kFolder, 0x12);
  if (folder == nullptr) abort();
  for (auto _ : state) {
    for (int64_t i : order) ReadAll(folder->OpenStream(names[i].c_str(), 0x12));
  }
  MemoryCountersPerStream(state, n, heap, resident);
  folder->Release();
  s->Release();
  state.SetItemsProcessed(state.iterations() * order.size());
}

void BM_LookupChildSqlite(benchmark::State& state) {
  const int64_t n = state.range(0);
  const std::vector<std::string>& names = Names(n);
  const std::vector<int64_t>& order = LookupOrder(n);
  SqliteTable db(Prepared(Layout::kChildren, Engine::kSqlite, n), false);
  for (auto _ : state) {
    for (int64_t i : order) SelectAll(db, kFolderRow, names[i]);
  }
  state.SetItemsProcessed(state.iterations() * order.size());
}

// Removes every second stream (0, 2, 4, ...) of a fresh copy of the file,
// then closes it.  The copy and the open are not timed.
void BM_DeleteHalfKystore(benchmark::State& state) {
  const int64_t n = state.range(0);
  const std::vector<std::string>& names = Names(n);
  const std::string source = Prepared(Layout::kRoot, Engine::kKystore, n);
  const std::string work = PathOf("delete-work.kys");
  for (auto _ : state) {
    state.PauseTiming();
    CopyFile(source, work);
    kyStorage* s = kyStorage::Open(work.c_str(), 0x16, kBlockSize, 0);
    if (s == nullptr) abort();
    state.ResumeTiming();
    for (int64_t i = 0; i < n; i += 2) {
      kyStream* stm = s->OpenStream(names[i].c_str(), 0x16);
      // Remove destroys the object when it succeeds.
      if (stm == nullptr || !stm->Remove()) abort();
    }
    s->Release();
  }
  RemoveFile(work);
  state.SetItemsProcessed(state.iterations() * ((n + 1) / 2));
}

void BM_DeleteHalfSqlite(benchmark::State& state) {
  const int64_t n = state.range(0);
  const std::vector<std::string>& names = Names(n);
  const std::string source = Prepared(Layout::kRoot, Engine::kSqlite, n);
  const std::string work = PathOf("delete-work.db");
  for (auto _ : state) {
    state.PauseTiming();
    SqliteTable::RemoveFiles(work);
    CopyFile(source, work);
    auto db = std::make_unique<SqliteTable>(work, false);
    state.ResumeTiming();
    db->Begin();
    for (int64_t i = 0; i < n; i += 2)
      if (!db->Delete(0, names[i].c_str())) abort();
    db->Commit();
    db.reset();
  }
  SqliteTable::RemoveFiles(work);
  state.SetItemsProcessed(state.iterations() * ((n + 1) / 2));
}

// --- registration ------------------------------------------------------------

struct Twin {
  const char* workload;
  benchmark::internal::Function* kystore;
  benchmark::internal::Function* sqlite;
  Layout layout;
  bool timedOnce;  // one iteration (the workload changes or makes files)
};

const Twin kTwins[] = {
    {"BM_CreateRoot", BM_CreateRootKystore, BM_CreateRootSqlite, Layout::kRoot, true},
    {"BM_CreateChildren", BM_CreateChildrenKystore, BM_CreateChildrenSqlite, Layout::kChildren,
     true},
    {"BM_CreateRootGathered", BM_CreateRootGatheredKystore, BM_CreateRootSqlite, Layout::kRoot,
     true},
    {"BM_CreateChildrenGathered", BM_CreateChildrenGatheredKystore, BM_CreateChildrenSqlite,
     Layout::kChildren, true},
    {"BM_OpenReadOne", BM_OpenReadOneKystore, BM_OpenReadOneSqlite, Layout::kRoot, false},
    {"BM_LookupRoot", BM_LookupRootKystore, BM_LookupRootSqlite, Layout::kRoot, false},
    {"BM_LookupChild", BM_LookupChildKystore, BM_LookupChildSqlite, Layout::kChildren, false},
    {"BM_DeleteHalf", BM_DeleteHalfKystore, BM_DeleteHalfSqlite, Layout::kRoot, true},
};

void Configure(benchmark::internal::Benchmark* b, const Twin& twin) {
  if (twin.layout == Layout::kRoot)
    b->Arg(Scaled(10000))->Arg(Scaled(100000));
  else
    b->Arg(Scaled(1000))->Arg(Scaled(10000));
  b->Unit(benchmark::kMillisecond)->UseRealTime();
  if (twin.timedOnce)
    b->Iterations(1);
  else
    b->MinTime(0.5);
}

bool RegisterTwins() {
  for (const Twin& twin : kTwins) {
    const std::string name = twin.workload;
    Configure(benchmark::RegisterBenchmark((name + "/kystore").c_str(), twin.kystore), twin);
    Configure(benchmark::RegisterBenchmark((name + "/sqlite").c_str(), twin.sqlite), twin);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = RegisterTwins();

}  // namespace
