// The rule that decides whether a name already open may be opened again.
// Shared by the storage's open of root streams and a folder's open of its
// children.  Internal to the library.
#ifndef KYSTORE_CONTAINER_ADMISSION_H_
#define KYSTORE_CONTAINER_ADMISSION_H_

#include "kystore/open_stream.h"

// `held` is the registry record of the name (null when it is not open);
// `newMode` is the mode the new open asks for.  Only the mode of the first
// open counts: a holder with the exclusive bit admits nobody, and a holder
// that shares for reading only admits no one who wants to share writing or
// to be exclusive.  Everything else goes ahead.
inline bool OpenAdmitted(const t_OpenStream* held, DWORD newMode) {
  if (held == nullptr) return true;
  if (held->m_dwMode & kModeExclusive) return false;
  if ((held->m_dwMode & kModeShareRead) && (newMode & (kModeShareReadWrite | kModeExclusive)))
    return false;
  return true;
}

#endif  // KYSTORE_CONTAINER_ADMISSION_H_
