// The recorder as a growable byte buffer with a read position: allocation,
// growth, appending, reading, ownership transfers and copies.
//
// Invariants kept by every operation while a buffer exists:
//   position <= data length <= allocated length.
// Without a buffer (after Detach, or before the first Add) nothing can be
// read, whatever the counters still say.

#include <cstdlib>
#include <cstring>
#include <new>

#include "kystore/recorder.h"
#include "platform/cstring.h"

namespace {

// Bytes that can still be read at `pos`.
unsigned int Readable(const unsigned char* buf, unsigned int pos, unsigned int dataLength) {
  if (buf == nullptr || pos >= dataLength) return 0;
  return dataLength - pos;
}

unsigned int Smaller(unsigned int a, unsigned int b) {
  return a < b ? a : b;
}

}  // namespace

CCompRecorder::CCompRecorder(unsigned int nGrowBy)
    : m_iStmDepth(0),
      m_bStopped(0),
      m_pBuffer(nullptr),
      m_nPos(0),
      m_nLength(0),
      m_nDataLength(0),
      m_bOwnBuffer(1),
      m_bThrowExceptions(0),
      m_nGrowBy(nGrowBy < 4096 ? 4096 : nGrowBy) {
  memset(m_aStmStack, 0, sizeof(m_aStmStack));
}

CCompRecorder::~CCompRecorder() {
  if (m_bOwnBuffer) free(m_pBuffer);
}

void CCompRecorder::Init(unsigned int size) {
  if (m_pBuffer != nullptr) return;
  unsigned char* p = static_cast<unsigned char*>(malloc(size));
  if (p == nullptr) return;
  m_pBuffer = p;
  m_nLength = size;
  m_nPos = 0;
  // A fresh buffer holds no data yet, even when a detached one left its
  // data length behind; otherwise Read could run past the new buffer.
  m_nDataLength = 0;
  m_bOwnBuffer = 1;
}

int CCompRecorder::Expand(unsigned int n) {
  Init(4096);
  if (m_pBuffer == nullptr) return 0;
  unsigned int increment = n != 0 ? n : m_nGrowBy;
  if (increment > 0xFFFFFFFFu - m_nLength) return 0;  // the length would wrap
  unsigned int newLength = m_nLength + increment;
  unsigned char* p;
  if (m_bOwnBuffer) {
    p = static_cast<unsigned char*>(realloc(m_pBuffer, newLength));
    if (p == nullptr) return 0;
  } else {
    // A borrowed buffer belongs to someone else and may not come from
    // malloc: move the data into a buffer of our own and leave it untouched.
    p = static_cast<unsigned char*>(malloc(newLength));
    if (p == nullptr) return 0;
    memcpy(p, m_pBuffer, m_nDataLength);
    m_bOwnBuffer = 1;
  }
  m_pBuffer = p;
  m_nLength = newLength;
  return 1;
}

// When the bytes cannot be placed (no memory, or position + n beyond what 32
// bits count) nothing is written and the recorder stops: a recording that
// silently lost bytes would replay into something other than what happened.
void CCompRecorder::Add(unsigned char* const data, unsigned int n, unsigned int nInit) {
  if (data == nullptr || n == 0) return;
  Init(nInit);
  if (n > 0xFFFFFFFFu - m_nPos) {
    Stop();
    return;
  }
  if (m_pBuffer == nullptr || m_nPos + n > m_nLength) {
    if (!Expand(n > nInit ? n : nInit) || m_nPos + n > m_nLength) {
      Stop();
      return;
    }
  }
  memcpy(m_pBuffer + m_nPos, data, n);
  m_nPos += n;
  if (m_nPos > m_nDataLength) m_nDataLength = m_nPos;
}

int CCompRecorder::Read(unsigned char* dst, unsigned int n, int bThrow) {
  if (n > Readable(m_pBuffer, m_nPos, m_nDataLength) || (n != 0 && dst == nullptr)) {
    if (bThrow && m_bThrowExceptions) throw CString("Read error");
    return 0;
  }
  if (n != 0) memcpy(dst, m_pBuffer + m_nPos, n);
  m_nPos += n;
  return 1;
}

int CCompRecorder::PeekByte(unsigned char& b) {
  if (Readable(m_pBuffer, m_nPos, m_nDataLength) == 0) return 0;
  b = m_pBuffer[m_nPos];
  return 1;
}

unsigned char* CCompRecorder::PeekAll(unsigned int* n) {
  if (n != nullptr) *n = Readable(m_pBuffer, m_nPos, m_nDataLength);
  return m_pBuffer != nullptr ? m_pBuffer + m_nPos : nullptr;
}

void CCompRecorder::SeekToBegin() {
  m_nPos = 0;
}

unsigned int CCompRecorder::GetBufferPos() const {
  return m_nPos;
}

unsigned int CCompRecorder::GetLength() const {
  return m_nLength;
}

unsigned int CCompRecorder::GetDataLength() const {
  return m_nDataLength;
}

int CCompRecorder::GetStmDepth() const {
  return m_iStmDepth;
}

int CCompRecorder::HasBeenStopped() const {
  return m_bStopped;
}

void CCompRecorder::ThrowExceptions(int b) {
  m_bThrowExceptions = b;
}

void CCompRecorder::Empty() {
  if (m_bOwnBuffer) {
    free(m_pBuffer);
    m_pBuffer = nullptr;
    m_nLength = 0;
  }
  m_nPos = 0;
  m_nDataLength = 0;
}

void CCompRecorder::Attach(unsigned char* buf, unsigned int n, int bOwn) {
  // Re-attaching the buffer we already hold must not free it.
  if (m_bOwnBuffer && m_pBuffer != buf) free(m_pBuffer);
  m_pBuffer = buf;
  // Without a buffer there are no bytes, whatever `n` says.
  m_nLength = buf != nullptr ? n : 0;
  m_nDataLength = m_nLength;
  m_nPos = 0;
  m_bOwnBuffer = bOwn;
}

unsigned char* CCompRecorder::Detach(unsigned int* n) {
  unsigned char* p = m_pBuffer;
  m_pBuffer = nullptr;
  if (n != nullptr) *n = m_nDataLength;
  return p;
}

void CCompRecorder::Free(unsigned char* p) {
  free(p);
}

// Out of memory gives null rather than an exception: the recorder reports
// failures by results.
CCompRecorder* CCompRecorder::Clone() {
  CCompRecorder* copy = new (std::nothrow) CCompRecorder(m_nGrowBy);
  if (copy == nullptr) return nullptr;
  if (m_nLength != 0 && m_pBuffer != nullptr) {
    copy->Init(m_nLength);
    if (copy->m_pBuffer == nullptr) {
      delete copy;
      return nullptr;
    }
    copy->m_nDataLength = m_nDataLength <= m_nLength ? m_nDataLength : m_nLength;
    memcpy(copy->m_pBuffer, m_pBuffer, copy->m_nDataLength);
  }
  return copy;
}

// The assigned-to recorder takes a copy of its own of the buffer, so that
// each recorder frees only what it holds, whichever of them is destroyed,
// emptied or grown first; the source is left exactly as it was.  Only a
// recorder that already owns the very buffer the source borrows from it
// keeps that buffer: its bytes are the source's.  When the copy cannot be
// allocated the recorder ends without a buffer and stopped, so that it
// never claims data it does not hold.
CCompRecorder& CCompRecorder::operator=(const CCompRecorder& other) {
  if (this == &other) return *this;
  const bool keepsOwn = m_bOwnBuffer && m_pBuffer != nullptr && m_pBuffer == other.m_pBuffer;
  unsigned char* buffer = keepsOwn ? m_pBuffer : nullptr;
  unsigned int length = keepsOwn ? m_nLength : 0;
  bool lost = false;
  if (!keepsOwn && other.m_pBuffer != nullptr && other.m_nLength != 0) {
    buffer = static_cast<unsigned char*>(malloc(other.m_nLength));
    lost = buffer == nullptr;
    length = lost ? 0 : other.m_nLength;
    if (!lost) memcpy(buffer, other.m_pBuffer, Smaller(other.m_nDataLength, length));
  } else if (!keepsOwn) {
    length = other.m_nLength;  // no bytes, only the counters (as after Detach)
  }
  if (m_bOwnBuffer && m_pBuffer != buffer) free(m_pBuffer);
  memcpy(m_aStmStack, other.m_aStmStack, sizeof(m_aStmStack));
  m_iStmDepth = other.m_iStmDepth;
  m_bStopped = lost ? 1 : other.m_bStopped;
  m_pBuffer = buffer;
  m_nLength = length;
  m_nDataLength = lost ? 0 : Smaller(other.m_nDataLength, length);
  m_nPos = lost ? 0 : Smaller(other.m_nPos, m_nDataLength);
  m_bOwnBuffer = 1;
  m_bThrowExceptions = other.m_bThrowExceptions;
  m_nGrowBy = other.m_nGrowBy;
  return *this;
}
