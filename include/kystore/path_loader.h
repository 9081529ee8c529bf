// CPathLoader: reaching a stream by a path of stream names.
//
// A path is a list of names separated by '/': the first names a root stream
// of a storage (or, for GetSubStreamByPath, a child of the start stream),
// each further one a child of the stream before it.  A trailing '/' changes
// nothing; there are no escapes and no special names ('\' belongs to a
// name).  The loader opens every stream along a path and keeps them all:
// the streams it returns belong to the loader, which releases them, last
// opened first, in CloseOpenStorages or when it is destroyed.  The caller
// uses them but never releases them, and keeps the storage open meanwhile.
#ifndef KYSTORE_PATH_LOADER_H_
#define KYSTORE_PATH_LOADER_H_

#include "kystore/export.h"
#include "platform/collections.h"
#include "platform/cstring.h"

class kyStorage;
class kyStream;

class KYSTORE_EXPORT CPathLoader {
 public:
  CPathLoader() = default;
  // Releases every stream the loader holds.
  ~CPathLoader();
  // A copy would release the same streams twice.
  CPathLoader(const CPathLoader&) = delete;
  CPathLoader& operator=(const CPathLoader&) = delete;

  // The stream at the end of `strPath` in `pStg`, or null.  Every level is
  // opened for writing (0x16) when `bWrite` is nonzero, else for reading
  // (0x12).  With `bCreate` nonzero every missing level, the last one
  // included, is created as a folder (a missing root stream is always
  // opened 0x16).  Null for a null storage, an empty path, a path that
  // starts with '/', and any level that cannot be opened or created; the
  // levels opened before that stay held until CloseOpenStorages.
  kyStream* GetStreamByPath(kyStorage* pStg, CString strPath, int bWrite, int bCreate);

  // The same below `pStm`, which is never held (nor released) by the
  // loader: `pStm` itself for an empty path.  An empty name between two '/'
  // is passed on to the open, which refuses it.
  kyStream* GetSubStreamByPath(kyStream* pStm, CString strPath, int bWrite, int bCreate);

  // Removes the stream at the end of `strPath` with everything below it:
  // 1 when removed, 0 when it is missing or the removal is refused (for one
  // when another object of it, the loader's own included, is open).  Ends
  // with CloseOpenStorages in every case, releasing all held streams.
  int DeleteStreamByPath(kyStorage* pStg, CString strPath);

  // Releases every held stream, the last opened first, so that children go
  // before their parents.
  void CloseOpenStorages();

 private:
  // Splits the first name off `strPath`: the text before the first '/'
  // (all of it when there is none); `strPath` keeps the text after it.
  CString GetNextFolder(CString& strPath);

  CTypedPtrArray<CPtrArray, kyStream*> m_aOpenStorages;
};

#endif  // KYSTORE_PATH_LOADER_H_
