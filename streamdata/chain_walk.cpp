// The rules of a data block chain, applied alike by every walk along one:
// reads, writes, seeks, and so every folder scan and copy.
//
// Blocks are only ever appended at the end of the file, behind the whole of
// every block that existed then, so a link of a sound chain points forward,
// past the room of the block that holds it.  Taking no other link makes
// every walk end without counting its steps: each step moves further into
// the file, and the file has an end.

#include <cstring>

#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

// A block is taken only when its header lies in the file, carries the
// magic, and its ends are ordered (header <= used end <= allocated end) with
// the whole room inside the file.  Anything else is damage: m_blockHdr keeps
// what it held.
bool kyStream::LoadBlock(__int64 block) {
  const __int64 h = BlockHeaderSize();
  if (block <= 0 || m_pStorage == nullptr || !m_pStorage->FileHolds(block, h)) return false;
  if (SetFilePointer(m_hFile, block, FILE_BEGIN) == -1) return false;
  DataBlock hdr;
  memset(&hdr, 0, sizeof(hdr));
  __int64 got = 0;
  if (!ReadFile(m_hFile, hdr.raw, h, &got, nullptr) || got != h) return false;
  if (hdr.Magic() != kDataBlockMagic) return false;
  const bool b64 = W64();
  const __int64 usedEnd = hdr.UsedEnd(b64);
  const __int64 allocEnd = hdr.AllocEnd(b64);
  if (usedEnd < h || usedEnd > allocEnd || !m_pStorage->FileHolds(block, allocEnd)) return false;
  m_blockHdr = hdr;
  m_iBlockPos = h;
  return true;
}

// A link is taken only when it points at or behind the end of the loaded
// block's room and a block header fits in the file there.
__int64 kyStream::NextBlockLink() {
  const bool b64 = W64();
  const __int64 next = m_blockHdr.NextBlock(b64);
  if (next == 0) return 0;
  if (m_pStorage == nullptr) return -1;
  // The loaded block passed LoadBlock, so this sum lies inside the file.
  const __int64 roomEnd = m_iCurBlock + m_blockHdr.AllocEnd(b64);
  if (next < roomEnd || !m_pStorage->FileHolds(next, BlockHeaderSize())) return -1;
  return next;
}
