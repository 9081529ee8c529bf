// CKyStreamFile: a stream read and written through the framework's file
// class, for code written against CFile.
//
// The adapter forwards reads, writes, seeks and the length to a kyStream it
// does not own: the caller opens the stream, hands it over, and releases it
// after the adapter is gone.  What a real file would do beyond that
// (closing, flushing, locking, duplicating, changing the length) is
// accepted and does nothing.  Nothing throws.
//
// The operations below that take 32-bit positions (SetLength, LockRange,
// UnlockRange, Seek) and GetLength are the adapter's own: reach them
// through a CKyStreamFile.  Through a CFile pointer, CFile's 64-bit ones
// answer, which act on a CFile without a file.
#ifndef KYSTORE_STREAM_FILE_H_
#define KYSTORE_STREAM_FILE_H_

#include "kystore/export.h"
#include "platform/cfile.h"
#include "platform/cstring.h"
#include "platform/win_types.h"

class kyStream;

// The adapter's own Seek, SetLength, GetLength, LockRange and UnlockRange
// hide CFile's on purpose (see above); compilers that warn about that are
// told it is meant.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
#endif

class KYSTORE_EXPORT CKyStreamFile : public CFile {
 public:
  DECLARE_DYNAMIC(CKyStreamFile)

  // An adapter without a stream: reads 0 bytes, writes nothing, length 0,
  // and every seek fails.
  CKyStreamFile() : m_pStream(nullptr) {}
  explicit CKyStreamFile(kyStream* stream) : m_pStream(stream) {}
  // Leaves the stream open.
  ~CKyStreamFile() override;

  // Null: the stream cannot be duplicated as a file.
  CFile* Duplicate() const override;
  // kyStream::Read cut to 32 bits: a damaged stream's -1 comes back as
  // 0xFFFFFFFF, so a result above `count` means failure.  0 without a
  // stream.
  UINT Read(void* buf, UINT count) override;
  // Writes at the stream's position; a short or failed write is not
  // reported.
  void Write(const void* buf, UINT count) override;
  // Do nothing; Close leaves the stream open and usable.
  void Abort() override;
  void Flush() override;
  void Close() override;

  // Do nothing.
  virtual void SetLength(DWORD newLength);
  virtual void LockRange(DWORD position, DWORD count);
  virtual void UnlockRange(DWORD position, DWORD count);
  // The stream's name; empty without a stream.
  virtual const CString GetStorageName();
  // The stream's length; 0 without a stream.
  virtual __int64 GetLength();
  // kyStream::Seek2: `from` 0 counts from the start (a negative offset back
  // from the end), 1 from the position, anything else goes to the start.
  // 0 on success, -1 on failure or without a stream.
  virtual LONG Seek(LONG offset, UINT from);

  kyStream* m_pStream;  // not owned; may be null
};

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#endif  // KYSTORE_STREAM_FILE_H_
