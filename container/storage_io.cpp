// Positioned reads of the storage's own file (or its in-memory image), and
// the helpers that bound every walk along the root directory chain.

#include <cstring>

#include "kystore/storage.h"
#include "platform/win_file.h"

namespace {
const int64_t kMaxTransfer = 0x80000000LL;  // most bytes per platform call
}

bool kyStorage::CanRead() const {
  return m_hFile != INVALID_HANDLE_VALUE || m_bInMemory;
}

int64_t kyStorage::SetFilePointer(HANDLE hFile, int64_t distance, DWORD method) {
  if (!m_bInMemory) {
    LARGE_INTEGER d, pos;
    d.QuadPart = distance;
    return SetFilePointerEx(hFile, d, &pos, method) ? pos.QuadPart : -1;
  }
  int64_t target;
  switch (method) {
    case FILE_BEGIN:
      target = distance;
      break;
    case FILE_CURRENT:
      target = m_memPos + distance;
      break;
    case FILE_END:
      m_memPos = m_imageSize;
      return m_memPos;
    default:
      return m_memPos;
  }
  // The end of the image itself is reachable only from the end.
  if (target < 0 || target >= m_imageSize) return -1;
  m_memPos = target;
  return m_memPos;
}

BOOL kyStorage::ReadFile(HANDLE hFile, void* buf, int64_t count, int64_t* pRead,
                         OVERLAPPED* overlapped) {
  BYTE* out = static_cast<BYTE*>(buf);
  if (m_bInMemory) {
    int64_t n = count < m_imageSize - m_memPos ? count : m_imageSize - m_memPos;
    if (n < 0) n = 0;
    if (n > 0) memcpy(out, m_pImage + m_memPos, static_cast<size_t>(n));
    m_memPos += n;
    if (pRead) *pRead = n;
    return TRUE;
  }
  if (count <= 0) {
    if (pRead) *pRead = count;
    return TRUE;
  }
  for (int64_t done = 0; done < count;) {
    DWORD chunk = static_cast<DWORD>(count - done < kMaxTransfer ? count - done : kMaxTransfer);
    DWORD got = 0;
    if (!::ReadFile(hFile, out + done, chunk, &got, overlapped) || got != chunk) return FALSE;
    done += chunk;
  }
  if (pRead) *pRead = count;
  return TRUE;
}

bool kyStorage::WriteStreamHeader(int64_t offset, t_kyStreamU& header) {
  if (SetFilePointer(m_hFile, offset, FILE_BEGIN) == -1) return false;
  const DWORD width = static_cast<DWORD>(StreamHeaderSize(m_bUse64BitOffsets != 0));
  DWORD written = 0;
  return WriteFile(m_hFile, &header, width, &written, nullptr) && written == width;
}

int64_t kyStorage::CurrentFileSize() {
  if (m_bInMemory) return m_imageSize;
  LARGE_INTEGER size;
  return GetFileSizeEx(m_hFile, &size) ? size.QuadPart : -1;
}

int64_t kyStorage::FileSizeLimit() const {
  return m_bUse64BitOffsets ? g_iMaxTolvarSize : 4294967295LL;
}

bool kyStorage::ReadDirectoryBlock(int64_t offset, DirectoryBlock& block) {
  const int64_t size = DirectoryBlockSize(m_bUse64BitOffsets != 0);
  int64_t got = 0;
  if (offset <= 0 || SetFilePointer(m_hFile, offset, FILE_BEGIN) == -1) return false;
  if (!ReadFile(m_hFile, block.raw, size, &got, nullptr) || got != size) return false;
  return block.Magic() == kDirectoryBlockMagic;
}

int64_t kyStorage::MaxDirectoryBlocks() {
  int64_t size = CurrentFileSize();
  if (size <= m_rootOffset) return 1;
  return (size - m_rootOffset) / DirectoryBlockSize(m_bUse64BitOffsets != 0) + 1;
}
