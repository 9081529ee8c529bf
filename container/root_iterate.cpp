// Walking the root streams: over the name map (hash order, or name order
// with sorting on), over a snapshot of the names in directory order, and the
// searches for the first root stream or folder of a name.

#include <cstdint>
#include <cstring>

#include "container/directory.h"
#include "kystore/storage.h"
#include "kystore/stream.h"

namespace {

// A sorted walk keeps its index in the pointer-sized cursor.
void* IndexCursor(int index) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(index));
}
int CursorIndex(void* cursor) {
  const intptr_t v = reinterpret_cast<intptr_t>(cursor);
  return (v < INT32_MIN || v > INT32_MAX) ? -1 : static_cast<int>(v);
}

}  // namespace

kyStream* kyStorage::OpenStreamFirst(void*& cursor, DWORD mode) {
  CString name;
  tag_kyStreamOffset offset;
  if (m_bSortStreams) {
    cursor = IndexCursor(-1);
    if (m_streamMap.Sort(m_iSortOrder) != 0) return nullptr;
    int index = 0;
    m_streamMap.GetNextSorted(index, name, offset);
    cursor = IndexCursor(index);
  } else {
    POSITION pos = m_streamMap.GetStartPosition();
    cursor = nullptr;
    if (pos == nullptr) return nullptr;
    m_streamMap.GetNextAssoc(pos, name, offset);
    cursor = pos;
  }
  return OpenStreamByOffset(offset, name, mode);
}

kyStream* kyStorage::OpenStreamNext(void*& cursor, DWORD mode) {
  CString name;
  tag_kyStreamOffset offset;
  if (m_bSortStreams) {
    int index = CursorIndex(cursor);
    // Also covers a view emptied by a removal since the last step.
    if (index < 0 || index >= m_streamMap.GetSortedCount()) return nullptr;
    m_streamMap.GetNextSorted(index, name, offset);
    cursor = IndexCursor(index);
  } else {
    // A position in the hash table: valid only while the map is unchanged,
    // as the header says of every unsorted walk.
    if (cursor == nullptr) return nullptr;
    POSITION pos = static_cast<POSITION>(cursor);
    m_streamMap.GetNextAssoc(pos, name, offset);
    cursor = pos;
  }
  return OpenStreamByOffset(offset, name, mode);
}

kyStream* kyStorage::OpenStreamFirst2(int& cursor, DWORD mode) {
  m_streamNames.RemoveAll();
  if (!CanRead()) return nullptr;
  const int step = ForEachUsedRootSlot([this](const t_kyStreamU& slot) {
    m_streamNames.Add(SlotName(slot));
    return true;
  });
  // A damaged chain gives no snapshot at all.
  if (step < 0) m_streamNames.RemoveAll();
  if (m_streamNames.GetSize() == 0) return nullptr;
  cursor = 0;
  tag_kyStreamOffset offset;
  if (!FindStreamOffset(m_streamNames[0], offset)) return nullptr;
  return OpenStreamByOffset(offset, m_streamNames[0], mode);
}

kyStream* kyStorage::OpenStreamNext2(int& cursor, DWORD mode) {
  if (cursor < -1 || cursor >= m_streamNames.GetSize() - 1) return nullptr;
  const int next = cursor + 1;
  cursor = next;
  tag_kyStreamOffset offset;
  if (!FindStreamOffset(m_streamNames[next], offset)) return nullptr;
  return OpenStreamByOffset(offset, m_streamNames[next], mode);
}

namespace {

bool Qualifies(kyStream* stm, const char* name, bool wantFolder) {
  if ((stm->IsFolder() != 0) != wantFolder) return false;
  return name == nullptr || name[0] == '\0' || strcmp(name, stm->GetName()) == 0;
}

// Opens the root streams one by one in the order of the map walk and keeps
// the first that qualifies; the others are released before the next open.
// A null name is taken as an empty one: any name qualifies.
kyStream* FindRoot(kyStorage* storage, const char* name, bool wantFolder, DWORD mode) {
  void* cursor = nullptr;
  for (kyStream* stm = storage->OpenStreamFirst(cursor, mode); stm != nullptr;
       stm = storage->OpenStreamNext(cursor, mode)) {
    if (Qualifies(stm, name, wantFolder)) return stm;
    stm->Release();
  }
  return nullptr;
}

}  // namespace

kyStream* kyStorage::FindRootStream(const char* name) {
  return FindRoot(this, name, false, kModeReadShared);
}

kyStream* kyStorage::FindRootStorage(const char* name) {
  return FindRoot(this, name, true, kModeReadShared);
}

kyStream* kyStorage::FindRootStorageWrite(const char* name) {
  return FindRoot(this, name, true, kModeReadWriteShared);
}
