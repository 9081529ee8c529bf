// Positioned reads of the storage's own file (or its in-memory image), the
// file size that walks check against, and the one step of every walk along
// the root directory chain.

#include <cstdint>
#include <cstring>

#include "container/directory.h"
#include "container/file_access.h"
#include "container/file_indexes.h"
#include "kystore/storage.h"
#include "platform/win_file.h"

bool kyStorage::CanRead() const {
  return m_hFile != INVALID_HANDLE_VALUE || m_bInMemory;
}

__int64 kyStorage::SetFilePointer(HANDLE hFile, __int64 distance, DWORD method) {
  if (!m_bInMemory) return SeekHandle(hFile, distance, method);
  return SeekInImage(m_memPos, m_imageSize, distance, method);
}

BOOL kyStorage::ReadFile(HANDLE hFile, void* buf, __int64 count, __int64* pRead,
                         OVERLAPPED* overlapped) {
  if (m_bInMemory) {
    // The image serves what it has; callers compare the count read.
    __int64 n = count < m_imageSize - m_memPos ? count : m_imageSize - m_memPos;
    if (n < 0) n = 0;
    if (n > 0) memcpy(buf, m_pImage + m_memPos, static_cast<size_t>(n));
    m_memPos += n;
    if (pRead) *pRead = n;
    return TRUE;
  }
  if (count <= 0) {
    if (pRead) *pRead = count;
    return TRUE;
  }
  if (!ReadHandleExactly(hFile, buf, count, overlapped)) return FALSE;
  if (pRead) *pRead = count;
  return TRUE;
}

bool kyStorage::WriteStreamHeader(__int64 offset, t_kyStreamU& header) {
  // Noted before writing: a write that fails half-way may free it too.
  if (header.IsFree() && m_pIndexes != nullptr) {
    m_pIndexes->root.SlotFreed(offset);
    m_pIndexes->ForgetFolder(offset);
  }
  if (SetFilePointer(m_hFile, offset, FILE_BEGIN) == -1) return false;
  const DWORD width = static_cast<DWORD>(StreamHeaderSize(m_bUse64BitOffsets != 0));
  DWORD written = 0;
  return WriteFile(m_hFile, &header, width, &written, nullptr) && written == width;
}

__int64 kyStorage::CurrentFileSize() {
  if (m_bInMemory) {
    m_knownFileSize = m_imageSize;
    return m_imageSize;
  }
  LARGE_INTEGER size;
  if (!GetFileSizeEx(m_hFile, &size)) return -1;
  m_knownFileSize = size.QuadPart;
  return size.QuadPart;
}

// Walks check every block and link against the file's size, so the size is
// kept in memory: asking the file for every block would cost a system call
// each.  Since the known size never exceeds the real one, a check that
// passes against it is sound; one that fails may be stale and asks again.
bool kyStorage::FileHolds(__int64 offset, __int64 count) {
  if (offset < 0 || count < 0 || offset > INT64_MAX - count) return false;
  const __int64 end = offset + count;
  if (end <= m_knownFileSize) return true;
  CurrentFileSize();
  return end <= m_knownFileSize;
}

void kyStorage::FileReached(__int64 end) {
  if (end > m_knownFileSize) m_knownFileSize = end;
}

__int64 kyStorage::FileSizeLimit() const {
  return m_bUse64BitOffsets ? g_iMaxTolvarSize : 4294967295LL;
}

bool kyStorage::ReadDirectoryBlock(__int64 offset, DirectoryBlock& block) {
  const __int64 size = DirectoryBlockSize(m_bUse64BitOffsets != 0);
  __int64 got = 0;
  if (offset <= 0 || SetFilePointer(m_hFile, offset, FILE_BEGIN) == -1) return false;
  if (!ReadFile(m_hFile, block.raw, size, &got, nullptr) || got != size) return false;
  return block.Magic() == kDirectoryBlockMagic;
}

// Directory blocks are only ever appended at the end of the file, so a
// link of a sound chain points forward, past the whole block that holds it.
// Taking no other link makes every walk of the chain end.
int kyStorage::NextDirectoryBlock(__int64& offset, DirectoryBlock& block) {
  __int64 next = m_rootOffset;
  if (offset != 0) {
    next = block.NextBlock(m_bUse64BitOffsets != 0);
    if (next == 0) return 0;
    if (!DirectoryLinkUsable(offset, next)) return -1;
  }
  if (!ReadDirectoryBlock(next, block)) return -1;
  offset = next;
  return 1;
}

int kyStorage::ForEachUsedRootSlot(const std::function<bool(const t_kyStreamU&)>& visit) {
  const bool b64 = m_bUse64BitOffsets != 0;
  DirectoryBlock block;
  __int64 blockOffset = 0;
  int step;
  while ((step = NextDirectoryBlock(blockOffset, block)) > 0) {
    for (__int64 i = 0; i < UsableSlots(block); ++i) {
      t_kyStreamU slot;
      CopyDirectorySlot(block, i, b64, slot);
      if (!slot.IsFree() && !visit(slot)) return 1;
    }
  }
  return step;
}

bool kyStorage::DirectoryLinkUsable(__int64 block, __int64 link) {
  const __int64 size = DirectoryBlockSize(m_bUse64BitOffsets != 0);
  if (block < 0 || link < 0 || link - block < size) return false;
  return FileHolds(link, size);
}
