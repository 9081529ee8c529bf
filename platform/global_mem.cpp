#include "global_mem.h"

#include <cstdlib>
#include <cstring>

namespace {

// Each block carries its size in front of the caller's bytes so that
// GlobalReAlloc can zero exactly the added tail and GlobalSize can answer.
struct BlockHeader {
  SIZE_T size;
  SIZE_T magic;
};
const SIZE_T kBlockMagic = 0x6B79476Cu;  // "kyGl"
static_assert(sizeof(BlockHeader) % alignof(std::max_align_t) == 0 ||
                  sizeof(BlockHeader) >= alignof(std::max_align_t),
              "block header must keep the payload aligned");

BlockHeader* HeaderOf(HGLOBAL mem) {
  if (mem == nullptr) return nullptr;
  BlockHeader* h = static_cast<BlockHeader*>(mem) - 1;
  return h->magic == kBlockMagic ? h : nullptr;
}

}  // namespace

HGLOBAL GlobalAlloc(UINT flags, SIZE_T bytes) {
  if (bytes > SIZE_MAX - sizeof(BlockHeader)) return nullptr;
  BlockHeader* h =
      static_cast<BlockHeader*>((flags & GMEM_ZEROINIT) ? calloc(1, sizeof(BlockHeader) + bytes)
                                                        : malloc(sizeof(BlockHeader) + bytes));
  if (h == nullptr) return nullptr;
  h->size = bytes;
  h->magic = kBlockMagic;
  return h + 1;
}

HGLOBAL GlobalReAlloc(HGLOBAL mem, SIZE_T bytes, UINT flags) {
  BlockHeader* h = HeaderOf(mem);
  if (h == nullptr || bytes > SIZE_MAX - sizeof(BlockHeader)) return nullptr;
  SIZE_T old = h->size;
  BlockHeader* n = static_cast<BlockHeader*>(realloc(h, sizeof(BlockHeader) + bytes));
  if (n == nullptr) return nullptr;
  if ((flags & GMEM_ZEROINIT) && bytes > old)
    memset(reinterpret_cast<char*>(n + 1) + old, 0, bytes - old);
  n->size = bytes;
  return n + 1;
}

HGLOBAL GlobalFree(HGLOBAL mem) {
  if (mem == nullptr) return nullptr;
  BlockHeader* h = HeaderOf(mem);
  if (h == nullptr) return mem;
  h->magic = 0;
  free(h);
  return nullptr;
}

SIZE_T GlobalSize(HGLOBAL mem) {
  BlockHeader* h = HeaderOf(mem);
  return h ? h->size : 0;
}

void* GlobalLock(HGLOBAL mem) {
  return HeaderOf(mem) ? mem : nullptr;
}

BOOL GlobalUnlock(HGLOBAL /*mem*/) {
  return FALSE;
}
