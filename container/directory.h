// Helpers for reading root directory blocks and their slots.  Internal to
// the library.
#ifndef KYSTORE_CONTAINER_DIRECTORY_H_
#define KYSTORE_CONTAINER_DIRECTORY_H_

#include <cstring>

#include "kystore/format.h"
#include "platform/cstring.h"

// Copies slot `index` of a directory block read whole into `out` (the bytes
// of the other layout's tail are zero).
inline void CopyDirectorySlot(const DirectoryBlock& block, __int64 index, bool b64,
                              t_kyStreamU& out) {
  memset(&out, 0, sizeof(out));
  memcpy(&out, block.raw + DirectoryHeadSize(b64) + StreamHeaderSize(b64) * index,
         static_cast<size_t>(StreamHeaderSize(b64)));
}

// Slots of a block that can be visited: its slot count, but never more than
// a block of our size holds, so that a damaged count cannot lead a reader
// past the bytes it read.
inline __int64 UsableSlots(const DirectoryBlock& block) {
  return block.SlotCount() < kSlotsPerBlock ? block.SlotCount() : kSlotsPerBlock;
}

// A slot's name, read without trusting the file to terminate it.
inline CString SlotName(const t_kyStreamU& header) {
  return CString(header.Name(), static_cast<int>(strnlen(header.Name(), kMaxNameLength)));
}

// True for a name a stream may be created or renamed with: 1 to 60 bytes.
inline bool IsValidStreamName(const char* name) {
  if (name == nullptr || name[0] == '\0') return false;
  return strnlen(name, kMaxNameLength + 1) <= static_cast<size_t>(kMaxNameLength);
}

#endif  // KYSTORE_CONTAINER_DIRECTORY_H_
