// The generic stream file: its life cycle, and choosing the current stream
// by name.

#include "kystore/tolvar_file.h"

#include "kystore/open_stream.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/global_mem.h"
#include "platform/win_file.h"

CTolvarFile::CTolvarFile()
    : m_iMode(0),
      m_bCreated(0),
      m_pStorage(nullptr),
      m_pStream(nullptr),
      m_pChildStream(nullptr),
      m_szName{},
      m_hInfo(nullptr),
      m_iChildCursor(-1) {}

CTolvarFile::CTolvarFile(const CTolvarFile& other) : CTolvarFile() {
  m_bCreated = other.m_bCreated;
}

CTolvarFile& CTolvarFile::operator=(const CTolvarFile& other) {
  if (this != &other) {
    Close();
    FreeInfoBlock();
    m_bCreated = other.m_bCreated;
  }
  return *this;
}

CTolvarFile::~CTolvarFile() {
  Close();
  FreeInfoBlock();
}

DWORD CTolvarFile::StreamOpenMode() const {
  return m_iMode == 2 ? kModeReadWriteShared : kModeReadShared;
}

int CTolvarFile::Open(const char* name, int mode) {
  Close();
  if (name == nullptr || mode < 1 || mode > 3) return 0;
  kyStorage* storage = nullptr;
  if (mode == 2) {
    storage = kyStorage::Open(name, kModeReadWriteShared, 0, 0);
    // A file that exists but does not open as a storage may hold anything:
    // it is left alone rather than emptied by a creation.
    if (storage == nullptr && GetFileAttributesA(name) == INVALID_FILE_ATTRIBUTES) {
      storage = kyStorage::Create(name, kModeReadWriteShared, 0);
      if (storage != nullptr) m_bCreated = 1;
    }
  } else {
    storage = kyStorage::Open(name, kModeReadShared, 0, 0);
  }
  if (storage == nullptr) return 0;
  m_pStorage = storage;
  m_iMode = mode;
  return 1;
}

int CTolvarFile::Close() {
  if (m_pStorage == nullptr) return 0;
  CloseStream();
  m_pStorage->Release();
  m_pStorage = nullptr;
  m_iMode = 0;
  return 1;
}

int CTolvarFile::CloseStream() {
  CloseChildStream();
  FreeInfoBlock();
  RestartChildWalk();
  if (m_pStream == nullptr) return 0;
  m_pStream->Release();
  m_pStream = nullptr;
  return 1;
}

int CTolvarFile::CloseChildStream() {
  if (m_pChildStream == nullptr) return 0;
  m_pChildStream->Release();
  m_pChildStream = nullptr;
  return 1;
}

void CTolvarFile::FreeInfoBlock() {
  if (m_hInfo != nullptr) GlobalFree(m_hInfo);
  m_hInfo = nullptr;
}

int CTolvarFile::OpenGenericStream(char* name) {
  CloseStream();
  if (m_pStorage == nullptr || name == nullptr) return 0;
  m_pStream = m_pStorage->OpenStream(name, kModeReadWriteShared);
  return m_pStream != nullptr ? 1 : 0;
}

int CTolvarFile::OpenGenericStreams(char* name, char* childName) {
  CloseStream();
  if (m_pStorage == nullptr || name == nullptr) return 0;
  m_pStream = m_pStorage->OpenStream(name, StreamOpenMode());
  if (m_pStream == nullptr) return 0;
  if (!m_pStream->IsFolder()) return 1;
  m_pChildStream = childName ? m_pStream->OpenStream(childName, StreamOpenMode()) : nullptr;
  return m_pChildStream != nullptr ? 1 : 0;
}

int CTolvarFile::OpenOrCreateGenericStream(const char* name, int bSeekToEnd, DWORD dwType,
                                           int& bCreated) {
  bCreated = 0;
  CloseStream();
  if (m_pStorage == nullptr || name == nullptr) return 0;
  m_pStream = m_pStorage->OpenStream(name, kModeReadWriteShared);
  if (m_pStream == nullptr) {
    m_pStream = m_pStorage->CreateStream(name, dwType, kModeReadWriteShared);
    if (m_pStream == nullptr) return 0;
    bCreated = 1;
  }
  // A stream without data has no end to stand at; it is still usable.
  if (bSeekToEnd) m_pStream->Seek(0, 1);
  return 1;
}

int CTolvarFile::OpenOrCreateGenericStream(const char* name, int bSeekToEnd, DWORD dwType) {
  int bCreated = 0;
  return OpenOrCreateGenericStream(name, bSeekToEnd, dwType, bCreated);
}
