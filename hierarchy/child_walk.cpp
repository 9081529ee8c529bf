// Walking a folder's children in slot order with a cursor the caller holds:
// the data position just past the last slot examined.

#include <cstring>

#include "container/directory.h"
#include "kystore/stream.h"

kyStream* kyStream::OpenStreamFirst(__int64* pCursor, DWORD dwMode) {
  // A data stream's bytes are no child table: reading them as one could
  // hand out objects over whatever happens to look like a slot.
  if (pCursor == nullptr || m_hdr.Flags() != kFolderFlag) return nullptr;
  if (!ReadChildCount()) return nullptr;
  *pCursor = 4;
  if (static_cast<int>(m_nChildren) <= 0) return nullptr;

  const __int64 maxReads = MaxSlotReads();
  const __int64 counted = static_cast<int>(m_nChildren);
  return OpenFirstUsedSlot(pCursor, dwMode, counted < maxReads ? counted : maxReads);
}

// Not bounded by the child count: reads on until a used slot or the end of
// the data, and never more slots than the data can hold.
kyStream* kyStream::OpenStreamNext(__int64* pCursor, DWORD dwMode) {
  if (pCursor == nullptr || m_hdr.Flags() != kFolderFlag || *pCursor < 0) return nullptr;
  if (SeekRight(*pCursor, true) != 0) return nullptr;
  return OpenFirstUsedSlot(pCursor, dwMode, MaxSlotReads() - *pCursor / HeaderWidth());
}

kyStream* kyStream::OpenFirstUsedSlot(__int64* pCursor, DWORD dwMode, __int64 slots) {
  const __int64 w = HeaderWidth();
  t_kyStreamU header;
  for (__int64 i = 0; i < slots; ++i) {
    memset(&header, 0, sizeof(header));
    if (Read(header.raw, w) != w || header.Magic() != kStreamHeaderMagic) return nullptr;
    *pCursor += w;
    if (!header.IsFree()) {
      tag_kyStreamOffset offset = {SlotOffsetJustRead(), 0, 0, 0};
      return OpenStreamByOffset(header, offset, SlotName(header), dwMode);
    }
  }
  return nullptr;
}

void kyStream::EnumStreams(CStringArray& names) {
  __int64 cursor = 0;
  for (kyStream* child = OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = OpenStreamNext(&cursor, kModeReadShared)) {
    names.SetAtGrow(names.GetSize(), child->GetName());
    child->Release();
  }
}
