// Directory calls in the shape of the Windows ones: PathIsDirectoryA,
// _rmdir, and the framework's file finder CFileFind.
#ifndef KYSTORE_PLATFORM_DIRECTORY_H_
#define KYSTORE_PLATFORM_DIRECTORY_H_

#include <vector>

#include "cstring.h"
#include "win_types.h"

// FILE_ATTRIBUTE_DIRECTORY (nonzero) when `path` names a directory, else 0.
BOOL PathIsDirectoryA(LPCSTR path);

// Removes an empty directory: 0, or -1 when it is missing, not empty or
// cannot be removed.
int _rmdir(const char* path);

// Lists the entries of one directory that match a pattern "dir\mask" or
// "dir/mask" (the directory ends at the last separator of either kind).
// The mask knows '*' (any run of characters) and '?' (one character); a
// mask that ends in '.' matches only names without an extension, that is
// without a '.', as "*." does on Windows.  The names are taken when
// FindFile is called, so files may be deleted during the walk.  Paths are
// handed back joined with '/'.
//
//   CFileFind finder;
//   for (BOOL more = finder.FindFile(pattern); more;) {
//     more = finder.FindNextFile();   // now on the next match
//     ... finder.GetFilePath() ...
//   }
class CFileFind {
 public:
  CFileFind() = default;
  ~CFileFind() { Close(); }
  CFileFind(const CFileFind&) = delete;
  CFileFind& operator=(const CFileFind&) = delete;

  // Starts a walk; nonzero when at least one entry matches.
  BOOL FindFile(const char* pattern, DWORD unused = 0);
  // Moves to the next match; nonzero when another one follows it.  Call it
  // before looking at the first match.
  BOOL FindNextFile();
  void Close();

  // The current match; meaningful after a FindNextFile.
  CString GetFileName() const;
  CString GetFilePath() const;
  BOOL IsDirectory() const;
  BOOL IsDots() const;

 private:
  CString m_strDirectory;
  std::vector<CString> m_names;
  int m_iCurrent = -1;
};

#endif  // KYSTORE_PLATFORM_DIRECTORY_H_
