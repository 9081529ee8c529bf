// Opening root streams: by locator, by name through the name map, by name
// through the fast slots, and the child count of a root folder.

#include <cstring>
#include <new>

#include "container/admission.h"
#include "container/directory.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

namespace {

// Bytes of the first directory block that the fast lookup reads: the head
// and the six fast slots.
__int64 FastAreaSize(bool b64) {
  return DirectoryHeadSize(b64) + StreamHeaderSize(b64) * kFastSlots;
}

}  // namespace

kyStream* kyStorage::OpenStreamByOffset(tag_kyStreamOffset& offset, const char* name, DWORD mode) {
  if (name == nullptr) return nullptr;
  // The registry is asked before anything is read: a refused open touches
  // neither the file nor the shared file position.
  t_OpenStream* held = IsStreamOpen(name);
  if (!OpenAdmitted(held, mode)) return nullptr;
  if (!CanRead()) return nullptr;

  const bool b64 = m_bUse64BitOffsets != 0;
  const __int64 width = StreamHeaderSize(b64);
  t_kyStreamU header;
  memset(&header, 0, sizeof(header));
  __int64 got = 0;
  if (offset.headerOffset <= 0 || SetFilePointer(m_hFile, offset.headerOffset, FILE_BEGIN) == -1)
    return nullptr;
  if (!ReadFile(m_hFile, header.raw, width, &got, nullptr) || got != width) return nullptr;
  if (header.Magic() != kStreamHeaderMagic) return nullptr;

  kyStream* stm = new (std::nothrow) kyStream(this, header, m_hFile, offset);
  if (stm == nullptr) return nullptr;
  // An empty name is left out of the registry: Release skips empty names,
  // so a record made for one could never be closed again.
  if (held != nullptr) {
    ++held->m_nCount;
    stm->m_bCounted = true;
  } else if (name[0] != '\0') {
    // No memory for the record: the stream stays unregistered.
    stm->m_bCounted = AddNewOpenStream(name, mode) != nullptr;
  }
  stm->m_dwOpenMode = mode;
  stm->m_b64BitOffsets = m_bUse64BitOffsets;
  return stm;
}

kyStream* kyStorage::OpenStream(const char* name, DWORD mode) {
  tag_kyStreamOffset offset;
  if (!FindStreamOffset(name, offset)) return nullptr;
  return OpenStreamByOffset(offset, name, mode);
}

kyStream* kyStorage::OpenStreamFast(const char* name, DWORD mode) {
  // A free fast slot has an empty name; an empty name must not open it.
  if (!IsValidStreamName(name) || !CanRead()) return nullptr;
  const bool b64 = m_bUse64BitOffsets != 0;
  DirectoryBlock block;
  memset(&block, 0, sizeof(block));
  const __int64 want = FastAreaSize(b64);
  __int64 got = 0;
  if (SetFilePointer(m_hFile, m_rootOffset, FILE_BEGIN) == -1) return nullptr;
  if (!ReadFile(m_hFile, block.raw, want, &got, nullptr) || got != want) return nullptr;
  if (block.Magic() != kDirectoryBlockMagic) return nullptr;

  __int64 n = UsableSlots(block);
  if (n > m_wFastSlots) n = m_wFastSlots;
  if (n > kFastSlots) n = kFastSlots;  // never past the bytes read
  for (__int64 i = 0; i < n; ++i) {
    t_kyStreamU slot;
    CopyDirectorySlot(block, i, b64, slot);
    if (SlotName(slot) != name) continue;
    tag_kyStreamOffset offset = {SlotOffset(m_rootOffset, i, b64), m_rootOffset, block.SlotCount(),
                                 static_cast<DWORD>(slot.Duration()) * 60u};
    return OpenStreamByOffset(offset, name, mode);
  }
  return nullptr;
}

kyStream* kyStorage::OpenStreamFirst(DWORD mode) {
  return CreateStreamHelper(nullptr, 0, mode, false, true);
}

// The count is the DWORD at the start of the folder's data, read afresh:
// a freshly opened stream has not read it yet.
DWORD kyStorage::GetSubfolderCount(const char* name) {
  kyStream* stm = OpenStream(name, kModeReadShared);
  if (stm == nullptr) return 0;
  DWORD count = 0;
  stm->PeekChildCount(count);
  stm->Release();
  return count;
}
