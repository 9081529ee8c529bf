// The generic stream file's walks over the root streams and over the
// current folder's children, and the names it hands out.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kystore/open_stream.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "kystore/tolvar_file.h"

namespace {

const size_t kMaxHandedOutName = 63;
const DWORD kFirstGenericNumber = 0x10000000u;
const DWORD kNoGenericNumber = 0xFFFFFFFFu;

// Eight characters read by strtoul as a number from 0x10000000 to
// 0xFFFFFFFE.  The number is cut to 32 bits, as strtoul's unsigned long is
// on the systems that wrote these files: "-1000000" is 0xFF000000 there
// too.  Eight hexadecimal digits cannot overflow 32 bits.
bool IsGenericStreamName(const char* name) {
  char cut[32];
  strncpy(cut, name, sizeof(cut) - 1);
  cut[sizeof(cut) - 1] = '\0';
  if (strlen(cut) != 8) return false;
  const DWORD value = static_cast<DWORD>(strtoul(cut, nullptr, 16));
  return value >= kFirstGenericNumber && value != kNoGenericNumber;
}

}  // namespace

char* CTolvarFile::CreateStreamName(DWORD n, char* buf) {
  static char shared[20];
  char* out = buf != nullptr ? buf : shared;
  snprintf(out, 9, "%x", static_cast<unsigned int>(n));
  return out;
}

char* CTolvarFile::HandOutName(const char* name) {
  strncpy(m_szName, name, kMaxHandedOutName);
  m_szName[kMaxHandedOutName] = '\0';
  return m_szName;
}

char* CTolvarFile::GetStreamName() {
  return m_pStream != nullptr ? HandOutName(m_pStream->GetName()) : nullptr;
}

bool CTolvarFile::MoveToNextRoot(DWORD firstMode) {
  if (m_pStorage == nullptr) return false;
  if (m_pStream == nullptr) {
    m_pStream = m_pStorage->OpenStreamFirst(firstMode);
    RestartChildWalk();
    if (m_pStream == nullptr) return false;
    if (m_pStream->GetName()[0] != '\0') return true;
    // The first ordinary slot is free: no stream stands there, the walk
    // starts with the slot after it.
    if (m_pStream->GoNext()) return true;
    CloseStream();
    return false;
  }
  // The object moves in place; a child of the stream it stood for would
  // be left with the wrong parent.
  CloseChildStream();
  if (!m_pStream->GoNext()) return false;
  FreeInfoBlock();
  RestartChildWalk();
  return true;
}

int CTolvarFile::OpenNextGenericStream() {
  if (MoveToNextRoot(StreamOpenMode())) return 1;
  CloseStream();
  return 0;
}

int CTolvarFile::OpenNextStream() {
  // Every step moves forward along the directory chain, whose walks stop
  // at the first damaged link, so the loop ends.
  while (MoveToNextRoot(kModeReadShared)) {
    if (IsGenericStreamName(m_pStream->GetName())) return 1;
  }
  CloseStream();
  return 0;
}

char* CTolvarFile::GetNextStreamName(DWORD dwMode) {
  return MoveToNextRoot(dwMode) ? HandOutName(m_pStream->GetName()) : nullptr;
}

char* CTolvarFile::GetNextChildStreamName(kyStream*& child) {
  if (m_pStream == nullptr || !m_pStream->IsFolder()) return nullptr;
  if (child == nullptr) {
    child = m_pStream->OpenStreamFirst(&m_iChildCursor, kModeReadShared);
  } else {
    child->Release();
    child = m_iChildCursor >= 0 ? m_pStream->OpenStreamNext(&m_iChildCursor, kModeReadShared)
                                : m_pStream->OpenStreamFirst(&m_iChildCursor, kModeReadShared);
  }
  if (child != nullptr) HandOutName(child->GetName());
  return m_szName;
}
