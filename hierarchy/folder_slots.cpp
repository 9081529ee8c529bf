// Locating and bounding the child slots of a folder's data.
//
// A folder's data are a DWORD child count followed by one header slot of W
// bytes (the storage's header width) per child.  The helpers here read the
// count, work out where a slot lies in the file, and bound every walk over
// the slots by what the folder's data can hold.

#include <cstring>

#include "hierarchy/child_slots.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

bool kyStream::ReadChildCount() {
  DWORD count = 0;
  if (SeekRight(0, true) != 0 || Read(&count, 4) != 4) {
    m_nChildren = 0;
    return false;
  }
  m_nChildren = count;
  return true;
}

// The slot the cursor is about to read starts at the cursor, unless the
// current block's data are used up: then it starts after the next block's
// header.  0 when no block follows.
__int64 kyStream::SlotOffsetAtCursor() {
  const bool b64 = W64();
  const __int64 h = BlockHeaderSize();
  if (m_iBlockPos == 0) return m_iCurBlock + h;
  if (m_iBlockPos >= m_blockHdr.UsedEnd(b64)) {
    const __int64 next = m_blockHdr.NextBlock(b64);
    return next != 0 ? next + h : 0;
  }
  return m_iCurBlock + m_iBlockPos;
}

// Every slot lies whole inside one block, and a read that ends at the end
// of a block's data leaves the cursor in that block, so the slot just read
// starts W bytes before the cursor in the current block.  Working it out
// needs no seek: stepping back and forward again would fail where the slot
// ends the in-memory image, whose end no seek may reach.  A slot that does
// not lie whole in the block is damage: -1.
__int64 kyStream::SlotOffsetJustRead() {
  const __int64 w = HeaderWidth();
  if (m_iBlockPos - w < BlockHeaderSize()) return -1;
  return m_iCurBlock + m_iBlockPos - w;
}

// A damaged child count can claim more slots than the file holds.  The
// folder's own recorded length is no bound: another object of the folder may
// have added slots since this object read its header.
__int64 kyStream::MaxSlotReads() {
  __int64 bytes = m_pStorage != nullptr ? m_pStorage->CurrentFileSize() : 0;
  if (bytes < 0) bytes = 0;
  return bytes / HeaderWidth() + 1;
}

// A positioned read: neither this folder's cursor nor the position any
// other stream relies on moves.
bool kyStream::ReadSlotAt(__int64 offset, t_kyStreamU& header) {
  memset(&header, 0, sizeof(header));
  return offset > 0 && m_pStorage != nullptr &&
         m_pStorage->ReadAt(offset, header.raw, HeaderWidth());
}

// The shared position is put back where it was, and this object's cursor
// goes back to the start of the data with no block loaded, from where its
// next transfer finds its block by itself.
bool kyStream::PeekChildCount(DWORD& count) {
  const __int64 resume = StorageInMemory() ? -1 : SetFilePointer(m_hFile, 0, FILE_CURRENT);
  const bool read = m_hdr.Flags() == kFolderFlag && ReadChildCount();
  if (resume >= 0) SetFilePointer(m_hFile, resume, FILE_BEGIN);
  m_iCurBlock = m_hdr.FirstBlock(W64());
  m_iBlockPos = 0;
  m_iDataPos = 0;
  count = read ? m_nChildren : 0;
  return read;
}

// A damaged folder can hold a slot whose chain leads back into an
// ancestor's data; descending into it would never end.  Every stream has
// its own slot, so a child whose slot is an ancestor's is refused.
bool kyStream::ChildOpenAllowed(__int64 headerOffset) {
  if (headerOffset <= 0) return false;
  int depth = 0;
  for (const kyStream* p = this; p != nullptr; p = p->m_pParent) {
    if (p->m_offset.headerOffset == headerOffset) return false;
    ++depth;
  }
  return depth < kMaxFolderDepth;
}

// Two storage objects over one file (under the same name or another: a
// link, a relative path) share its slots, so the files are compared by
// identity.
bool kyStream::IsSameStream(const kyStream* other) const {
  if (other == this) return true;
  if (other == nullptr || m_pStorage == nullptr || other->m_pStorage == nullptr) return false;
  if (other->m_offset.headerOffset != m_offset.headerOffset) return false;
  return m_pStorage->SameFileAs(*other->m_pStorage);
}

bool kyStream::HoldsInItsTree(const kyStream* dst) const {
  for (const kyStream* p = dst; p != nullptr; p = p->m_pParent)
    if (IsSameStream(p)) return true;
  return false;
}

// An open descendant keeps its whole chain of parent objects open.  That
// chain reaches this stream either through this object, whose registry then
// holds a record, or through another object of this stream, which counts on
// this stream's own record (checked by the caller).
bool kyStream::IsOpenBelow() {
  return !m_openChildren.IsEmpty();
}
