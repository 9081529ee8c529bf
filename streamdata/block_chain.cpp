// The data block chain: appending first and next blocks at the end of the
// file, loading a block's header, and the bound on every walk along a chain.

#include <cstdlib>
#include <cstring>

#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

namespace {

// Hops along a chain taken before the file size is consulted.  A real chain
// this short never needs the system call that finds the size.
const int64_t kFirstHopLimit = 1024;

// A fresh block header: magic, no data, `capacity` bytes reserved.
DataBlock NewBlockHeader(bool b64, int64_t capacity, int64_t prevBlock) {
  DataBlock hdr;
  memset(&hdr, 0, sizeof(hdr));
  hdr.b32.dwMagic = kDataBlockMagic;
  const int64_t h = DataBlockHeaderSize(b64);
  hdr.SetUsedEnd(b64, h);
  hdr.SetAllocEnd(b64, h + capacity);
  hdr.SetPrevBlock(b64, prevBlock);
  return hdr;
}

// Writes exactly `count` bytes at the handle's position.
bool WriteAll(HANDLE hFile, const void* buf, int64_t count) {
  DWORD written = 0;
  return WriteFile(hFile, buf, static_cast<DWORD>(count), &written, nullptr) &&
         written == static_cast<DWORD>(count);
}

// Writes the reserved data area of a new block in one call.  Its content is
// never read before it is written over, so zeros will do.
bool WriteDataArea(HANDLE hFile, int64_t capacity) {
  if (capacity == 0) return true;
  void* area = calloc(static_cast<size_t>(capacity), 1);
  if (area == nullptr) return false;
  const bool ok = WriteAll(hFile, area, capacity);
  free(area);
  return ok;
}

}  // namespace

// Folders and storages opened with block size 0 get header-only blocks.
int64_t kyStream::NewBlockCapacity() const {
  if (m_pStorage == nullptr || m_pStorage->m_dwBlockSize == 0) return 0;
  if (m_hdr.Flags() & kFolderFlag) return 0;
  return m_pStorage->m_dwBlockSize;
}

int64_t kyStream::AllocateFirstBlock() {
  if (m_pStorage == nullptr) return 0;
  const bool b64 = W64();
  const int64_t h = BlockHeaderSize();
  const int64_t capacity = NewBlockCapacity();
  if (SetFilePointer(m_hFile, 0, FILE_END) == -1) return 0;
  DataBlock hdr = NewBlockHeader(b64, capacity, 0);
  const int64_t block = SetFilePointer(m_hFile, 0, FILE_CURRENT);
  if (block == -1) return 0;
  if (!WriteAll(m_hFile, hdr.raw, h)) return 0;
  if (!WriteDataArea(m_hFile, capacity)) return 0;

  // Link the block into the header, in memory and on disk.
  m_hdr.SetFirstBlock(b64, block);
  const int64_t field = m_offset.headerOffset + HeaderFirstBlockOffset(b64);
  if (SetFilePointer(m_hFile, field, FILE_BEGIN) == -1) return 0;
  const BYTE* value = m_hdr.raw + HeaderFirstBlockOffset(b64);
  if (!WriteAll(m_hFile, value, b64 ? 8 : 4)) return 0;

  m_pStorage->m_lastAppended = block;
  return block;
}

int64_t kyStream::AllocateNextBlock(int64_t prevBlock) {
  if (m_pStorage == nullptr) return 0;
  const bool b64 = W64();
  const int64_t h = BlockHeaderSize();
  const int64_t capacity = NewBlockCapacity();
  if (SetFilePointer(m_hFile, 0, FILE_END) == -1) return 0;
  DataBlock hdr = NewBlockHeader(b64, capacity, prevBlock);
  const int64_t block = SetFilePointer(m_hFile, 0, FILE_CURRENT);
  if (block == -1) return 0;
  // Only the header has to fit below the size limit; its data area may
  // reach past it.
  if (block + h >= m_pStorage->FileSizeLimit()) return 0;
  if (!WriteAll(m_hFile, hdr.raw, h)) return 0;
  if (!WriteDataArea(m_hFile, capacity)) return 0;
  if (SetFilePointer(m_hFile, -(h + capacity), FILE_CURRENT) == -1) return 0;

  m_pStorage->m_lastAppended = block;
  return block;
}

// The header is taken only when it is whole, carries the magic and its ends
// lie behind the header itself; anything else is damage, and m_blockHdr
// keeps what it held.
bool kyStream::LoadBlock(int64_t block) {
  if (block <= 0 || SetFilePointer(m_hFile, block, FILE_BEGIN) == -1) return false;
  const int64_t h = BlockHeaderSize();
  DataBlock hdr;
  memset(&hdr, 0, sizeof(hdr));
  int64_t got = 0;
  if (!ReadFile(m_hFile, hdr.raw, h, &got, nullptr) || got != h) return false;
  if (hdr.Magic() != kDataBlockMagic) return false;
  const bool b64 = W64();
  if (hdr.UsedEnd(b64) < h || hdr.AllocEnd(b64) < h) return false;
  // Ends that no file offset can reach would overflow the cursor's sums.
  if (hdr.UsedEnd(b64) > INT64_MAX - block || hdr.AllocEnd(b64) > INT64_MAX - block) return false;
  m_blockHdr = hdr;
  m_iBlockPos = h;
  return true;
}

// Every block of a sound chain lies in the file and is at least a header
// long, so a chain never has more blocks than the file has headers' worth of
// bytes.  The size is looked up only when a walk gets long.
bool kyStream::ChainHopAllowed(int64_t& hops, int64_t& limit) {
  if (limit <= 0) limit = kFirstHopLimit;
  ++hops;
  if (hops <= limit) return true;
  if (m_pStorage == nullptr) return false;
  const int64_t size = m_pStorage->CurrentFileSize();
  if (size < 0) return false;
  limit = size / BlockHeaderSize() + 1;
  return hops <= limit;
}
