// Feeds arbitrary bytes to the recording reader: the input is attached to a
// recorder and read record by record with PopOp until it returns 0, once
// without and once with exceptions switched on.  Nothing may crash, read out
// of bounds or let the "Read error" exception escape; every record that is
// read must lie inside the input and must come out the same when written
// again and read back.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kystore.h"
#include "../tests/support/test_access.h"

namespace {

struct Record {
  RecOpEnum op;
  char name[61];
  unsigned char* data;
  DWORD n;
};

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

// Writes `rec` into a fresh recorder and reads it back: the reader must give
// the same record.
void CheckRoundTrip(const Record& rec) {
  CCompRecorder again;
  const char* name = rec.name;
  bool hasData = rec.op == RecOpWrite || rec.op == RecOpAppend;
  kyTestAccess::PushOp(&again, rec.op, name, hasData ? rec.data : nullptr, rec.n);
  Check(!again.HasBeenStopped());
  again.SeekToBegin();
  Record back;
  back.data = nullptr;
  Check(again.PopOp(&back.op, back.name, &back.data, &back.n) == 1);
  Check(back.op == rec.op && strcmp(back.name, rec.name) == 0);
  if (rec.op != RecOpLeave && rec.op != RecOpRemove) Check(back.n == rec.n);
  if (hasData && rec.n != 0) Check(memcmp(back.data, rec.data, rec.n) == 0);
  Check(again.GetBufferPos() == again.GetDataLength());
}

void ReadAll(unsigned char* buf, unsigned int size, int bThrow) {
  CCompRecorder rec;
  rec.Attach(buf, size, 0);
  rec.ThrowExceptions(bThrow);
  Record r;
  // Every record takes at least one byte, so the loop ends by itself; the
  // bound only guards against a reader that stops moving.
  for (unsigned int i = 0; i <= size; ++i) {
    unsigned int before = rec.GetBufferPos();
    r.data = nullptr;
    int ok;
    try {
      ok = rec.PopOp(&r.op, r.name, &r.data, &r.n);
    } catch (...) {
      __builtin_trap();  // the exception must never leave PopOp
    }
    if (!ok) break;
    Check(rec.GetBufferPos() > before && rec.GetBufferPos() <= size);
    Check(strlen(r.name) <= 60);
    if (r.op == RecOpWrite || r.op == RecOpAppend) {
      Check(r.data >= buf && r.data + r.n <= buf + size);
      Check(r.data + r.n == buf + rec.GetBufferPos());
    }
    CheckRoundTrip(r);
  }
  Check(rec.Detach(nullptr) == buf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 0xFFFFFFFFu) return 0;
  // A heap copy of exactly the input's size, so that any read past its end
  // is caught.
  unsigned char* buf = static_cast<unsigned char*>(malloc(size ? size : 1));
  if (buf == nullptr) return 0;
  if (size) memcpy(buf, data, size);
  unsigned int n = static_cast<unsigned int>(size);
  ReadAll(buf, n, 0);
  ReadAll(buf, n, 1);
  free(buf);
  return 0;
}
