// kyStream2: a stream whose data lie in a block of global memory instead
// of a storage file.
//
// The serialization operators of kyStream work on it unchanged, so an
// application can build the byte image of typed values in memory (write
// into an empty stream, then take the block with Detach) or take values out
// of a block it holds.  It has no storage: nothing is recorded, and the
// base's file operations (seeks, lengths, entries, copies) fail on it
// without touching anything.
//
// Ownership of the block:
// - a block the stream allocates itself (on the first write into an empty
//   stream, also after Detach) is the stream's, and its destructor frees it;
// - a block handed to the constructor stays the caller's.  It must come from
//   GlobalAlloc, since a write that needs more room grows it with
//   GlobalReAlloc, which may move it: the caller then takes the block back
//   with Detach (the old address is no longer valid) and frees it;
// - Detach hands the block to the caller in every case.
#ifndef KYSTORE_MEMORY_STREAM_H_
#define KYSTORE_MEMORY_STREAM_H_

#include "kystore/export.h"
#include "kystore/stream.h"
#include "platform/win_types.h"

class KYSTORE_EXPORT kyStream2 : public kyStream {
 public:
  // Wraps `size` bytes at `buffer` (the caller's), position 0.  A null
  // buffer (or a negative size) gives an empty stream that allocates its
  // own block when first written.
  explicit kyStream2(void* buffer = nullptr, int size = 0);
  ~kyStream2() override;

  // Copies up to `count` bytes from the position; returns the bytes copied,
  // 0 at the end or for count <= 0, -1 for a null buffer.
  __int64 Read(void* buf, __int64 count) override;
  // Copies `count` bytes at the position, growing the block (by the larger
  // of what is missing and 1024 bytes, zero-filled) when it is too small.
  // Returns the bytes copied: fewer when the block cannot grow, or would
  // pass 2147483647 bytes; -1 for a null buffer.  The last two arguments
  // are ignored.  Bytes after the position are never cut.
  __int64 Write(const void* buf, __int64 count, bool bEraseOld = false,
                __int64* pFileOffset = nullptr) override;

  // Hands the block to the caller (who frees it with GlobalFree) and sets
  // `size` to the position, the number of bytes written.  At position 0 it
  // returns null and the block stays.  The stream is empty afterwards.
  void* Detach(int& size);

 protected:
  __int64 MostBytesHeld() override;

 private:
  // Makes room for `count` bytes at the position, as far as it can.
  void Grow(__int64 count);

  void* m_pBuffer;
  BYTE* m_pCur;
  int m_nSize;
  int m_nPos;
  bool m_bOwnBuffer;
};

#endif  // KYSTORE_MEMORY_STREAM_H_
