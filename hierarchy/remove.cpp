// Removing a stream with everything below it, and emptying a folder.
//
// Nothing is freed in the file: a removed stream's slot keeps its magic and
// its block chain and becomes free, to be taken by a later creation.

#include <cstring>

#include "container/directory.h"
#include "kystore/recorder.h"
#include "kystore/storage.h"
#include "kystore/stream.h"

void kyStream::RemoveChildren() {
  __int64 cursor = 0;
  for (kyStream* child = OpenStreamFirst(&cursor, kModeReadWriteShared); child != nullptr;
       child = OpenStreamNext(&cursor, kModeReadWriteShared)) {
    if (!child->Remove()) child->Release();
  }
}

bool kyStream::Remove() {
  if ((m_dwOpenMode & kModeWrite) == 0 || m_hdr.IsFree()) return false;
  if (m_pStorage == nullptr) return false;
  const CString name = SlotName(m_hdr);
  // Another object of this stream, or of anything below it, would go on
  // writing into a slot that is free on disk or already someone else's.
  if (OthersHoldIt(name) || IsOpenBelow()) return false;

  if (IsFolder()) RemoveChildren();

  // The slot is freed on disk before anything else changes, so that a
  // failed write leaves the object, its registry record and the maps as
  // they were.
  const t_kyStreamU kept = m_hdr;
  const bool b64 = W64();
  memset(m_hdr.Name(), 0, kMaxNameLength + 1);
  m_hdr.SetLength(b64, 0);
  m_hdr.Duration() = 0;
  m_hdr.Flags() = 0;
  if (!WriteHeaderBack()) {
    m_hdr = kept;
    return false;
  }

  kyStream* parent = m_pParent;
  kyStorage* storage = m_pStorage;
  if (storage->m_pRecorder != nullptr) storage->m_pRecorder->OpRemove(name, parent);
  if (parent != nullptr) {
    if (m_bCounted) parent->CloseStream(name);
    parent->ForgetPreloadedChild(name);
  } else {
    if (m_bCounted) storage->CloseStream(name);
    storage->RemoveStream(name);
  }
  m_bCounted = false;
  Release();  // the name is empty now: Release closes nothing
  if (storage->m_pRecorder != nullptr) storage->m_pRecorder->OpLeave(parent);
  return true;
}

void kyStream::ClearFolder() {
  if (IsFolder()) RemoveChildren();
}
