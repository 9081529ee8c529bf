// Gathering a storage's writes in memory: the storage side.  The platform
// handle keeps the gathered bytes; the file's shared indexes make sure no
// other storage object over the file reads around them.

#include "container/file_indexes.h"
#include "kystore/storage.h"
#include "platform/win_file.h"

namespace {

const DWORD kDefaultBatchBytes = 8u << 20;

}  // namespace

BOOL kyStorage::BeginWriteBatch(DWORD maxBytes) {
  // The handle refuses a batch when it was not opened for writing.
  if (m_hFile == INVALID_HANDLE_VALUE || m_pIndexes == nullptr) return FALSE;
  if (!m_pIndexes->StartBatch(m_hFile)) return FALSE;
  if (!::BeginWriteBatch(m_hFile, maxBytes != 0 ? maxBytes : kDefaultBatchBytes)) {
    m_pIndexes->StopBatch(m_hFile);
    return FALSE;
  }
  return TRUE;
}

BOOL kyStorage::EndWriteBatch() {
  if (m_hFile == INVALID_HANDLE_VALUE) return TRUE;
  if (!::EndWriteBatch(m_hFile)) return FALSE;
  if (m_pIndexes != nullptr) m_pIndexes->StopBatch(m_hFile);
  return TRUE;
}
