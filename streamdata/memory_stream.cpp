// The memory stream: Read and Write over one growable block of global
// memory, and the hand-over of that block.

#include "kystore/memory_stream.h"

#include <climits>
#include <cstring>

#include "platform/global_mem.h"

namespace {

// Least number of bytes a block grows by.
const __int64 kLeastGrowth = 1024;

}  // namespace

kyStream2::kyStream2(void* buffer, int size)
    : kyStream(),
      m_pBuffer(buffer),
      m_pCur(static_cast<BYTE*>(buffer)),
      m_nSize(buffer != nullptr && size > 0 ? size : 0),
      m_nPos(0),
      m_bOwnBuffer(buffer == nullptr) {}

// A caller's block stays the caller's, even when a write moved it.
kyStream2::~kyStream2() {
  if (m_bOwnBuffer && m_pBuffer != nullptr) GlobalFree(m_pBuffer);
}

__int64 kyStream2::MostBytesHeld() {
  return m_nSize;
}

__int64 kyStream2::Read(void* buf, __int64 count) {
  if (count <= 0) return 0;
  if (buf == nullptr) return -1;
  const __int64 left = static_cast<__int64>(m_nSize) - m_nPos;
  const __int64 n = count < left ? count : left;
  if (n <= 0) return 0;
  memcpy(buf, m_pCur, static_cast<size_t>(n));
  m_nPos += static_cast<int>(n);
  m_pCur += n;
  return n;
}

// The block never passes INT_MAX bytes, its size being an int; a failed
// allocation keeps the old block and size.
void kyStream2::Grow(__int64 count) {
  const __int64 room = static_cast<__int64>(m_nSize) - m_nPos;
  if (count <= room) return;
  __int64 newSize;
  if (m_pBuffer != nullptr) {
    const __int64 missing = count - room;
    newSize = m_nSize + (missing > kLeastGrowth ? missing : kLeastGrowth);
  } else {
    newSize = count > kLeastGrowth ? count : kLeastGrowth;
  }
  if (newSize > INT_MAX) newSize = INT_MAX;
  if (newSize <= m_nSize) return;

  void* block;
  if (m_pBuffer != nullptr) {
    block = GlobalReAlloc(m_pBuffer, static_cast<SIZE_T>(newSize), GMEM_MOVEABLE | GMEM_ZEROINIT);
  } else {
    block = GlobalAlloc(GPTR, static_cast<SIZE_T>(newSize));
    // A block the stream allocates is its own, also after a caller's
    // block was detached: nobody else knows of it.
    if (block != nullptr) m_bOwnBuffer = true;
  }
  if (block == nullptr) return;
  m_pBuffer = block;
  m_nSize = static_cast<int>(newSize);
  m_pCur = static_cast<BYTE*>(m_pBuffer) + m_nPos;
}

__int64 kyStream2::Write(const void* buf, __int64 count, bool /*bEraseOld*/,
                         __int64* /*pFileOffset*/) {
  if (count <= 0) return 0;
  if (buf == nullptr) return -1;
  Grow(count);
  const __int64 left = static_cast<__int64>(m_nSize) - m_nPos;
  const __int64 n = count < left ? count : left;
  if (n <= 0) return 0;
  memcpy(m_pCur, buf, static_cast<size_t>(n));
  m_nPos += static_cast<int>(n);
  m_pCur += n;
  return n;
}

void* kyStream2::Detach(int& size) {
  size = m_nPos;
  if (m_nPos == 0) return nullptr;
  void* block = m_pBuffer;
  m_pBuffer = nullptr;
  m_pCur = nullptr;
  m_nPos = 0;
  m_nSize = 0;
  m_bOwnBuffer = false;
  return block;
}
