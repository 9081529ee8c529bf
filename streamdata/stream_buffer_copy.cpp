// Copying a stream's data into a global-memory buffer for the caller.

#include "kystore/stream.h"
#include "platform/global_mem.h"

namespace {
// Most bytes one copy hands out.
const __int64 kTransferCap = 0x3F000000LL;
}  // namespace

// A damaged length copies nothing: no buffer is sized by a length the file
// cannot hold.
DWORD kyStream::CopyStreamToBuffer(BYTE*& buf, BOOL bSkipPrefix) {
  buf = nullptr;
  if (!LengthUsable()) return 0;
  __int64 len = GetLength();
  if (bSkipPrefix) {
    // The prefix skipped is an offset's width: 8 bytes with 64-bit offsets.
    BYTE prefix[8];
    const __int64 width = W64() ? 8 : 4;
    len -= width;
    Read(prefix, width);
  }
  if (len <= 0) return 0;
  const __int64 size = len < kTransferCap ? len : kTransferCap;
  BYTE* copy = static_cast<BYTE*>(GlobalAlloc(GPTR, static_cast<SIZE_T>(size)));
  if (copy == nullptr) return 0;
  if (Read(copy, size) != size) {
    GlobalFree(copy);
    return 0;
  }
  buf = copy;
  return static_cast<DWORD>(size);
}

void kyStream::FreeBuffer(BYTE*& buf) {
  if (buf == nullptr) return;
  GlobalFree(buf);
  buf = nullptr;
}
