// Takes its input as a recording and replays it into a fresh storage, then
// reads back everything the replay left.  The first byte picks the storage:
// bit 0 the offset width, bits 1 and 2 the data block size; the rest is the
// recording (the bytes CCompRecorder::Detach hands out).
//
// Checks: nothing crashes, hangs or reads out of bounds; the replay applies
// at most as many records as a reader finds complete ones and leaves the
// caller's buffer as it was; no stream stays open after the replay or after
// the walk; every stream reads to exactly its length; and the file, closed
// and opened again, holds the same tree.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kystore.h"
#include "../tests/support/test_access.h"

namespace {

const DWORD kBlockSizes[] = {0, 16, 100, 4096};
const int kMaxDepth = 40;  // deeper than any replay can nest

#define CHECK(cond)                                                             \
  do {                                                                          \
    if (!(cond)) {                                                              \
      fprintf(stderr, "fuzz_replay: failed at line %d: %s\n", __LINE__, #cond); \
      __builtin_trap();                                                         \
    }                                                                           \
  } while (0)

// Appends a description of `s` and everything below it to `out`: name,
// kind, length, bytes.  A data stream must read to exactly its length.
void Describe(kyStream* s, int depth, std::string* out) {
  CHECK(depth < kMaxDepth);
  out->append(depth, ' ');
  out->append(s->GetName());
  const long long len = s->GetLength();
  CHECK(len >= 0);
  char line[64];
  snprintf(line, sizeof(line), " %c %lld\n", s->IsFolder() ? 'F' : 'D', len);
  out->append(line);
  if (!s->IsFolder()) {
    if (len == 0) return;  // a stream without blocks refuses seeks
    CHECK(s->Seek(0, 0, true) == 0);
    // Exactly the length: an erasing write shortens the stream inside its
    // first blocks, and a read past the length goes on into the old bytes
    // of the blocks still linked behind.
    std::vector<char> buf(static_cast<size_t>(len));
    CHECK(s->Read(buf.data(), len) == len);
    out->append(buf.data(), static_cast<size_t>(len));
    out->push_back('\n');
    return;
  }
  __int64 cursor = 0;
  for (kyStream* c = s->OpenStreamFirst(&cursor, kModeReadShared); c != nullptr;
       c = s->OpenStreamNext(&cursor, kModeReadShared)) {
    Describe(c, depth + 1, out);
    CHECK(c->Release() == 1);
  }
  // No check that the walk reached the end: a recording may write into a
  // folder (the replay writes wherever the record stands), and a child
  // count overwritten that way ends the walk early, as any damage does.
  CHECK(kyTestAccess::Children(s).IsEmpty());
}

// Every root stream in directory order, each with all it holds.
std::string DescribeStorage(kyStorage* st) {
  std::string out;
  int cursor = -1;
  kyStream* s = st->OpenStreamFirst2(cursor, kModeReadShared);
  for (int i = 0; cursor == i; ++i) {
    CHECK(s != nullptr);  // every name on disk is in the map of a full open
    Describe(s, 0, &out);
    CHECK(s->Release() == 1);
    s = st->OpenStreamNext2(cursor, kModeReadShared);
  }
  CHECK(s == nullptr);
  CHECK(kyTestAccess::Registry(st).IsEmpty());
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 0x100000) return 0;
  const uint8_t setup = data[0];
  const DWORD len = static_cast<DWORD>(size - 1);
  // A heap copy of exactly the recording's size, so that any read past its
  // end is caught, and a second one to see that the replay changes nothing.
  unsigned char* buf = static_cast<unsigned char*>(malloc(len ? len : 1));
  CHECK(buf != nullptr);
  if (len) memcpy(buf, data + 1, len);

  char path[96];
  snprintf(path, sizeof(path), "/tmp/kystore-fuzz-replay-%d.kys", static_cast<int>(getpid()));
  kyStorage::g_bUse64BitOffsets = setup & 1;
  kyStorage* st = kyStorage::Create(path, kModeReadWriteShared, kBlockSizes[(setup >> 1) & 3]);
  kyStorage::g_bUse64BitOffsets = 1;
  CHECK(st != nullptr);

  const int applied = st->ReplayRecording(len ? buf : nullptr, len);
  CHECK(applied >= 0 && applied <= static_cast<int>(CountWholeRecords(buf, len, nullptr)));
  CHECK(len == 0 || memcmp(buf, data + 1, len) == 0);
  CHECK(kyTestAccess::Registry(st).IsEmpty());
  CHECK(kyTestAccess::Recorder(st) == nullptr);

  const std::string before = DescribeStorage(st);
  st->Release();
  st = kyStorage::Open(path, kModeReadShared, 4096, 0);
  CHECK(st != nullptr);
  CHECK(DescribeStorage(st) == before);
  st->Release();
  unlink(path);
  free(buf);
  return 0;
}
