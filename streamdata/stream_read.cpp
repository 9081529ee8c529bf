// Reading a stream's data along its block chain.

#include "kystore/stream.h"

// Reads block by block from the cursor.  The blocks' own ends decide what
// the data are; the recorded length is not consulted.
__int64 kyStream::Read(void* buf, __int64 count) {
  if (m_iCurBlock == 0 || count <= 0) return 0;
  // No place to put the bytes: a failure, not a crash.
  if (buf == nullptr) return -1;
  const bool b64 = W64();
  BYTE* out = static_cast<BYTE*>(buf);
  __int64 total = 0;
  for (;;) {
    if (m_iBlockPos == 0 && !LoadBlock(m_iCurBlock)) return -1;
    const __int64 avail = m_blockHdr.UsedEnd(b64) - m_iBlockPos;
    __int64 n = count - total;
    if (n > avail) n = avail > 0 ? avail : 0;
    if (n > 0) {
      __int64 got = 0;
      if (!ReadFile(m_hFile, out + total, n, &got, nullptr) || got != n) return -1;
    }
    total += n;
    m_iBlockPos += n;
    m_iDataPos += n;
    if (total == count) return total;
    const __int64 next = NextBlockLink();
    if (next == 0) return total;
    if (next < 0) return -1;
    m_iCurBlock = next;
    m_iBlockPos = 0;
  }
}
