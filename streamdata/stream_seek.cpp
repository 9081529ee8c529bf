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
  CursorSnapshot(int64_t& curBlock, int64_t& blockPos, int64_t& dataPos, DataBlock& blockHdr)
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
  int64_t Restore() {
    m_curBlock = m_savedCurBlock;
    m_blockPos = m_savedBlockPos;
    m_dataPos = m_savedDataPos;
    m_blockHdr = m_savedBlockHdr;
    return m_blockPos != 0 ? m_curBlock + m_blockPos : 0;
  }

 private:
  int64_t& m_curBlock;
  int64_t& m_blockPos;
  int64_t& m_dataPos;
  DataBlock& m_blockHdr;
  const int64_t m_savedCurBlock;
  const int64_t m_savedBlockPos;
  const int64_t m_savedDataPos;
  const DataBlock m_savedBlockHdr;
};

}  // namespace

int64_t kyStream::SeekRight(int64_t distance, bool bFromStart) {
  if (distance < 0) return -1;
  CursorSnapshot saved(m_iCurBlock, m_iBlockPos, m_iDataPos, m_blockHdr);
  auto fail = [&]() -> int64_t {
    const int64_t at = saved.Restore();
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
    int64_t step = m_blockHdr.UsedEnd(b64) - m_iBlockPos;
    if (step < 0) step = 0;
    if (step > distance) step = distance;
    if (SetFilePointer(m_hFile, step, FILE_CURRENT) == -1) return fail();
    m_iBlockPos += step;
    m_iDataPos += step;
    distance -= step;
    if (distance == 0) return 0;
    const int64_t next = NextBlockLink();
    // At the end of the chain the target lies beyond the data.
    if (next <= 0) return fail();
    m_iCurBlock = next;
    m_iBlockPos = 0;
  }
}

int64_t kyStream::SeekLeft(int64_t distance, bool bFromEnd) {
  if (distance < 0) return -1;
  CursorSnapshot saved(m_iCurBlock, m_iBlockPos, m_iDataPos, m_blockHdr);
  auto fail = [&]() -> int64_t {
    const int64_t at = saved.Restore();
    if (at != 0) SetFilePointer(m_hFile, at, FILE_BEGIN);
    return -1;
  };
  const bool b64 = W64();
  const int64_t h = BlockHeaderSize();
  if (bFromEnd) {
    // The end is the recorded length; a damaged one gives no position.
    if (!LengthUsable()) return fail();
    // A stream that never recorded its last block ends in its first.
    if (m_hdr.LastBlock(b64) == 0) m_hdr.SetLastBlock(b64, m_hdr.FirstBlock(b64));
    const int64_t last = m_hdr.LastBlock(b64);
    if (!LoadBlock(last)) return fail();
    const int64_t usedEnd = m_blockHdr.UsedEnd(b64);
    if (usedEnd > h && SetFilePointer(m_hFile, usedEnd - h, FILE_CURRENT) == -1) return fail();
    m_iCurBlock = last;
    m_iBlockPos = usedEnd > h ? usedEnd : h;
    m_iDataPos = GetLength();
  }
  if (distance == 0) return 0;

  int64_t result;
  if (m_iBlockPos <= h) {
    // Nothing of this block lies before the cursor: walk from the start.  A
    // target before the start is the start.
    result = SeekRight(distance >= m_iDataPos ? 0 : m_iDataPos - distance, true);
  } else {
    int64_t back = m_iBlockPos - h;
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

int64_t kyStream::Seek(int64_t distance, unsigned char origin, bool bForward) {
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

int64_t kyStream::Seek2(int64_t offset, UINT from) {
  // The most negative offset has no positive counterpart; it means "as far
  // back as can be", which the backward seek takes as the start anyway.
  const int64_t back = offset == INT64_MIN ? INT64_MAX : -offset;
  switch (from) {
    case 0:
      return offset >= 0 ? SeekRight(offset, true) : SeekLeft(back, true);
    case 1:
      return offset >= 0 ? SeekRight(offset, false) : SeekLeft(back, false);
    default:
      return SeekRight(0, true);
  }
}
