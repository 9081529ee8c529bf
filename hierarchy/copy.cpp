// Copying one stream's data into another, and a folder's tree into another
// folder (of the same storage or of another one), merging.

#include <cstring>

#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/global_mem.h"

namespace {

const int64_t kMostPerPass = 0x80000000LL;  // most bytes moved by one read or write

int64_t Smaller(int64_t a, int64_t b) {
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

bool kyStream::CopyStream(kyStream* dst) {
  // Copying a stream onto itself would erase it first.
  if (dst == nullptr || IsSameStream(dst)) return false;
  dst->Erase();
  const int64_t length = GetLength();
  if (length <= 0) return false;
  // A length the file cannot hold is damage; the reads would come short.
  const int64_t fileSize = m_pStorage != nullptr ? m_pStorage->CurrentFileSize() : -1;
  if (fileSize >= 0 && length > fileSize) return false;

  const int64_t bufferSize = Smaller(length, kMostPerPass);
  BYTE* buffer = static_cast<BYTE*>(GlobalAlloc(GPTR, static_cast<SIZE_T>(bufferSize)));
  if (buffer == nullptr) return false;
  dst->Seek(0, 0, true);
  const int64_t start = m_iDataPos;
  int64_t copied = 0;
  while (copied < length) {
    const int64_t chunk = Smaller(length - copied, kMostPerPass);
    // The destination's writes move the shared file position: the source
    // goes back under its cursor before every read.
    if (SeekRight(start + copied, true) != 0) break;
    if (Read(buffer, chunk) != chunk) break;
    if (dst->Write(buffer, chunk, true, nullptr) != chunk) break;
    copied += chunk;
  }
  GlobalFree(buffer);
  return copied == length;
}

bool kyStream::CopyFolder(kyStream* dst) {
  if (dst == nullptr) return false;
  if (!IsFolder()) return CopyStream(dst);
  // Copying into itself or below would meet the children it creates and
  // never end.
  if (HoldsInItsTree(dst)) return false;
  bool ok = true;
  int64_t cursor = 0;
  for (kyStream* child = OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = OpenStreamNext(&cursor, kModeReadShared)) {
    if (!CopyChildInto(child, dst)) ok = false;
    child->Release();
  }
  return ok;
}
