// Moving a stream's cursor along its block chain.
//
// Forward moves walk the chain from the cursor or from the first block;
// backward moves stay inside the current block or start again at the first
// block, since nothing ever follows the backward links.  A failed seek puts
// the cursor, the cached block header and the file position back as they
// were.

#include <cstdint>

#include "kystore/stream.h"
#include "platform/win_file.h"

namespace {

// The cursor as it was before a seek, put back when the seek fails.
class CursorSnapshot {
 public:
  CursorSnapshot(__int64& curBlock, __int64& blockPos, __int64& dataPos, DataBlock& blockHdr)
      : m_curBlock(curBlock),
        m_blockPos(blockPos),
        m_dataPos(dataPos),
        m_blockHdr(blockHdr),
        m_savedCurBlock(curBlock),
        m_savedBlockPos(blockPos),
        m_savedDataPos(dataPos),
        m_savedBlockHdr(blockHdr) {}

  // Puts the cursor back.  Returns the file offset under it, or 0 when it
  // stood before its block's header (no file position to restore then).
  __int64 Restore() {
    m_curBlock = m_savedCurBlock;
    m_blockPos = m_savedBlockPos;
    m_dataPos = m_savedDataPos;
    m_blockHdr = m_savedBlockHdr;
    return m_blockPos != 0 ? m_curBlock + m_blockPos : 0;
  }

 private:
  __int64& m_curBlock;
  __int64& m_blockPos;
  __int64& m_dataPos;
  DataBlock& m_blockHdr;
  const __int64 m_savedCurBlock;
  const __int64 m_savedBlockPos;
  const __int64 m_savedDataPos;
  const DataBlock m_savedBlockHdr;
};

}  // namespace

__int64 kyStream::SeekRight(__int64 distance, bool bFromStart) {
  if (distance < 0) return -1;
  CursorSnapshot saved(m_iCurBlock, m_iBlockPos, m_iDataPos, m_blockHdr);
  auto fail = [&]() -> __int64 {
    const __int64 at = saved.Restore();
    if (at != 0) SetFilePointer(m_hFile, at, FILE_BEGIN);
    return -1;
  };
  const bool b64 = W64();
  if (bFromStart) {
    m_iCurBlock = m_hdr.FirstBlock(b64);
    m_iBlockPos = 0;
    m_iDataPos = 0;
  }
  for (;;) {
    if (m_iBlockPos == 0 && !LoadBlock(m_iCurBlock)) return fail();
    __int64 step = m_blockHdr.UsedEnd(b64) - m_iBlockPos;
    if (step < 0) step = 0;
    if (step > distance) step = distance;
    if (SetFilePointer(m_hFile, step, FILE_CURRENT) == -1) return fail();
    m_iBlockPos += step;
    m_iDataPos += step;
    distance -= step;
    if (distance == 0) return 0;
    const __int64 next = NextBlockLink();
    // At the end of the chain the target lies beyond the data.
    if (next <= 0) return fail();
    m_iCurBlock = next;
    m_iBlockPos = 0;
  }
}

__int64 kyStream::SeekLeft(__int64 distance, bool bFromEnd) {
  if (distance < 0) return -1;
  CursorSnapshot saved(m_iCurBlock, m_iBlockPos, m_iDataPos, m_blockHdr);
  auto fail = [&]() -> __int64 {
    const __int64 at = saved.Restore();
    if (at != 0) SetFilePointer(m_hFile, at, FILE_BEGIN);
    return -1;
  };
  const bool b64 = W64();
  const __int64 h = BlockHeaderSize();
  if (bFromEnd) {
    // The end is the recorded length; a damaged one gives no position.
    if (!LengthUsable()) return fail();
    // A stream that never recorded its last block ends in its first.
    if (m_hdr.LastBlock(b64) == 0) m_hdr.SetLastBlock(b64, m_hdr.FirstBlock(b64));
    const __int64 last = m_hdr.LastBlock(b64);
    if (!LoadBlock(last)) return fail();
    const __int64 usedEnd = m_blockHdr.UsedEnd(b64);
    if (usedEnd > h && SetFilePointer(m_hFile, usedEnd - h, FILE_CURRENT) == -1) return fail();
    m_iCurBlock = last;
    m_iBlockPos = usedEnd > h ? usedEnd : h;
    m_iDataPos = GetLength();
  }
  if (distance == 0) return 0;

  __int64 result;
  if (m_iBlockPos <= h) {
    // Nothing of this block lies before the cursor: walk from the start.  A
    // target before the start is the start.
    result = SeekRight(distance >= m_iDataPos ? 0 : m_iDataPos - distance, true);
  } else {
    __int64 back = m_iBlockPos - h;
    if (back > distance) back = distance;
    m_iBlockPos -= back;
    m_iDataPos -= back;
    distance -= back;
    if (distance == 0) {
      result = SetFilePointer(m_hFile, m_iCurBlock + m_iBlockPos, FILE_BEGIN) == -1 ? -1 : 0;
    } else {
      result = SeekRight(distance >= m_iDataPos ? 0 : m_iDataPos - distance, true);
    }
  }
  return result == -1 ? fail() : result;
}

__int64 kyStream::Seek(__int64 distance, unsigned char origin, bool bForward) {
  if (distance < 0) return -1;
  switch (origin) {
    case 0:
      return SeekRight(distance, true);
    case 1:
      return SeekLeft(distance, true);
    case 2:
      return bForward ? SeekRight(distance, false) : SeekLeft(distance, false);
    default:
      return -1;
  }
}

__int64 kyStream::Seek2(__int64 offset, UINT from) {
  // The most negative offset has no positive counterpart; it means "as far
  // back as can be", which the backward seek takes as the start anyway.
  const __int64 back = offset == INT64_MIN ? INT64_MAX : -offset;
  switch (from) {
    case 0:
      return offset >= 0 ? SeekRight(offset, true) : SeekLeft(back, true);
    case 1:
      return offset >= 0 ? SeekRight(offset, false) : SeekLeft(back, false);
    default:
      return SeekRight(0, true);
  }
}
