// The generic stream file's removals: of streams in the storage, and of a
// directory's extension-less files on disk.

#include <cstdio>
#include <cstring>

#include "kystore/open_stream.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "kystore/tolvar_file.h"
#include "platform/cfile.h"
#include "platform/directory.h"

namespace {

// The pattern "path\*." must fit the 260 bytes the file calls accept.
const size_t kMaxRemovePath = 256;

}  // namespace

int CTolvarFile::RemoveGenericStream() {
  if (m_pStream == nullptr) return 0;
  // A child left open would point into the removed stream, and would make
  // the removal refuse anyway.
  CloseChildStream();
  if (!m_pStream->Remove()) return 0;
  m_pStream = nullptr;  // the removal released it
  FreeInfoBlock();
  RestartChildWalk();
  return 1;
}

int CTolvarFile::RemoveGenericStream(const char* name) {
  CloseStream();
  if (m_pStorage == nullptr || name == nullptr) return 0;
  m_pStream = m_pStorage->OpenStream(name, kModeReadWriteShared);
  if (m_pStream == nullptr) return 0;
  return RemoveGenericStream();
}

int CTolvarFile::RemoveGenericChildStream(const char* name, const char* childName) {
  CloseStream();
  if (m_pStorage == nullptr || name == nullptr) return 0;
  m_pStream = m_pStorage->OpenStream(name, kModeReadWriteShared);
  if (m_pStream == nullptr) return 0;
  if (!m_pStream->IsFolder()) {
    CloseStream();
    return 0;
  }
  kyStream* child = childName ? m_pStream->OpenStream(childName, kModeReadWriteShared) : nullptr;
  if (child != nullptr && !child->Remove()) child->Release();
  CloseStream();
  return 1;
}

void CTolvarFile::Remove(const char* path) {
  if (path == nullptr || strnlen(path, kMaxRemovePath + 1) > kMaxRemovePath) return;
  if (!PathIsDirectoryA(path)) return;
  char pattern[MAX_PATH];
  snprintf(pattern, sizeof(pattern), "%s\\*.", path);
  {
    CFileFind finder;
    for (BOOL more = finder.FindFile(pattern); more;) {
      more = finder.FindNextFile();
      if (!finder.IsDirectory()) CFile::Remove(finder.GetFilePath());
    }
  }
  // Succeeds only when nothing else was in the directory.
  _rmdir(path);
}
