// Writing a stream's data along its block chain.
//
// A write goes in passes, one block at a time.  Each pass fills the room of
// the current block (or, for the block that ends the file, grows it in
// place), appends and links a new block when the chain ends before the data
// do, and then brings the block header and the stream header up to date, so
// that the file is consistent after every pass.

#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

namespace {

const __int64 kMaxPass = 0x80000000LL;  // most bytes one platform write moves

bool WriteExactly(HANDLE hFile, const void* buf, __int64 count) {
  DWORD written = 0;
  return WriteFile(hFile, buf, static_cast<DWORD>(count), &written, nullptr) &&
         written == static_cast<DWORD>(count);
}

}  // namespace

__int64 kyStream::Write(const void* buf, __int64 count, bool bEraseOld, __int64* pFileOffset) {
  // A storage held in memory has no file to write to.
  if (StorageInMemory()) return 0;
  if (m_pStorage == nullptr) return -1;
  // Bytes written into a folder's data by anything but its own slot
  // bookkeeping may change its slots behind its index.
  if (!m_bWritingSlots && HoldsChildren()) ForgetFolderIndex();
  // A damaged length could end the stream anywhere; writing is refused
  // before anything is written, and Erase makes the stream usable again.
  if (!LengthUsable()) return -1;
  if (m_iCurBlock == 0) {
    m_iCurBlock = AllocateFirstBlock();
    if (m_iCurBlock == 0) return -1;
  }
  if (count <= 0) return 0;

  const bool b64 = W64();
  const __int64 h = BlockHeaderSize();
  const BYTE* in = static_cast<const BYTE*>(buf);
  __int64 written = 0;
  __int64 visited = 0;  // the last block of this call whose header was in hand
  bool offsetReported = false;

  // Writes back the block header when its data grew, a block was appended
  // or the write ends the stream; then the stream's length and last block
  // when the stream grew or ends here; then puts the file position back
  // under the cursor.
  auto updateHeaders = [&](__int64 appended) -> bool {
    if (appended != 0 || bEraseOld || m_iBlockPos > m_blockHdr.UsedEnd(b64)) {
      if (SetFilePointer(m_hFile, m_iCurBlock, FILE_BEGIN) == -1) return false;
      m_blockHdr.SetUsedEnd(b64, m_iBlockPos);
      if (m_iBlockPos > m_blockHdr.AllocEnd(b64)) m_blockHdr.SetAllocEnd(b64, m_iBlockPos);
      if (!WriteExactly(m_hFile, m_blockHdr.raw, h)) return false;
    }
    if (bEraseOld || m_iDataPos > GetLength()) {
      if (SetFilePointer(m_hFile, m_offset.headerOffset + kHeaderLengthOffset, FILE_BEGIN) == -1)
        return false;
      m_hdr.SetLength(b64, m_iDataPos);
      m_hdr.SetLastBlock(b64, appended != 0 ? appended : m_iCurBlock);
      if (!WriteExactly(m_hFile, m_hdr.raw + kHeaderLengthOffset, b64 ? 16 : 8)) return false;
    }
    return SetFilePointer(m_hFile, m_iCurBlock + m_iBlockPos, FILE_BEGIN) != -1;
  };

  // The next block of the chain cannot be read, or the link to it is
  // refused: go back to the block we came from, cut its link and carry on at
  // the end of its data, so that a fresh block takes the damaged one's
  // place.  A block refused before any other was in hand fails the write.
  auto cutDamagedLink = [&]() -> bool {
    if (visited == 0) return false;
    m_iCurBlock = visited;
    if (!LoadBlock(visited)) return false;
    m_blockHdr.SetNextBlock(b64, 0);
    if (SetFilePointer(m_hFile, visited, FILE_BEGIN) == -1) return false;
    if (!WriteExactly(m_hFile, m_blockHdr.raw, h)) return false;
    m_iBlockPos = m_blockHdr.UsedEnd(b64);
    return SetFilePointer(m_hFile, visited + m_iBlockPos, FILE_BEGIN) != -1;
  };

  for (;;) {
    if (m_iBlockPos == 0 && !LoadBlock(m_iCurBlock) && !cutDamagedLink()) return -1;
    visited = m_iCurBlock;

    // Size of this pass.
    const __int64 rest = count - written;
    const __int64 m = rest < kMaxPass ? rest : kMaxPass;
    __int64 n;
    // The block this object appended last ends the file, unless another
    // object over the same file has linked a block behind it since: growing
    // it then would overwrite that block.
    if (m_iCurBlock == m_pStorage->m_lastAppended && m_blockHdr.NextBlock(b64) == 0) {
      // The block ends the file and grows in place, up to the file limit.
      const __int64 limit = m_pStorage->FileSizeLimit();
      const __int64 at = m_iCurBlock + m_iBlockPos;
      n = m;
      if (m > limit - at) {
        if (at >= limit) return written;
        n = limit - at;
      }
    } else {
      // The room left in the block; never write backwards.
      __int64 room = m_blockHdr.AllocEnd(b64) - m_iBlockPos;
      if (room < 0) room = 0;
      n = m < room ? m : room;
    }
    const __int64 maxStream = kyStorage::g_iMaxCompStmSize;
    if (m_iDataPos >= maxStream) return written;
    if (n > maxStream - m_iDataPos) n = maxStream - m_iDataPos;

    if (n != 0 && pFileOffset != nullptr && !offsetReported) {
      const __int64 at = SetFilePointer(m_hFile, 0, FILE_CURRENT);
      *pFileOffset = at == -1 ? 0 : at;
      offsetReported = true;
    }
    DWORD done = 0;
    if (!WriteFile(m_hFile, in + written, static_cast<DWORD>(n), &done, nullptr)) return -1;
    m_pStorage->FileReached(m_iCurBlock + m_iBlockPos + done);
    written += done;
    m_iBlockPos += done;
    m_iDataPos += done;

    const bool more = written < count;
    __int64 appended = 0;
    if (more && m_blockHdr.NextBlock(b64) == 0) {
      appended = AllocateNextBlock(m_iCurBlock);
      // No room for another block: what was written stays, with its
      // headers up to date.
      if (appended == 0) return updateHeaders(0) ? written : -1;
      m_blockHdr.SetNextBlock(b64, appended);
    }
    if (!updateHeaders(appended)) return -1;
    if (!more) return written;
    const __int64 next = NextBlockLink();
    if (next > 0) {
      m_iCurBlock = next;
      m_iBlockPos = 0;
    } else if (!cutDamagedLink()) {
      return -1;
    }
  }
}
