// The framework's file class and its exception, as far as code that works on
// streams through a file-like object needs them.
//
// This CFile never opens a file of its own: it is the base of adapters that
// replace its virtual operations.  A CFile without a file reads nothing,
// writes nothing and stands at position 0 of an empty file; the operations
// that would change or lock the file do nothing.  None of them throws.  The
// static Remove deletes a file by name and, as the framework does, throws a
// CFileException (by pointer; the catcher calls Delete) when it cannot.
#ifndef KYSTORE_PLATFORM_CFILE_H_
#define KYSTORE_PLATFORM_CFILE_H_

#include "cobject.h"
#include "cstring.h"
#include "kystore/export.h"
#include "win_types.h"

// Base of the framework's exceptions, which are thrown as pointers to
// objects on the heap.
class KYSTORE_EXPORT CException : public CObject {
 public:
  DECLARE_DYNAMIC(CException)
  CException() = default;
  // Frees an exception that was thrown (created with new).
  void Delete() { delete this; }
};

class KYSTORE_EXPORT CFileException : public CException {
 public:
  DECLARE_DYNAMIC(CFileException)
  enum {
    none = 0,
    genericException = 1,
    fileNotFound = 2,
    badPath = 3,
    tooManyOpenFiles = 4,
    accessDenied = 5,
    invalidFile = 6,
    removeCurrentDir = 7,
    directoryFull = 8,
    badSeek = 9,
    hardIO = 10,
    sharingViolation = 11,
    lockViolation = 12,
    diskFull = 13,
    endOfFile = 14
  };

  explicit CFileException(int cause = none, LONG osError = -1, const char* fileName = nullptr)
      : m_cause(cause), m_lOsError(osError), m_strFileName(fileName) {}

  int m_cause;            // one of the values above
  LONG m_lOsError;        // the system's error number, -1 when none
  CString m_strFileName;  // the file the failed operation named
};

class KYSTORE_EXPORT CFile : public CObject {
 public:
  DECLARE_DYNAMIC(CFile)
  enum SeekPosition { begin = 0x0, current = 0x1, end = 0x2 };
  static const HANDLE hFileNull;

  CFile() : m_hFile(hFileNull) {}
  ~CFile() override = default;
  CFile(const CFile&) = delete;
  CFile& operator=(const CFile&) = delete;

  // Deletes the file `fileName`.  Throws a new CFileException (cause
  // fileNotFound, accessDenied, badPath or genericException, with the
  // system's error number) when it cannot.
  static void Remove(const char* fileName);

  // Null: a CFile without a file has nothing to duplicate.
  virtual CFile* Duplicate() const;
  // The position after the move; always 0 here.
  virtual ULONGLONG Seek(LONGLONG offset, UINT from);
  virtual void SetLength(ULONGLONG newLength);
  // 0 here.
  virtual ULONGLONG GetLength() const;
  // Bytes read; 0 here.
  virtual UINT Read(void* buf, UINT count);
  virtual void Write(const void* buf, UINT count);
  virtual void LockRange(ULONGLONG position, ULONGLONG count);
  virtual void UnlockRange(ULONGLONG position, ULONGLONG count);
  virtual void Abort();
  virtual void Flush();
  virtual void Close();
  // 0 here.
  virtual ULONGLONG GetPosition() const;

  HANDLE m_hFile;  // hFileNull: no file
};

#endif  // KYSTORE_PLATFORM_CFILE_H_
