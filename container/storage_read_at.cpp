// Reads at a file offset that leave every position alone: the handle's
// shared one and the in-memory image's.  They serve the reads the library
// makes on its own behalf while the caller's streams rely on the position.

#include <cstdint>
#include <cstring>

#include "kystore/storage.h"
#include "platform/win_file.h"

bool kyStorage::ReadAt(__int64 offset, void* buf, __int64 count) {
  if (offset < 0 || count < 0 || (buf == nullptr && count != 0)) return false;
  if (m_bInMemory) {
    if (offset > m_imageSize || count > m_imageSize - offset) return false;
    if (count > 0) memcpy(buf, m_pImage + offset, static_cast<size_t>(count));
    return true;
  }
  const __int64 kMaxTransfer = 0x80000000LL;
  BYTE* out = static_cast<BYTE*>(buf);
  for (__int64 done = 0; done < count;) {
    const __int64 rest = count - done;
    const DWORD chunk = static_cast<DWORD>(rest < kMaxTransfer ? rest : kMaxTransfer);
    DWORD got = 0;
    if (offset > INT64_MAX - done) return false;
    if (!ReadFileAt(m_hFile, offset + done, out + done, chunk, &got) || got != chunk) return false;
    done += chunk;
  }
  return true;
}
