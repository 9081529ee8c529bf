// Whether a copy holds everything its original holds: the rebuild replaces
// a storage file only by a copy that passes this check.
//
// Every stream of the original tree must have its counterpart of the same
// name and kind, with the same size-prefix mark, length and bytes, and every
// folder the same number of used children.  A walk over an original folder
// that stops short of the folder's length met damage (or a child it could
// not open): the original cannot be read whole, so it is not matched.

#include <cstring>

#include "kystore/storage.h"
#include "kystore/stream.h"

bool kyStorage::SameTree(kyStream* original, kyStream* copy, BYTE* bufA, BYTE* bufB) {
  if ((original->IsFolder() != 0) != (copy->IsFolder() != 0)) return false;
  if ((original->m_hdr.Flags() & kSizePrefixFlag) != (copy->m_hdr.Flags() & kSizePrefixFlag))
    return false;
  return original->IsFolder() ? SameChildren(original, copy, bufA, bufB)
                              : SameData(original, copy, bufA, bufB);
}

// The two streams lie in different storages, so reading one does not move
// the other's file position.
bool kyStorage::SameData(kyStream* original, kyStream* copy, BYTE* bufA, BYTE* bufB) {
  const __int64 kPiece = 64 * 1024;  // the size of each buffer
  const __int64 length = original->GetLength();
  if (length < 0 || copy->GetLength() != length) return false;
  if (length == 0) return true;  // a stream without blocks cannot even seek
  if (original->Seek(0, 0, true) != 0 || copy->Seek(0, 0, true) != 0) return false;
  for (__int64 done = 0; done < length;) {
    const __int64 piece = length - done < kPiece ? length - done : kPiece;
    if (original->Read(bufA, piece) != piece || copy->Read(bufB, piece) != piece) return false;
    if (memcmp(bufA, bufB, static_cast<size_t>(piece)) != 0) return false;
    done += piece;
  }
  return true;
}

bool kyStorage::SameChildren(kyStream* original, kyStream* copy, BYTE* bufA, BYTE* bufB) {
  __int64 cursor = 0;
  __int64 children = 0;
  for (kyStream* child = original->OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = original->OpenStreamNext(&cursor, kModeReadShared)) {
    kyStream* twin = copy->OpenStream(child->GetName(), kModeReadShared);
    const bool same = twin != nullptr && SameTree(child, twin, bufA, bufB);
    if (twin != nullptr) twin->Release();
    child->Release();
    if (!same) return false;
    ++children;
  }
  if (cursor < original->GetLength()) return false;
  // Two original children of one name would meet one copy: count them.
  __int64 copied = 0;
  cursor = 0;
  for (kyStream* child = copy->OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = copy->OpenStreamNext(&cursor, kModeReadShared)) {
    child->Release();
    ++copied;
  }
  return copied == children;
}
