// A folder's children read once into a map held by the folder object, then
// found, walked (in hash or name order) and opened without scanning the
// folder's slots.
//
// An entry whose child was removed through this object stays in the map
// with a free header (its name's first byte 0) instead of being taken out:
// a walk in progress holds positions into the map and indexes into its
// sorted view, which must stay valid.  Lookups and walks skip such entries.

#include <cstdint>
#include <cstring>
#include <new>

#include "container/directory.h"
#include "hierarchy/child_slots.h"
#include "kystore/stream.h"

void kyStream::PreloadChildren() {
  // A data stream's bytes are no child table.
  if (m_pPreloadMap != nullptr || m_hdr.Flags() != kFolderFlag) return;
  DWORD count = 0;
  if (SeekRight(0, true) != 0 || Read(&count, 4) != 4) return;
  m_pPreloadMap = new (std::nothrow) t_kyChildMap;
  if (m_pPreloadMap == nullptr || count == 0) return;

  const __int64 w = HeaderWidth();
  const __int64 maxReads = MaxSlotReads();
  DWORD taken = 0;
  for (__int64 i = 0; i < maxReads && taken < count; ++i) {
    t_kyStreamWithOffset value;
    memset(&value, 0, sizeof(value));
    value.offset.headerOffset = SlotOffsetAtCursor();
    if (Read(value.hdr.raw, w) != w) return;  // the data end here
    if (value.hdr.IsFree()) continue;
    value.offset.dwDuration = static_cast<DWORD>(value.hdr.Duration()) * 60u;
    m_pPreloadMap->SetAt(SlotName(value.hdr), value);
    ++taken;
  }
}

// The map keeps a child's header as it was when it was entered, while the
// child's writes change its length and blocks on disk since then.  An open
// made from the stale copy would read nothing and, on its first write,
// start a new chain in place of the child's data; so the header is read
// again from the slot.  A slot that no longer carries the name (the child
// was removed or renamed through another object) ends the entry.
bool kyStream::RefreshPreloaded(const char* name, t_kyStreamWithOffset& value) {
  t_kyStreamU slot;
  if (!ReadSlotAt(value.offset.headerOffset, slot)) return false;
  if (!SlotNameIs(slot, name)) {
    value.hdr.Name()[0] = '\0';
    m_pPreloadMap->SetAt(name, value);
    return false;
  }
  if (memcmp(&slot, &value.hdr, sizeof(slot)) != 0) {
    memcpy(&value.hdr, &slot, sizeof(slot));
    value.offset.dwDuration = static_cast<DWORD>(slot.Duration()) * 60u;
    m_pPreloadMap->SetAt(name, value);
  }
  return true;
}

// One step of a walk over the map.  Sorted walks keep an index into the
// sorted view in *cursor (-1 after the last entry), hash walks the map's
// position (null after the last).
bool kyStream::NextPreloadEntry(void** cursor, bool bFirst, CString& name,
                                t_kyStreamWithOffset& value) {
  if (m_pPreloadMap == nullptr || cursor == nullptr) return false;
  if (m_bSortStreams) {
    int index = 0;
    if (bFirst) {
      if (m_pPreloadMap->Sort(m_iSortOrder) == -1) return false;
    } else {
      index = static_cast<int>(reinterpret_cast<intptr_t>(*cursor));
    }
    if (index < 0 || index >= m_pPreloadMap->GetSortedCount()) return false;
    m_pPreloadMap->GetNextSorted(index, name, value);
    *cursor = reinterpret_cast<void*>(static_cast<intptr_t>(index));
    return true;
  }
  POSITION pos = bFirst ? m_pPreloadMap->GetStartPosition() : static_cast<POSITION>(*cursor);
  if (pos == nullptr) return false;
  m_pPreloadMap->GetNextAssoc(pos, name, value);
  *cursor = pos;
  return true;
}

kyStream* kyStream::OpenPreloadEntry(void** cursor, bool bFirst, DWORD dwMode) {
  CString name;
  t_kyStreamWithOffset value;
  for (bool first = bFirst; NextPreloadEntry(cursor, first, name, value); first = false) {
    if (value.hdr.IsFree() || !RefreshPreloaded(name, value)) continue;
    tag_kyStreamOffset offset;  // the value is packed: its locator may be misaligned
    memcpy(&offset, &value.offset, sizeof(offset));
    return OpenStreamByOffset(value.hdr, offset, name, dwMode);
  }
  return nullptr;
}

kyStream* kyStream::OpenPreloadChildrenFirst(void** cursor, DWORD dwMode) {
  return OpenPreloadEntry(cursor, true, dwMode);
}

kyStream* kyStream::OpenPreloadChildrenNext(void** cursor, DWORD dwMode) {
  return OpenPreloadEntry(cursor, false, dwMode);
}

int kyStream::GetPreloadChildrenOffsetFirst(void** cursor, DWORD, t_kyStreamWithOffset& value,
                                            CString& name) {
  memset(&value, 0, sizeof(value));
  name.Empty();
  for (bool first = true; NextPreloadEntry(cursor, first, name, value); first = false)
    if (!value.hdr.IsFree()) return 1;
  memset(&value, 0, sizeof(value));
  name.Empty();
  return 0;
}

int kyStream::GetPreloadChildrenOffsetNext(void** cursor, DWORD, t_kyStreamWithOffset& value,
                                           CString& name) {
  memset(&value, 0, sizeof(value));
  name.Empty();
  while (NextPreloadEntry(cursor, false, name, value))
    if (!value.hdr.IsFree()) return 1;
  memset(&value, 0, sizeof(value));
  name.Empty();
  return 0;
}

// The header handed in may be a stale copy (from the walks above), so the
// child is opened from its slot as it is now, which must still carry `name`.
kyStream* kyStream::OpenPreloadChildrenByOffset(t_kyStreamU& /*header*/, tag_kyStreamOffset& offset,
                                                const char* name, DWORD dwMode) {
  if (m_hdr.Flags() != kFolderFlag || name == nullptr || name[0] == '\0') return nullptr;
  t_kyStreamU slot;
  if (!ReadSlotAt(offset.headerOffset, slot) || !SlotNameIs(slot, name)) return nullptr;
  return OpenStreamByOffset(slot, offset, name, dwMode);
}

void kyStream::ForgetPreloadedChild(const char* name) {
  t_kyStreamWithOffset value;
  if (m_pPreloadMap == nullptr || !m_pPreloadMap->Lookup(name, value)) return;
  value.hdr.Name()[0] = '\0';
  m_pPreloadMap->SetAt(name, value);
}

void kyStream::RenamePreloadedChild(const char* oldName, const t_kyStreamU& header) {
  t_kyStreamWithOffset value;
  if (m_pPreloadMap == nullptr || !m_pPreloadMap->Lookup(oldName, value)) return;
  ForgetPreloadedChild(oldName);
  value.hdr = header;
  m_pPreloadMap->SetAt(SlotName(header), value);
}
