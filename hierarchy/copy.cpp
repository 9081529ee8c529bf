// Copying one stream's data into another, and a folder's tree into another
// folder (of the same storage or of another one), merging.

#include <cstring>

#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/global_mem.h"
#include "platform/win_file.h"

namespace {

const __int64 kMostPerPass = 0x80000000LL;  // most bytes moved by one read or write

__int64 Smaller(__int64 a, __int64 b) {
  return a < b ? a : b;
}

// Copies `child` into the child of the same name in `dst`: over one of the
// same kind, in place of one of the other kind, or into a new one.
bool CopyChildInto(kyStream* child, kyStream* dst) {
  const bool folder = child->IsFolder() != 0;
  kyStream* target = dst->OpenStream(child->GetName(), kModeReadWriteShared);
  if (target != nullptr && (target->IsFolder() != 0) != folder) {
    if (!target->Remove()) {
      target->Release();
      return false;
    }
    target = nullptr;
  }
  if (target == nullptr)
    target = dst->CreateStream(child->GetName(), folder ? 1 : 0, kModeReadWriteShared, 1);
  if (target == nullptr) return false;
  const bool copied = folder ? child->CopyFolder(target) : child->CopyStream(target);
  target->Release();
  return copied;
}

}  // namespace

// Both objects may share the storage's one file position, and each of them
// relies on it standing under its own cursor while a block is loaded: the
// source's reads move it away from the destination's cursor and the
// destination's writes away from the source's.  So each is put back under
// its own cursor before each of its transfers.
bool kyStream::CopyStream(kyStream* dst) {
  // Copying a stream onto itself would erase it first.
  if (dst == nullptr || IsSameStream(dst)) return false;
  // The size-prefix mark tells how the data are laid out, so it goes with
  // them; the erase writes it out with the header.  A folder's flags stay.
  // A destination that cannot be erased (opened without write access, or
  // the header write failed) keeps its mark and is not copied into.
  const BYTE oldFlags = dst->m_hdr.Flags();
  if ((oldFlags & kFolderFlag) == 0) {
    dst->m_hdr.Flags() =
        static_cast<BYTE>((oldFlags & ~kSizePrefixFlag) | (m_hdr.Flags() & kSizePrefixFlag));
  }
  if (!dst->Erase()) {
    dst->m_hdr.Flags() = oldFlags;
    return false;
  }
  const __int64 length = GetLength();
  if (length <= 0) return false;
  // A length the file cannot hold is damage; the reads would come short.
  const __int64 fileSize = m_pStorage != nullptr ? m_pStorage->CurrentFileSize() : -1;
  if (fileSize >= 0 && length > fileSize) return false;

  const __int64 bufferSize = Smaller(length, kMostPerPass);
  BYTE* buffer = static_cast<BYTE*>(GlobalAlloc(GPTR, static_cast<SIZE_T>(bufferSize)));
  if (buffer == nullptr) return false;
  dst->Seek(0, 0, true);
  __int64 copied = 0;
  while (copied < length) {
    const __int64 chunk = Smaller(length - copied, kMostPerPass);
    if (!ResumeAtCursor() || Read(buffer, chunk) != chunk) break;
    if (!dst->ResumeAtCursor() || dst->Write(buffer, chunk, true, nullptr) != chunk) break;
    copied += chunk;
  }
  GlobalFree(buffer);
  return copied == length;
}

// With no block loaded the next transfer finds its block by itself; on an
// in-memory image every object keeps a position of its own.
bool kyStream::ResumeAtCursor() {
  if (m_iBlockPos == 0 || StorageInMemory()) return true;
  return SetFilePointer(m_hFile, m_iCurBlock + m_iBlockPos, FILE_BEGIN) != -1;
}

bool kyStream::CopyFolder(kyStream* dst) {
  if (dst == nullptr) return false;
  if (!IsFolder()) return CopyStream(dst);
  // Copying into itself or below would meet the children it creates and
  // never end.
  if (HoldsInItsTree(dst)) return false;
  bool ok = true;
  __int64 cursor = 0;
  for (kyStream* child = OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = OpenStreamNext(&cursor, kModeReadShared)) {
    if (!CopyChildInto(child, dst)) ok = false;
    child->Release();
  }
  // A walk that stops short of the end of the data met a slot it could not
  // take (damaged, or a child held against the walk's open): the children
  // after it are missing from the copy.
  return ok && cursor >= GetLength();
}
