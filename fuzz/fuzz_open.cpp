// Feeds arbitrary bytes to the storage reader and writers: the input is
// written to a file, opened every way a storage can be opened (from disk,
// loaded into memory, fast), and then every root stream is opened and read
// and every folder is walked to the bottom.  Then the file is opened for
// writing, and every stream it reaches is appended to, overwritten, erased
// and written again, every folder gets new children, and some streams are
// renamed or removed; what the writers leave is read once more.  The
// integrity check runs over the input and over what the writers left.  Nothing
// may crash, hang or read out of bounds, whatever the bytes.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kystore.h"

namespace {

const int kMaxDepth = 12;
const int kMaxChildren = 200;
const long long kMaxReadPerStream = 1 << 20;
// The writing pass visits fewer streams: each visit writes several times.
const int kMaxWriteDepth = 4;
const int kMaxWriteChildren = 16;
const int kMaxWriteVisits = 300;
const char kPayload[] = "written over a damaged storage";
const long long kPayloadSize = sizeof(kPayload) - 1;

std::string InputPath() {
  char buf[64];
  snprintf(buf, sizeof(buf), "/tmp/kystore-fuzz-open-%d.kys", static_cast<int>(getpid()));
  return buf;
}

// A walk's bound: past it the object in hand goes back and the walk stops.
bool Within(kyStream* s, int seen, int bound) {
  if (seen < bound) return true;
  s->Release();
  return false;
}

void ReadWhole(kyStream* s) {
  static std::vector<char> buf(64 * 1024);
  if (s->Seek(0, 0, true) != 0) return;
  for (long long total = 0; total < kMaxReadPerStream;) {
    long long n = s->Read(buf.data(), static_cast<long long>(buf.size()));
    if (n <= 0) break;
    total += n;
  }
  s->Seek(0, 1, true);
  s->Seek(3, 2, false);
  s->Seek2(-2, 0);
  long long len = 0;
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
  long long cursor = 0;
  int seen = 0;
  for (kyStream* c = s->OpenStreamFirst(&cursor, 0x12);
       c != nullptr && Within(c, seen, kMaxChildren);
       c = s->OpenStreamNext(&cursor, 0x12), ++seen) {
    Explore(c, depth + 1);
    c->Release();
  }
  CStringArray names;
  s->EnumStreams(names);
  s->PreloadChildren();
  void* pos = nullptr;
  seen = 0;
  for (kyStream* c = s->OpenPreloadChildrenFirst(&pos, 0x12);
       c != nullptr && Within(c, seen, kMaxChildren);
       c = s->OpenPreloadChildrenNext(&pos, 0x12), ++seen) {
    ReadWhole(c);
    c->Release();
  }
}

void ExploreMapped(kyStorage* st) {
  int cursor = 0;
  int seen = 0;
  for (kyStream* s = st->OpenStreamFirst2(cursor, 0x12);
       s != nullptr && Within(s, seen, kMaxChildren);
       s = st->OpenStreamNext2(cursor, 0x12), ++seen) {
    Explore(s, 0);
    s->Release();
  }
  st->EnableSorting(1, 0);
  void* pos = nullptr;
  seen = 0;
  for (kyStream* s = st->OpenStreamFirst(pos, 0x12); s != nullptr && Within(s, seen, kMaxChildren);
       s = st->OpenStreamNext(pos, 0x12), ++seen) {
    ReadWhole(s);
    s->Release();
  }
  CIterateSortedStreams it;
  for (seen = 0; seen < kMaxChildren && st->IterateSortedStreamsNoOPENS(&it); ++seen) {
  }
  st->GetSubfolderCount("a");
  st->EnableSorting(0, 0);
  if (kyStream* s = st->FindRootStream("")) s->Release();
  if (kyStream* s = st->FindRootStorage("")) s->Release();
}

void ExploreFast(kyStorage* st) {
  kyStream* s = st->OpenStreamFirst(0x12);
  for (int seen = 0; s != nullptr && seen < kMaxChildren; ++seen) {
    Explore(s, 0);
    if (!s->GoNext()) break;
  }
  if (s) s->Release();
}

// Every writer once on `s`: appends, an overwrite at the start, an erase
// followed by a write that ends the stream, a shortened length and a size
// prefix; a folder gets a new data child and a new folder child.
void WriteInto(kyStream* s) {
  if (s->IsFolder()) {
    if (kyStream* c = s->CreateStream("fuzz-data", 0, 0x16, 1)) {
      c->Write(kPayload, kPayloadSize);
      c->Release();
    }
    if (kyStream* c = s->OpenOrCreateStream("fuzz-folder", 1, 0x16)) c->Release();
    return;
  }
  s->Seek(0, 1, true);
  s->Write(kPayload, kPayloadSize);
  s->Seek(0, 0, true);
  s->Write(kPayload, 5, false);
  s->Seek(3, 1, true);
  s->Write(kPayload, kPayloadSize, true);
  s->Erase();
  s->Write(kPayload, kPayloadSize, true);
  s->SetLength(kPayloadSize / 2);
  s->Seek(0, 0, true);
  s->PrependSize(7);
  s->Write(kPayload, 7);
}

// Writes into `s` and, for a folder, into its children; the second child
// is renamed and the third removed.  `visits` bounds the whole pass.
void WriteTree(kyStream* s, int depth, int& visits) {
  if (++visits > kMaxWriteVisits) return;
  WriteInto(s);
  if (!s->IsFolder() || depth >= kMaxWriteDepth) return;
  long long cursor = 0;
  int seen = 0;
  for (kyStream* c = s->OpenStreamFirst(&cursor, 0x16);
       c != nullptr && Within(c, seen, kMaxWriteChildren);
       c = s->OpenStreamNext(&cursor, 0x16), ++seen) {
    WriteTree(c, depth + 1, visits);
    if (seen == 1) c->Rename("fuzz-renamed");
    if (seen == 2 && c->Remove()) continue;
    c->Release();
  }
  s->ClearFolder();
}

// Copies out of the damaged tree into new streams: the first root folder
// with everything below it, and the first root data stream.
void CopyOut(kyStorage* st) {
  if (kyStream* src = st->FindRootStorage("")) {
    if (kyStream* dst = st->CreateStream("fuzz-copy", 1, 0x16)) {
      src->CopyFolder(dst);
      dst->Release();
    }
    src->Release();
  }
  if (kyStream* src = st->FindRootStream("")) {
    if (kyStream* dst = st->CreateStream("fuzz-copy-data", 0, 0x16)) {
      src->CopyStream(dst);
      dst->Release();
    }
    src->Release();
  }
}

void WriteMapped(kyStorage* st) {
  int visits = 0;
  CopyOut(st);
  if (kyStream* c = st->CreateStream("fuzz-root", 1, 0x16)) c->Release();
  if (kyStream* c = st->OpenOrCreateStreamFast("fuzz-fast", 1)) {
    c->Write(kPayload, kPayloadSize);
    c->Release();
  }
  int cursor = 0;
  int seen = 0;
  for (kyStream* s = st->OpenStreamFirst2(cursor, 0x16);
       s != nullptr && Within(s, seen, kMaxWriteChildren);
       s = st->OpenStreamNext2(cursor, 0x16), ++seen) {
    WriteTree(s, 0, visits);
    if (seen == 1) s->Rename("fuzz-renamed-root");
    if (seen == 2 && s->Remove()) continue;
    s->Release();
  }
}

void WriteFast(kyStorage* st) {
  int visits = 0;
  kyStream* s = st->OpenStreamFirst(0x16);
  for (int seen = 0; s != nullptr && seen < kMaxWriteChildren; ++seen) {
    WriteTree(s, 0, visits);
    if (!s->GoNext()) break;
  }
  if (s) s->Release();
  if (kyStream* c = st->CreateStreamFast("fuzz-fast-2", 0, 0x16)) {
    c->Write(kPayload, kPayloadSize);
    c->Release();
  }
}

// Whatever the damage, no writer may touch the storage's own header (32
// bytes, or 26 in the older layout): every write belongs in a block, a
// stream header or a directory link.
void CheckHeaderKept(const std::string& path, const uint8_t* data, size_t size) {
  size_t n = size > 24 && data[24] == '_' ? 26 : 32;
  if (n > size) n = size;
  unsigned char now[32];
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) __builtin_trap();
  const size_t got = fread(now, 1, n, f);
  fclose(f);
  if (got != n || memcmp(now, data, n) != 0) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = InputPath();
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return 0;
  fwrite(data, 1, size, f);
  fclose(f);

  // The integrity check reads every damaged image, before and after the
  // writers, and must end on each.
  kyCheckReport report;
  kyCheckStorage(path.c_str(), &report);
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

  // Writers on the damaged file, with a small block size so that chains
  // grow; then the file as the writers left it is read again.
  if (kyStorage* st = kyStorage::OpenFast(path.c_str(), 0x16, 16)) {
    WriteFast(st);
    st->Release();
  }
  if (kyStorage* st = kyStorage::Open(path.c_str(), 0x16, 16, 0)) {
    WriteMapped(st);
    st->Release();
  }
  CheckHeaderKept(path, data, size);
  kyCheckStorage(path.c_str(), &report);
  if (kyStorage* st = kyStorage::Open(path.c_str(), 0x12, 4096, 0)) {
    ExploreMapped(st);
    st->Release();
  }
  unlink(path.c_str());
  return 0;
}
