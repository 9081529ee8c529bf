// Positioning and whole reads shared by the storage's and the streams' own
// file wrappers, on the file handle or on the in-memory image of the file.
// Internal to the library.
#ifndef KYSTORE_CONTAINER_FILE_ACCESS_H_
#define KYSTORE_CONTAINER_FILE_ACCESS_H_

#include <cstdint>

#include "platform/win_file.h"

// Moves a position within an image of `size` bytes the way the file calls
// move a file position.  From the start or the cursor the target must lie
// inside the image (its end is reachable only from the end); a refused
// target gives -1 and leaves `pos` alone.  An unknown method reports `pos`.
inline __int64 SeekInImage(__int64& pos, __int64 size, __int64 distance, DWORD method) {
  __int64 target;
  switch (method) {
    case FILE_BEGIN:
      target = distance;
      break;
    case FILE_CURRENT:
      target = pos + distance;
      break;
    case FILE_END:
      pos = size;
      return pos;
    default:
      return pos;
  }
  if (target < 0 || target >= size) return -1;
  pos = target;
  return pos;
}

// The new position of the handle, or -1.
inline __int64 SeekHandle(HANDLE hFile, __int64 distance, DWORD method) {
  LARGE_INTEGER d, pos;
  d.QuadPart = distance;
  return SetFilePointerEx(hFile, d, &pos, method) ? pos.QuadPart : -1;
}

// Reads exactly `count` bytes in platform calls of at most 2 GiB each.
// False when a call fails or the file ends first.
inline bool ReadHandleExactly(HANDLE hFile, void* buf, __int64 count, OVERLAPPED* overlapped) {
  const __int64 kMaxTransfer = 0x80000000LL;
  BYTE* out = static_cast<BYTE*>(buf);
  for (__int64 done = 0; done < count;) {
    const __int64 rest = count - done;
    DWORD chunk = static_cast<DWORD>(rest < kMaxTransfer ? rest : kMaxTransfer);
    DWORD got = 0;
    if (!ReadFile(hFile, out + done, chunk, &got, overlapped) || got != chunk) return false;
    done += chunk;
  }
  return true;
}

#endif  // KYSTORE_CONTAINER_FILE_ACCESS_H_
