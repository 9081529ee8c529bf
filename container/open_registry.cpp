// The open-stream registries (the storage's for root streams, each folder's
// for its children) and kyStream::Release, through which every stream
// object is given back.

#include <new>

#include "kystore/recorder.h"
#include "kystore/storage.h"
#include "kystore/stream.h"

namespace {

// The first record of `name`, counting from the oldest.  A null name is
// never open.
POSITION FindRecord(t_OpenStreamList& list, const char* name) {
  if (name == nullptr) return nullptr;
  for (POSITION pos = list.GetHeadPosition(); pos != nullptr;) {
    POSITION here = pos;
    if (list.GetNext(pos)->m_strName == name) return here;
  }
  return nullptr;
}

t_OpenStream* FindOpen(t_OpenStreamList& list, const char* name) {
  POSITION pos = FindRecord(list, name);
  return pos ? list.GetAt(pos) : nullptr;
}

t_OpenStream* AddOpen(t_OpenStreamList& list, const char* name, DWORD mode) {
  t_OpenStream* record = new (std::nothrow) t_OpenStream(name ? name : "", mode);
  if (record == nullptr) return nullptr;
  list.AddTail(record);
  return record;
}

// Drops one open of `name`; the record goes when its last open does.
// Returns the count before the drop, -1 when the name has no record.
int CloseOpen(t_OpenStreamList& list, const char* name) {
  POSITION pos = FindRecord(list, name);
  if (pos == nullptr) return -1;
  t_OpenStream* record = list.GetAt(pos);
  const int before = record->m_nCount--;
  if (record->m_nCount <= 0) {
    list.RemoveAt(pos);
    delete record;
  }
  return before;
}

}  // namespace

t_OpenStream* kyStorage::IsStreamOpen(const char* name) {
  return FindOpen(m_openStreams, name);
}

t_OpenStream* kyStorage::AddNewOpenStream(const char* name, DWORD mode) {
  return AddOpen(m_openStreams, name, mode);
}

int kyStorage::CloseStream(const char* name) {
  return CloseOpen(m_openStreams, name);
}

t_OpenStream* kyStream::IsStreamOpen(const char* name) {
  return FindOpen(m_openChildren, name);
}

t_OpenStream* kyStream::AddNewOpenStream(const char* name, DWORD mode) {
  return AddOpen(m_openChildren, name, mode);
}

int kyStream::CloseStream(const char* name) {
  return CloseOpen(m_openChildren, name);
}

bool kyStream::OthersHoldIt(const char* name) {
  t_OpenStream* record = m_pParent != nullptr    ? m_pParent->IsStreamOpen(name)
                         : m_pStorage != nullptr ? m_pStorage->IsStreamOpen(name)
                                                 : nullptr;
  return record != nullptr && record->m_nCount > (m_bCounted ? 1 : 0);
}

int kyStream::Release() {
  int result = 0;
  // Streams without a name were never registered (the opens skip them too).
  // An object that holds no open of its own (a root stream made by
  // creation) finds no record of its own: closing the record that another
  // object of the same name holds would let that one be removed or
  // reopened exclusively while it is still in use.
  if (m_hdr.Name()[0] != '\0') {
    if (!m_bCounted)
      result = -1;
    else if (m_pParent != nullptr)
      result = m_pParent->CloseStream(m_hdr.Name());
    else if (m_pStorage != nullptr)
      result = m_pStorage->CloseStream(m_hdr.Name());
    else
      result = -1;
  }
  if (m_pStorage != nullptr && m_pStorage->m_pRecorder != nullptr)
    m_pStorage->m_pRecorder->OpLeave(this);
  delete m_pPreloadMap;
  m_pPreloadMap = nullptr;
  delete this;
  return result;
}
