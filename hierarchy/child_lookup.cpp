// Finding a child of a folder by name and opening it.  Every child open
// passes through OpenStreamByOffset, which applies the folder's own
// open-stream registry.

#include <cstring>
#include <new>

#include "container/admission.h"
#include "hierarchy/child_slots.h"
#include "kystore/storage.h"
#include "container/directory.h"
#include "kystore/stream.h"

bool kyStream::FindStream(const char* name, t_kyStreamU& header, tag_kyStreamOffset& offset) {
  if (name == nullptr) return false;
  if (m_pPreloadMap != nullptr) {
    t_kyStreamWithOffset value;
    if (!m_pPreloadMap->Lookup(name, value) || value.hdr.IsFree()) return false;
    if (!RefreshPreloaded(name, value)) return false;
    memcpy(&header, &value.hdr, sizeof(header));
    memcpy(&offset, &value.offset, sizeof(offset));  // the value is packed
    return true;
  }

  if (!ReadChildCount()) return false;
  if (name[0] != '\0') {
    const int indexed = FindStreamIndexed(name, header, offset);
    if (indexed >= 0) return indexed == 1;
    // An index that could not answer may have moved the cursor.
    if (FileIndexes() != nullptr && !ReadChildCount()) return false;
  }
  offset.blockOffset = 0;
  offset.dwBlockSlots = 0;
  const __int64 w = HeaderWidth();
  const __int64 maxReads = MaxSlotReads();
  for (DWORD i = 0; i < m_nChildren && i < maxReads; ++i) {
    offset.headerOffset = SlotOffsetAtCursor();
    memset(&header, 0, sizeof(header));
    if (Read(header.raw, w) != w) return false;
    // Free slots are compared too: an empty name finds the first of them.
    if (SlotNameIs(header, name)) return true;
  }
  return false;
}

kyStream* kyStream::OpenStream(const char* name, DWORD dwMode) {
  // An empty name would open a free slot, whose blocks the next creation
  // takes over; nothing written through such an object would last.  A name
  // longer than any slot holds matches none: it is refused before the scan,
  // whose reads would move the shared file position for nothing.
  if (m_hdr.Flags() != kFolderFlag || !IsValidStreamName(name)) return nullptr;
  t_kyStreamU header;
  tag_kyStreamOffset offset;
  memset(&header, 0, sizeof(header));
  memset(&offset, 0, sizeof(offset));
  if (!FindStream(name, header, offset)) return nullptr;
  return OpenStreamByOffset(header, offset, name, dwMode);
}

kyStream* kyStream::OpenStreamByOffset(t_kyStreamU& header, tag_kyStreamOffset& offset,
                                       const char* name, DWORD dwMode) {
  if (name == nullptr || m_pStorage == nullptr) return nullptr;
  // The registry decides before anything else happens.
  t_OpenStream* held = IsStreamOpen(name);
  if (!OpenAdmitted(held, dwMode)) return nullptr;
  if (!m_pStorage->CanRead()) return nullptr;
  if (!ChildOpenAllowed(offset.headerOffset)) return nullptr;

  kyStream* child = new (std::nothrow) kyStream(this, header, m_pStorage->m_hFile, offset);
  if (child == nullptr) return nullptr;
  child->m_dwOpenMode = dwMode;
  // Release skips streams without a name, so none is recorded for them.
  if (held != nullptr) {
    ++held->m_nCount;
    child->m_bCounted = true;
  } else if (name[0] != '\0') {
    // No memory for the record: the child stays unregistered.
    child->m_bCounted = AddNewOpenStream(name, dwMode) != nullptr;
  }
  return child;
}
