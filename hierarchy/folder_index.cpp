// Folders answered through their index (container/file_indexes.h): finding
// a child by name, finding the first free slot and the end of the slots,
// without reading every slot again.  Whatever the index answers, the bytes
// written are those a walk over the slots would have written: the cursor is
// put exactly where that walk would have left it.

#include <cstring>

#include "container/directory.h"
#include "container/file_indexes.h"
#include "hierarchy/child_slots.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

kyFileIndexes* kyStream::FileIndexes() const {
  if (m_pStorage == nullptr || kyFileIndexes::Bypassed() || m_offset.headerOffset <= 0)
    return nullptr;
  return m_pStorage->m_pIndexes;
}

void kyStream::ForgetFolderIndex() {
  if (m_pStorage != nullptr && m_pStorage->m_pIndexes != nullptr && m_offset.headerOffset > 0)
    m_pStorage->m_pIndexes->ForgetFolder(m_offset.headerOffset);
}

// The index for this folder as its count on disk stands now (read into
// m_nChildren by the caller), built by one walk over the slots when there
// is none or it describes another state of the folder.  Null when the
// folder cannot be indexed: the caller walks the slots itself.
FolderIndex* kyStream::FolderIndexInUse() {
  kyFileIndexes* indexes = FileIndexes();
  if (indexes == nullptr || m_hdr.Flags() != kFolderFlag) return nullptr;
  const __int64 first = m_hdr.FirstBlock(W64());
  FolderIndex* index = indexes->Folder(m_offset.headerOffset);
  if (index != nullptr && index->Describes(first, m_nChildren)) return index;
  index = indexes->NewFolder(m_offset.headerOffset, first);
  if (index == nullptr) return nullptr;
  if (!FillFolderIndex(*index)) {
    indexes->ForgetFolder(m_offset.headerOffset);
    return nullptr;
  }
  return index;
}

// Reads every counted slot after the count, as a lookup would.  A short
// read, a slot without the header magic, more slots than the file can hold
// or one name in two slots leave the folder to the walks.
bool kyStream::FillFolderIndex(FolderIndex& index) {
  if (SeekRight(4, true) != 0) return false;
  const __int64 w = HeaderWidth();
  if (static_cast<__int64>(m_nChildren) > MaxSlotReads()) return false;
  t_kyStreamU header;
  for (DWORD i = 0; i < m_nChildren; ++i) {
    const __int64 offset = SlotOffsetAtCursor();
    memset(&header, 0, sizeof(header));
    if (Read(header.raw, w) != w || header.Magic() != kStreamHeaderMagic) return false;
    const __int64 block = m_iBlockPos - w >= BlockHeaderSize() ? m_iCurBlock : 0;
    const CString name = SlotName(header);
    if (!index.AddSlot(offset, block, name.GetString())) return false;
  }
  index.SetEnd(FolderIndex::Cursor{m_iCurBlock, m_iBlockPos, m_iDataPos});
  return true;
}

// Puts the cursor at `blockPos` of the block at `block`, `dataPos` bytes
// into the data, with the block's header loaded and the file position
// under the cursor.
bool kyStream::PlaceCursor(__int64 block, __int64 blockPos, __int64 dataPos) {
  if (!LoadBlock(block) || blockPos < BlockHeaderSize() || blockPos > m_blockHdr.UsedEnd(W64()))
    return false;
  if (SetFilePointer(m_hFile, block + blockPos, FILE_BEGIN) == -1) return false;
  m_iCurBlock = block;
  m_iBlockPos = blockPos;
  m_iDataPos = dataPos;
  return true;
}

int kyStream::FindStreamIndexed(const char* name, t_kyStreamU& header, tag_kyStreamOffset& offset) {
  FolderIndex* index = FolderIndexInUse();
  if (index == nullptr) return -1;
  DWORD i;
  if (!index->Find(name, i)) return 0;
  // The slot is read again: what it says on disk is what the caller gets.
  if (!ReadSlotAt(index->At(i).offset, header) || !SlotNameIs(header, name)) {
    ForgetFolderIndex();
    return -1;
  }
  offset.headerOffset = index->At(i).offset;
  offset.blockOffset = 0;
  offset.dwBlockSlots = 0;
  return 1;
}

// As the walk in AddStreamHeader, with the first free slot and the end of
// the slots taken from the index.  -1 when the index cannot answer (nothing
// written then), else the result of the write.
int kyStream::AddStreamHeaderIndexed(const char* name, DWORD dwType, t_kyStreamU& header,
                                     tag_kyStreamOffset& offset, int bReuseFreeSlot) {
  FolderIndex* index = FolderIndexInUse();
  if (index == nullptr) return -1;
  const __int64 w = HeaderWidth();
  DWORD i;
  if (bReuseFreeSlot && index->FirstFree(i)) {
    const FolderIndex::Slot slot = index->At(i);
    if (slot.block == 0 || !ReadSlotAt(slot.offset, header) || !header.IsFree() ||
        !PlaceCursor(slot.block, slot.offset - slot.block, 4 + static_cast<__int64>(i) * w)) {
      ForgetFolderIndex();
      return -1;
    }
    if (!WriteFreeSlot(name, dwType, header, offset)) {
      ForgetFolderIndex();
      return 0;
    }
    if (!index->Name(i, name)) ForgetFolderIndex();
    return 1;
  }
  const FolderIndex::Cursor end = index->End();
  if (!PlaceCursor(end.block, end.blockPos, end.dataPos)) {
    ForgetFolderIndex();
    return -1;
  }
  if (!AppendSlot(name, dwType, header, offset, bReuseFreeSlot != 0)) {
    ForgetFolderIndex();
    return 0;
  }
  const __int64 block = m_iBlockPos - w >= BlockHeaderSize() ? m_iCurBlock : 0;
  if (!index->AddSlot(offset.headerOffset, block, name)) {
    ForgetFolderIndex();
    return 1;
  }
  index->SetEnd(FolderIndex::Cursor{m_iCurBlock, m_iBlockPos, m_iDataPos});
  return 1;
}

// A child's header was written into this folder's slot at `offset`.
void kyStream::NoteChildHeaderWritten(__int64 offset, const t_kyStreamU& header) {
  kyFileIndexes* indexes = m_pStorage != nullptr ? m_pStorage->m_pIndexes : nullptr;
  if (indexes == nullptr) return;
  // A freed slot's stream is gone, and with it any index of its children.
  if (header.IsFree()) indexes->ForgetFolder(offset);
  FolderIndex* index = m_offset.headerOffset > 0 ? indexes->Folder(m_offset.headerOffset) : nullptr;
  if (index == nullptr) return;
  DWORD i;
  const CString name = SlotName(header);
  if (!index->SlotAt(offset, i) || !index->Name(i, name.GetString())) ForgetFolderIndex();
}
