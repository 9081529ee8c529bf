// Giving a stream a new name: in its slot, in the registry record that
// counts its opens, and in the map that finds it by name (the parent
// object's preloaded children, or the storage's root map).

#include <cstring>

#include "container/directory.h"
#include "kystore/storage.h"
#include "kystore/stream.h"

bool kyStream::Rename(const char* newName) {
  // An empty name would turn the slot into a free one while the stream is
  // still open, and the next creation would take its blocks over.
  if ((m_dwOpenMode & kModeWrite) == 0 || newName == nullptr || newName[0] == '\0') return false;
  if (m_hdr.IsFree() || (m_pParent == nullptr && m_pStorage == nullptr)) return false;
  const CString oldName = SlotName(m_hdr);
  // Another object of this stream keeps the old name in its header copy and
  // would write it back to the slot with its next header write.
  if (OthersHoldIt(oldName)) return false;
  t_OpenStream* record = !m_bCounted            ? nullptr
                         : m_pParent != nullptr ? m_pParent->IsStreamOpen(oldName)
                                                : m_pStorage->IsStreamOpen(oldName);

  // A longer name keeps its first 60 characters.
  const t_kyStreamU kept = m_hdr;
  memset(m_hdr.Name(), 0, kMaxNameLength + 1);
  memcpy(m_hdr.Name(), newName, strnlen(newName, kMaxNameLength));
  if (!WriteHeaderBack()) {
    // The object goes on standing for what the slot holds.
    m_hdr = kept;
    return false;
  }

  if (record != nullptr) record->m_strName = m_hdr.Name();
  if (m_pParent != nullptr) {
    m_pParent->RenamePreloadedChild(oldName, m_hdr);
    return true;
  }
  // The root map's entry moves to the new name with the same locator, when
  // it is this stream's entry.
  tag_kyStreamOffset where;
  if (m_pStorage->m_streamMap.Lookup(oldName, where) &&
      where.headerOffset == m_offset.headerOffset) {
    m_pStorage->m_streamMap.RemoveKey(oldName);
    m_pStorage->m_streamMap.SetAt(m_hdr.Name(), where);
  }
  return true;
}
