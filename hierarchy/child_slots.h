// Small helpers shared by the folder operations: reading a child slot's
// name safely and splitting a creation's type argument.  Internal to the
// library.
#ifndef KYSTORE_HIERARCHY_CHILD_SLOTS_H_
#define KYSTORE_HIERARCHY_CHILD_SLOTS_H_

#include <cstring>

#include "kystore/format.h"

// Deepest nesting a child may be opened or created at (a root stream is at
// depth 1).  The operations that descend a tree recurse once per level, so
// the limit keeps a crafted or damaged file from exhausting the stack.
const int kMaxFolderDepth = 1024;

// True when the slot's name is exactly `name`, byte by byte.  The slot is
// not trusted to terminate its name: at most 60 characters of it count, as
// everywhere else a name is read from disk.
inline bool SlotNameIs(const t_kyStreamU& slot, const char* name) {
  if (name == nullptr) return false;
  const size_t slotLength = strnlen(slot.Name(), kMaxNameLength);
  return strnlen(name, kMaxNameLength + 1) == slotLength &&
         memcmp(slot.Name(), name, slotLength) == 0;
}

// The low byte of a creation's type makes a folder; the high word is the
// duration in minutes.  Bits 8 to 15 mean nothing.
inline bool TypeMakesFolder(DWORD dwType) {
  return (dwType & 0xFFu) != 0;
}
inline WORD TypeDuration(DWORD dwType) {
  return static_cast<WORD>(dwType >> 16);
}

#endif  // KYSTORE_HIERARCHY_CHILD_SLOTS_H_
