#include "cfile.h"

#include <cerrno>

#include "win_file.h"

IMPLEMENT_DYNAMIC(CException, CObject)
IMPLEMENT_DYNAMIC(CFileException, CException)
IMPLEMENT_DYNAMIC(CFile, CObject)

const HANDLE CFile::hFileNull = INVALID_HANDLE_VALUE;

namespace {

int CauseOf(int error) {
  switch (error) {
    case ENOENT:
      return CFileException::fileNotFound;
    case EACCES:
    case EPERM:
    case EROFS:
    case EBUSY:
      return CFileException::accessDenied;
    case ENAMETOOLONG:
    case ENOTDIR:
      return CFileException::badPath;
    default:
      return CFileException::genericException;
  }
}

}  // namespace

void CFile::Remove(const char* fileName) {
  errno = 0;
  if (DeleteFileA(fileName)) return;
  // DeleteFileA refuses a path too long for the system's calls before
  // asking the system, which leaves errno untouched.
  const int error = errno != 0 ? errno : ENAMETOOLONG;
  throw new CFileException(CauseOf(error), error, fileName);
}

CFile* CFile::Duplicate() const {
  return nullptr;
}

ULONGLONG CFile::Seek(LONGLONG /*offset*/, UINT /*from*/) {
  return 0;
}

void CFile::SetLength(ULONGLONG /*newLength*/) {}

ULONGLONG CFile::GetLength() const {
  return 0;
}

UINT CFile::Read(void* /*buf*/, UINT /*count*/) {
  return 0;
}

void CFile::Write(const void* /*buf*/, UINT /*count*/) {}

void CFile::LockRange(ULONGLONG /*position*/, ULONGLONG /*count*/) {}

void CFile::UnlockRange(ULONGLONG /*position*/, ULONGLONG /*count*/) {}

void CFile::Abort() {}

void CFile::Flush() {}

void CFile::Close() {}

ULONGLONG CFile::GetPosition() const {
  return 0;
}
