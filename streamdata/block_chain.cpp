// The data block chain: appending first and next blocks at the end of the
// file.

#include <cstdlib>
#include <cstring>

#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

namespace {

// A fresh block header: magic, no data, `capacity` bytes reserved.
DataBlock NewBlockHeader(bool b64, __int64 capacity, __int64 prevBlock) {
  DataBlock hdr;
  memset(&hdr, 0, sizeof(hdr));
  hdr.b32.dwMagic = kDataBlockMagic;
  const __int64 h = DataBlockHeaderSize(b64);
  hdr.SetUsedEnd(b64, h);
  hdr.SetAllocEnd(b64, h + capacity);
  hdr.SetPrevBlock(b64, prevBlock);
  return hdr;
}

// Writes exactly `count` bytes at the handle's position.
bool WriteAll(HANDLE hFile, const void* buf, __int64 count) {
  DWORD written = 0;
  return WriteFile(hFile, buf, static_cast<DWORD>(count), &written, nullptr) &&
         written == static_cast<DWORD>(count);
}

// Writes the reserved data area of a new block in one call.  Its content is
// never read before it is written over, so zeros will do.
bool WriteDataArea(HANDLE hFile, __int64 capacity) {
  if (capacity == 0) return true;
  void* area = calloc(static_cast<size_t>(capacity), 1);
  if (area == nullptr) return false;
  const bool ok = WriteAll(hFile, area, capacity);
  free(area);
  return ok;
}

}  // namespace

// Folders and storages opened with block size 0 get header-only blocks.
__int64 kyStream::NewBlockCapacity() const {
  if (m_pStorage == nullptr || m_pStorage->m_dwBlockSize == 0) return 0;
  if (m_hdr.Flags() & kFolderFlag) return 0;
  return m_pStorage->m_dwBlockSize;
}

__int64 kyStream::AllocateFirstBlock() {
  if (m_pStorage == nullptr) return 0;
  const bool b64 = W64();
  const __int64 h = BlockHeaderSize();
  const __int64 capacity = NewBlockCapacity();
  if (SetFilePointer(m_hFile, 0, FILE_END) == -1) return 0;
  DataBlock hdr = NewBlockHeader(b64, capacity, 0);
  const __int64 block = SetFilePointer(m_hFile, 0, FILE_CURRENT);
  if (block == -1) return 0;
  if (!WriteAll(m_hFile, hdr.raw, h)) return 0;
  if (!WriteDataArea(m_hFile, capacity)) return 0;
  m_pStorage->FileReached(block + h + capacity);

  // Link the block into the header, in memory and on disk.
  m_hdr.SetFirstBlock(b64, block);
  const __int64 field = m_offset.headerOffset + HeaderFirstBlockOffset(b64);
  if (SetFilePointer(m_hFile, field, FILE_BEGIN) == -1) return 0;
  const BYTE* value = m_hdr.raw + HeaderFirstBlockOffset(b64);
  if (!WriteAll(m_hFile, value, b64 ? 8 : 4)) return 0;

  m_pStorage->m_lastAppended = block;
  return block;
}

__int64 kyStream::AllocateNextBlock(__int64 prevBlock) {
  if (m_pStorage == nullptr) return 0;
  const bool b64 = W64();
  const __int64 h = BlockHeaderSize();
  const __int64 capacity = NewBlockCapacity();
  if (SetFilePointer(m_hFile, 0, FILE_END) == -1) return 0;
  DataBlock hdr = NewBlockHeader(b64, capacity, prevBlock);
  const __int64 block = SetFilePointer(m_hFile, 0, FILE_CURRENT);
  if (block == -1) return 0;
  // Only the header has to fit below the size limit; its data area may
  // reach past it.
  if (block + h >= m_pStorage->FileSizeLimit()) return 0;
  if (!WriteAll(m_hFile, hdr.raw, h)) return 0;
  if (!WriteDataArea(m_hFile, capacity)) return 0;
  m_pStorage->FileReached(block + h + capacity);
  if (SetFilePointer(m_hFile, -(h + capacity), FILE_CURRENT) == -1) return 0;

  m_pStorage->m_lastAppended = block;
  return block;
}
