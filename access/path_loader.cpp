// Opening, creating and removing streams by path.

#include "kystore/path_loader.h"

#include "kystore/open_stream.h"
#include "kystore/storage.h"
#include "kystore/stream.h"

namespace {

DWORD PathOpenMode(int bWrite) {
  return bWrite ? kModeReadWriteShared : kModeReadShared;
}

}  // namespace

CPathLoader::~CPathLoader() {
  CloseOpenStorages();
}

CString CPathLoader::GetNextFolder(CString& strPath) {
  const std::string& path = strPath.str();
  const size_t slash = path.find('/');
  if (slash == std::string::npos) {
    CString all = strPath;
    strPath.Empty();
    return all;
  }
  CString first(path.data(), static_cast<int>(slash));
  strPath = CString(path.data() + slash + 1, static_cast<int>(path.size() - slash - 1));
  return first;
}

kyStream* CPathLoader::GetStreamByPath(kyStorage* pStg, CString strPath, int bWrite, int bCreate) {
  if (pStg == nullptr) return nullptr;
  const CString name = GetNextFolder(strPath);
  if (name.IsEmpty()) return nullptr;
  kyStream* root =
      bCreate ? pStg->OpenOrCreateStream(name, 1) : pStg->OpenStream(name, PathOpenMode(bWrite));
  if (root == nullptr) return nullptr;
  m_aOpenStorages.Add(root);
  return GetSubStreamByPath(root, strPath, bWrite, bCreate);
}

kyStream* CPathLoader::GetSubStreamByPath(kyStream* pStm, CString strPath, int bWrite,
                                          int bCreate) {
  if (pStm == nullptr) return nullptr;
  const DWORD mode = PathOpenMode(bWrite);
  kyStream* current = pStm;
  while (!strPath.IsEmpty()) {
    const CString name = GetNextFolder(strPath);
    kyStream* child =
        bCreate ? current->OpenOrCreateStream(name, 1, mode) : current->OpenStream(name, mode);
    if (child == nullptr) return nullptr;
    m_aOpenStorages.Add(child);
    current = child;
  }
  return current;
}

int CPathLoader::DeleteStreamByPath(kyStorage* pStg, CString strPath) {
  int removed = 0;
  kyStream* stm = GetStreamByPath(pStg, strPath, 1, 0);
  // A successful Remove has released the object, which is the last one held.
  if (stm != nullptr && stm->Remove()) {
    m_aOpenStorages.RemoveAt(m_aOpenStorages.GetUpperBound());
    removed = 1;
  }
  CloseOpenStorages();
  return removed;
}

void CPathLoader::CloseOpenStorages() {
  for (int i = m_aOpenStorages.GetUpperBound(); i >= 0; --i) m_aOpenStorages.GetAt(i)->Release();
  m_aOpenStorages.RemoveAll();
}
