// The file-class adapter over a stream.

#include "kystore/stream_file.h"

#include "kystore/stream.h"

IMPLEMENT_DYNAMIC(CKyStreamFile, CFile)

CKyStreamFile::~CKyStreamFile() = default;

CFile* CKyStreamFile::Duplicate() const {
  return nullptr;
}

UINT CKyStreamFile::Read(void* buf, UINT count) {
  if (m_pStream == nullptr) return 0;
  return static_cast<UINT>(m_pStream->Read(buf, count));
}

void CKyStreamFile::Write(const void* buf, UINT count) {
  if (m_pStream != nullptr && buf != nullptr) m_pStream->Write(buf, count, false, nullptr);
}

void CKyStreamFile::Abort() {}

void CKyStreamFile::Flush() {}

void CKyStreamFile::Close() {}

void CKyStreamFile::SetLength(DWORD /*newLength*/) {}

void CKyStreamFile::LockRange(DWORD /*position*/, DWORD /*count*/) {}

void CKyStreamFile::UnlockRange(DWORD /*position*/, DWORD /*count*/) {}

const CString CKyStreamFile::GetStorageName() {
  return m_pStream != nullptr ? CString(m_pStream->GetName()) : CString();
}

__int64 CKyStreamFile::GetLength() {
  return m_pStream != nullptr ? m_pStream->GetLength() : 0;
}

LONG CKyStreamFile::Seek(LONG offset, UINT from) {
  if (m_pStream == nullptr) return -1;
  return static_cast<LONG>(m_pStream->Seek2(offset, from));
}
