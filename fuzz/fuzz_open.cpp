// Feeds arbitrary bytes to the storage reader: the input is written to a
// file, opened every way a storage can be opened (from disk, loaded into
// memory, fast), and then every root stream is opened and read and every
// folder is walked to the bottom.  Nothing may crash, hang or read out of
// bounds, whatever the bytes.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kystore.h"

namespace {

const int kMaxDepth = 12;
const int kMaxChildren = 200;
const int64_t kMaxReadPerStream = 1 << 20;

std::string InputPath() {
  char buf[64];
  snprintf(buf, sizeof(buf), "/tmp/kystore-fuzz-open-%d.kys", static_cast<int>(getpid()));
  return buf;
}

void ReadWhole(kyStream* s) {
  static std::vector<char> buf(64 * 1024);
  if (s->Seek(0, 0, true) != 0) return;
  for (int64_t total = 0; total < kMaxReadPerStream;) {
    int64_t n = s->Read(buf.data(), static_cast<int64_t>(buf.size()));
    if (n <= 0) break;
    total += n;
  }
  s->Seek(0, 1, true);
  s->Seek(3, 2, false);
  s->Seek2(-2, 0);
  int64_t len = 0;
  s->Seek(0, 0, true);
  s->GetVerifiedDataLength(len);
  BYTE* copy = nullptr;
  s->Seek(0, 0, true);
  if (s->GetLength() <= kMaxReadPerStream) {
    s->CopyStreamToBuffer(copy, FALSE);
    s->FreeBuffer(copy);
  }
}

void Explore(kyStream* s, int depth) {
  ReadWhole(s);
  if (!s->IsFolder() || depth >= kMaxDepth) return;
  int64_t cursor = 0;
  int seen = 0;
  for (kyStream* c = s->OpenStreamFirst(&cursor, 0x12); c != nullptr && seen < kMaxChildren;
       c = s->OpenStreamNext(&cursor, 0x12), ++seen) {
    Explore(c, depth + 1);
    c->Release();
  }
  CStringArray names;
  s->EnumStreams(names);
  s->PreloadChildren();
  void* pos = nullptr;
  seen = 0;
  for (kyStream* c = s->OpenPreloadChildrenFirst(&pos, 0x12); c != nullptr && seen < kMaxChildren;
       c = s->OpenPreloadChildrenNext(&pos, 0x12), ++seen) {
    ReadWhole(c);
    c->Release();
  }
}

void ExploreMapped(kyStorage* st) {
  int cursor = 0;
  int seen = 0;
  for (kyStream* s = st->OpenStreamFirst2(cursor, 0x12); s != nullptr && seen < kMaxChildren;
       s = st->OpenStreamNext2(cursor, 0x12), ++seen) {
    Explore(s, 0);
    s->Release();
  }
  st->EnableSorting(1, 0);
  void* pos = nullptr;
  seen = 0;
  for (kyStream* s = st->OpenStreamFirst(pos, 0x12); s != nullptr && seen < kMaxChildren;
       s = st->OpenStreamNext(pos, 0x12), ++seen) {
    ReadWhole(s);
    s->Release();
  }
  CIterateSortedStreams it;
  for (seen = 0; seen < kMaxChildren && st->IterateSortedStreamsNoOPENS(&it); ++seen) {
  }
  st->GetSubfolderCount("a");
}

void ExploreFast(kyStorage* st) {
  kyStream* s = st->OpenStreamFirst(0x12);
  for (int seen = 0; s != nullptr && seen < kMaxChildren; ++seen) {
    Explore(s, 0);
    if (!s->GoNext()) break;
  }
  if (s) s->Release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = InputPath();
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return 0;
  fwrite(data, 1, size, f);
  fclose(f);

  for (int load = 0; load <= 1; ++load) {
    if (kyStorage* st = kyStorage::Open(path.c_str(), 0x12, 4096, load)) {
      ExploreMapped(st);
      st->Release();
    }
  }
  if (kyStorage* st = kyStorage::OpenFast(path.c_str(), 0x12, 4096)) {
    ExploreFast(st);
    st->Release();
  }
  return 0;
}
