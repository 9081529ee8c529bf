// The stream object: construction, accessors, header write-back and the
// low-level transfers every block operation goes through.

#include <cstring>

#include "container/file_access.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

kyStream::kyStream()
    : m_hFile(INVALID_HANDLE_VALUE),
      m_pStorage(nullptr),
      m_pParent(nullptr),
      m_hdr(),
      m_blockHdr(),
      m_offset(),
      m_dwOpenMode(0),
      m_memPos(0),
      m_bSortStreams(0),
      m_iSortOrder(0),
      m_iCurBlock(0),
      m_iBlockPos(0),
      m_iDataPos(0),
      m_pPreloadMap(nullptr),
      m_nChildren(0),
      m_openChildren(10),
      m_b64BitOffsets(0),
      m_bCounted(false) {}

kyStream::kyStream(kyStorage* storage, t_kyStreamU& header, void* hFile, tag_kyStreamOffset& offset)
    : kyStream() {
  m_hFile = hFile;
  m_pStorage = storage;
  m_b64BitOffsets = storage ? storage->m_bUse64BitOffsets : 0;
  m_hdr = header;
  m_offset = {offset.headerOffset, offset.blockOffset, offset.dwBlockSlots, 0};
  // A name that fills its whole field on disk is cut at the longest legal
  // length, so that GetName always returns a terminated string.
  m_hdr.Name()[kMaxNameLength] = '\0';
  m_iCurBlock = m_hdr.FirstBlock(W64());
}

kyStream::kyStream(kyStream* parent, t_kyStreamU& header, void* hFile, tag_kyStreamOffset& offset)
    : kyStream() {
  m_hFile = hFile;
  m_pParent = parent;
  m_pStorage = parent->m_pStorage;
  m_b64BitOffsets = parent->m_b64BitOffsets;
  memcpy(&m_hdr, &header, static_cast<size_t>(HeaderWidth()));
  m_offset = {offset.headerOffset, 0, 0, 0};
  m_hdr.Name()[kMaxNameLength] = '\0';
  m_iCurBlock = m_hdr.FirstBlock(W64());
}

kyStream::~kyStream() {
  // Records of children still open go with their parent; those child
  // objects must not be used any more.
  for (POSITION pos = m_openChildren.GetHeadPosition(); pos != nullptr;)
    delete m_openChildren.GetNext(pos);
  m_openChildren.RemoveAll();
}

bool kyStream::StorageInMemory() const {
  return m_pStorage != nullptr && m_pStorage->m_bInMemory;
}

int kyStream::GetChildrenOf(kyStream* pAncestor, kyStream** apChain, int nMax) {
  kyStream* p = m_pParent;
  int n = 0;
  if (p == nullptr) return 0;
  while (p != nullptr) {
    if (p == pAncestor) return n;
    if (n == nMax) return -1;
    apChain[n++] = p;
    p = p->m_pParent;
  }
  return pAncestor == nullptr ? n : 0;
}

bool kyStream::WriteStreamHeader(__int64 offset, t_kyStreamU& header) {
  // Noted before writing: a write that fails half-way changes the slot too.
  NoteChildHeaderWritten(offset, header);
  if (SetFilePointer(m_hFile, offset, FILE_BEGIN) == -1) return false;
  const DWORD width = static_cast<DWORD>(HeaderWidth());
  DWORD written = 0;
  return WriteFile(m_hFile, &header, width, &written, nullptr) && written == width;
}

// Another object of the same stream may have written to it since this one
// read its header (a folder's children added through a second object of
// the folder), so the length and chain ends on disk can be ahead of this
// object's copy; writing that copy back would cut off what the other object
// added.  Chains only grow at their end, so taking the newer values over
// keeps this object's cursor valid.  False when the slot on disk is no
// longer this stream's (damage): the caller then refuses to write.
bool kyStream::CatchUpWithHeaderOnDisk() {
  if (m_pStorage == nullptr || m_offset.headerOffset <= 0 || StorageInMemory()) return true;
  const bool b64 = W64();
  t_kyStreamU disk;
  memset(&disk, 0, sizeof(disk));
  if (!m_pStorage->ReadAt(m_offset.headerOffset, disk.raw, HeaderWidth())) return false;
  if (disk.Magic() != kStreamHeaderMagic ||
      strncmp(disk.Name(), m_hdr.Name(), static_cast<size_t>(kMaxNameLength)) != 0)
    return false;
  const __int64 first = m_hdr.FirstBlock(b64);
  if (first != 0 && disk.FirstBlock(b64) != first) return false;  // another chain
  if (disk.Length(b64) <= m_hdr.Length(b64)) return true;
  m_hdr.SetLength(b64, disk.Length(b64));
  m_hdr.SetFirstBlock(b64, disk.FirstBlock(b64));
  m_hdr.SetLastBlock(b64, disk.LastBlock(b64));
  return true;
}

// A stream's header goes back through its parent folder, or through the
// storage for a root stream.
bool kyStream::WriteHeaderBack() {
  if (m_pParent != nullptr) return m_pParent->WriteStreamHeader(m_offset.headerOffset, m_hdr);
  return m_pStorage != nullptr && m_pStorage->WriteStreamHeader(m_offset.headerOffset, m_hdr);
}

BOOL kyStream::ReadFile(HANDLE hFile, void* buf, __int64 count, __int64* pRead,
                        OVERLAPPED* overlapped) {
  if (count <= 0) {
    if (pRead) *pRead = count;
    return TRUE;
  }
  if (StorageInMemory()) {
    // One in-memory transfer moves at most the transfer cap.
    const __int64 kCap = 0x3F000000LL;
    __int64 n = count > kCap ? kCap : count;
    if (n > m_pStorage->m_imageSize - m_memPos) return FALSE;
    memcpy(buf, m_pStorage->m_pImage + m_memPos, static_cast<size_t>(n));
    m_memPos += n;
    if (pRead) *pRead = n;
    return TRUE;
  }
  if (!ReadHandleExactly(hFile, buf, count, overlapped)) return FALSE;
  if (pRead) *pRead = count;
  return TRUE;
}

__int64 kyStream::SetFilePointer(HANDLE hFile, __int64 distance, DWORD method) {
  if (!StorageInMemory()) return SeekHandle(hFile, distance, method);
  return SeekInImage(m_memPos, m_pStorage->m_imageSize, distance, method);
}
