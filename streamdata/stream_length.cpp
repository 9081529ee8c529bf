// Changing a stream's recorded length, and the optional size prefix at the
// start of its data.

#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

// The data of a stream lie in the file, so no sound length exceeds the
// file's size.  Without a storage there is no length to trust.
bool kyStream::LengthUsable() {
  const __int64 length = GetLength();
  return length >= 0 && m_pStorage != nullptr && m_pStorage->FileHolds(0, length);
}

// Only the header changes: the blocks keep their data and their links, and
// the bytes past the new length stay readable.
bool kyStream::SetLength(__int64 newLength) {
  if (!(m_dwOpenMode & kModeWrite)) return false;
  // A negative length has no meaning on disk (with 32-bit offsets it would
  // become a huge one); it is refused like a longer one.  A damaged length
  // cannot be lowered from: Erase starts the stream over.
  if (!LengthUsable() || newLength < 0 || newLength > GetLength()) return false;
  Seek(0, 0, true);
  m_hdr.SetLength(W64(), newLength);
  const bool written = WriteHeaderBack();
  // The header write moved the shared position away from the cursor, which
  // now stands at the start; put it back under the cursor so that the next
  // Read or Write needs no seek of its own (as after Erase).
  if (m_iBlockPos != 0) SetFilePointer(m_hFile, m_iCurBlock + m_iBlockPos, FILE_BEGIN);
  return written;
}

// The blocks stay allocated and linked; the next write starts over at the
// first block.
bool kyStream::Erase() {
  if (!(m_dwOpenMode & kModeWrite)) return false;
  m_hdr.SetLength(W64(), 0);
  const bool written = WriteHeaderBack();
  Seek(0, 0, true);
  return written;
}

BOOL kyStream::PrependSize(DWORD size) {
  // The write below refuses a damaged length; refuse before the mark.
  if (!LengthUsable()) return FALSE;
  if (!(m_hdr.Flags() & kSizePrefixFlag)) {
    // Mark the header first, in memory and on disk; the file position is
    // put back for the write of the prefix at the cursor.
    const __int64 resume = SetFilePointer(m_hFile, 0, FILE_CURRENT);
    if (SetFilePointer(m_hFile, m_offset.headerOffset + kHeaderFlagsOffset, FILE_BEGIN) == -1)
      return FALSE;
    m_hdr.Flags() |= kSizePrefixFlag;
    DWORD written = 0;
    const bool marked = WriteFile(m_hFile, &m_hdr.Flags(), 1, &written, nullptr) && written == 1;
    // Also after a failed mark the position goes back under the cursor, so
    // that the stream stays usable without a fresh seek.
    SetFilePointer(m_hFile, resume, FILE_BEGIN);
    if (!marked) {
      m_hdr.Flags() &= static_cast<BYTE>(~kSizePrefixFlag);
      return FALSE;
    }
  }
  return Write(&size, sizeof(size), true, nullptr) == -1 ? FALSE : TRUE;
}

// A damaged length reports 0, so that no caller sizes anything by it.
BOOL kyStream::GetVerifiedDataLength(__int64& len) {
  len = 0;
  if (!LengthUsable()) return FALSE;
  len = GetLength();
  if (len <= 0 || !(m_hdr.Flags() & kSizePrefixFlag)) return TRUE;
  DWORD prefix = 0;
  if (Read(&prefix, sizeof(prefix)) != sizeof(prefix) || len <= 4) return FALSE;
  len -= 4;
  return len == static_cast<__int64>(prefix) ? TRUE : FALSE;
}
