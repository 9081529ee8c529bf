// Windows global-memory calls.  Buffers that the library hands to callers
// (stream copies, entry buffers) come from here and go back through
// GlobalFree, as applications written against the Windows library expect.
#ifndef KYSTORE_PLATFORM_GLOBAL_MEM_H_
#define KYSTORE_PLATFORM_GLOBAL_MEM_H_

#include "win_types.h"

#define GMEM_FIXED 0x0000u
#define GMEM_MOVEABLE 0x0002u
#define GMEM_ZEROINIT 0x0040u
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)
#define GHND (GMEM_MOVEABLE | GMEM_ZEROINIT)

// Allocates `bytes` bytes (zero-filled with GMEM_ZEROINIT).  Moveable blocks
// never move here, so the handle is also the address; GlobalLock returns it.
// Null on failure.
HGLOBAL GlobalAlloc(UINT flags, SIZE_T bytes);

// Resizes a block; with GMEM_ZEROINIT the added tail is zero-filled.  Null on
// failure, and the old block stays valid.
HGLOBAL GlobalReAlloc(HGLOBAL mem, SIZE_T bytes, UINT flags);

// Frees a block.  Returns null on success (as Windows does), `mem` if it was
// not a block of ours.
HGLOBAL GlobalFree(HGLOBAL mem);

SIZE_T GlobalSize(HGLOBAL mem);
void* GlobalLock(HGLOBAL mem);
BOOL GlobalUnlock(HGLOBAL mem);

#endif  // KYSTORE_PLATFORM_GLOBAL_MEM_H_
