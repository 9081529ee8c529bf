// The generic stream file's reads, writes and seeks on the current stream,
// its current child, and children written by name.

#include "kystore/open_stream.h"
#include "kystore/stream.h"
#include "kystore/tolvar_file.h"

namespace {

// Writes all `n` bytes or reports that it did not.
bool WriteAll(kyStream* stm, const unsigned char* data, LONG n, bool bEraseOld) {
  if (stm == nullptr || (data == nullptr && n > 0)) return false;
  return stm->Write(data, n, bEraseOld) == n;
}

}  // namespace

int CTolvarFile::WriteGenericStream(kyStream* stm, unsigned char* data, LONG n) {
  return WriteAll(stm, data, n, false) ? 1 : 0;
}

int CTolvarFile::WriteGenericStream(unsigned char* data, LONG n) {
  return WriteGenericStream(m_pStream, data, n);
}

int CTolvarFile::WriteGenericChildStream(kyStream* parent, const char* name, unsigned char* data,
                                         LONG n, int bAppend, int bEraseOld) {
  if (parent == nullptr || !parent->IsFolder() || name == nullptr) return 0;
  kyStream* child = parent->OpenStream(name, kModeReadWriteShared);
  if (child != nullptr) {
    // An append to a child that has no data yet starts at its start.
    if (bAppend) child->Seek(0, 1);
  } else {
    child = parent->CreateStream(name, 0, kModeReadWriteShared, 1);
    if (child == nullptr) return 0;
  }
  const bool written = WriteAll(child, data, n, bEraseOld != 0);
  child->Release();
  return written ? 1 : 0;
}

int CTolvarFile::WriteGenericChildStream(const char* name, unsigned char* data, LONG n, int bAppend,
                                         int bEraseOld) {
  return WriteGenericChildStream(m_pStream, name, data, n, bAppend, bEraseOld);
}

DWORD CTolvarFile::WriteGenericChildOpenedStream(unsigned char* data, LONG n, int bEraseOld) {
  if (m_pStream == nullptr || n < 0) return 0;
  return WriteAll(m_pChildStream, data, n, bEraseOld != 0) ? static_cast<DWORD>(n) : 0;
}

__int64 CTolvarFile::ReadGenericStream(unsigned char* buf, __int64 n) {
  return m_pStream != nullptr ? m_pStream->Read(buf, n) : 0;
}

__int64 CTolvarFile::ReadGenericChildStream(unsigned char* buf, __int64 n) {
  if (m_pStream == nullptr || m_pChildStream == nullptr) return 0;
  return m_pChildStream->Read(buf, n);
}

// Moving back by the count read rather than by `n` puts the position back
// where the read began also after a short read.
__int64 CTolvarFile::ReadTagSeekBack(unsigned char* buf, __int64 n) {
  if (m_pStream == nullptr) return 0;
  const __int64 got = m_pStream->Read(buf, n);
  if (got <= 0) return 0;
  m_pStream->Seek(got, 2, false);
  return got;
}

__int64 CTolvarFile::GetStreamSize() {
  return m_pStream != nullptr ? m_pStream->GetLength() : 0;
}

__int64 CTolvarFile::GetChildStreamSize() {
  return m_pChildStream != nullptr ? m_pChildStream->GetLength() : 0;
}

// A stream without data has no position to move to; it counts as standing
// at its start (and end) already.
int CTolvarFile::GoToBeginningOfGenericStream() {
  if (m_pStream == nullptr) return 0;
  m_pStream->Seek(0, 0);
  return 1;
}

int CTolvarFile::GoToBeginningOfGenericChildStream() {
  if (m_pStream == nullptr || m_pChildStream == nullptr) return 0;
  m_pChildStream->Seek(0, 0);
  return 1;
}

int CTolvarFile::GoToEndOfGenericChildStream() {
  if (m_pStream == nullptr || m_pChildStream == nullptr) return 0;
  m_pChildStream->Seek(0, 1);
  return 1;
}

int CTolvarFile::SeekForward(DWORD n) {
  if (m_pStream == nullptr) return 0;
  return m_pStream->Seek(n, 2, true) != -1 ? 1 : 0;
}
