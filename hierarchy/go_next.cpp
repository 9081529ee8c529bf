// Moving a root stream object to the next used slot of the root directory.

#include <cstring>

#include "container/directory.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

// Reads the slot after this object's one, in directory order, with its
// locator.  False at the end of the chain or on any damage.
bool kyStream::ReadNextRootSlot(t_kyStreamU& next, tag_kyStreamOffset& where) {
  const bool b64 = W64();
  const __int64 w = HeaderWidth();
  const __int64 d = DirectoryHeadSize(b64);
  auto readAt = [this](__int64 at, void* buf, __int64 count) {
    __int64 got = 0;
    return SetFilePointer(m_hFile, at, FILE_BEGIN) != -1 &&
           ReadFile(m_hFile, buf, count, &got, nullptr) && got == count;
  };
  memset(&next, 0, sizeof(next));
  const __int64 index = (m_offset.headerOffset - m_offset.blockOffset - d) / w;
  const __int64 slots =
      m_offset.dwBlockSlots < kSlotsPerBlock ? m_offset.dwBlockSlots : kSlotsPerBlock;
  if (index + 1 < slots) {
    where = {m_offset.headerOffset + w, m_offset.blockOffset, m_offset.dwBlockSlots, 0};
    return readAt(where.headerOffset, next.raw, w);
  }
  // The next block comes from the step every walk of the directory takes,
  // so that this walk refuses exactly the links the others refuse.
  DirectoryBlock block;
  __int64 at = m_offset.blockOffset;
  if (at <= 0 || !m_pStorage->ReadDirectoryBlock(at, block)) return false;
  if (m_pStorage->NextDirectoryBlock(at, block) <= 0) return false;
  memcpy(next.raw, block.raw + d, static_cast<size_t>(w));
  where = {at + d, at, block.SlotCount(), 0};
  return true;
}

bool kyStream::GoNext() {
  // Only a root stream stands in a directory slot.  Children of the stream
  // this object stood for would be left with a parent that no longer is
  // theirs, so the object must have none open.
  if (m_pParent != nullptr || m_pStorage == nullptr || !m_openChildren.IsEmpty()) return false;
  t_kyStreamU next;
  tag_kyStreamOffset where;
  if (!ReadNextRootSlot(next, where)) return false;
  if (next.Magic() != kStreamHeaderMagic || next.IsFree()) return false;

  const CString oldName = SlotName(m_hdr);
  m_hdr = next;
  m_hdr.Name()[kMaxNameLength] = '\0';
  m_offset = where;
  m_iCurBlock = m_hdr.FirstBlock(W64());
  m_iBlockPos = 0;
  m_iDataPos = 0;
  // What this object knew about the children of the stream it stood for
  // does not describe the new one.
  m_nChildren = 0;
  delete m_pPreloadMap;
  m_pPreloadMap = nullptr;

  if (m_bCounted && !oldName.IsEmpty()) m_pStorage->CloseStream(oldName);
  // Another object may hold the new stream already: its record counts this
  // open too, so that one name keeps one record.
  t_OpenStream* held = m_pStorage->IsStreamOpen(m_hdr.Name());
  if (held != nullptr) {
    ++held->m_nCount;
    m_bCounted = true;
  } else {
    m_bCounted = m_pStorage->AddNewOpenStream(m_hdr.Name(), m_dwOpenMode) != nullptr;
  }
  return true;
}
