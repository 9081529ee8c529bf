// CCompRecorder: the operation recorder.
//
// While a storage records, the operations that change streams report to
// its recorder, which appends compact records to a growable byte buffer.
// The buffer can be taken away (Detach) and replayed into another storage.
// The recorder doubles as a general growable byte buffer with a read
// position.  docs/FORMAT.md describes the record bytes.
#ifndef KYSTORE_RECORDER_H_
#define KYSTORE_RECORDER_H_

#include "kystore/export.h"
#include "platform/win_types.h"

// Lengths the Windows API typed as unsigned long are DWORDs here: exactly 32
// bits, as in the recording format, whatever the width of the host's long.

// Kinds of recorded operations; the values are the bytes in the buffer.
// The underlying type is int, so that PopOp can hand out an unknown kind
// byte as read.
enum RecOpEnum : int {
  RecOpEnter = 1,      // open or create a stream inside the current one
  RecOpEnterFast = 2,  // open or create a root stream in the fast slots
  RecOpLeave = 3,      // release the current stream
  RecOpRemove = 4,     // remove a stream inside the current one
  RecOpWrite = 5,      // write data at the current position
  RecOpAppend = 6,     // append an entry value
};

// One entry of the recorder's stream stack.
struct RecStmStruct {
  char szName[64];
  int iFlag;   // folder flag (enter) or seek-to-end flag (fast enter)
  void* pStm;  // the stream object; compared by identity only
};

class KYSTORE_EXPORT CCompRecorder {
 public:
  // A recorder without a buffer.  `nGrowBy` below 4096 is raised to 4096.
  explicit CCompRecorder(unsigned int nGrowBy = 4096);
  ~CCompRecorder();

  // Makes this recorder a copy of `other`: the stack, the flags, the
  // position, the length and the data length, and a buffer of its own
  // holding a copy of the data, so that either recorder may be destroyed,
  // emptied or grown first.  `other` is not changed.  When the copy cannot
  // be allocated this recorder ends without a buffer and stopped
  // (HasBeenStopped gives 1).
  CCompRecorder& operator=(const CCompRecorder& other);
  CCompRecorder(const CCompRecorder&) = delete;

  // --- the byte buffer -----------------------------------------------------

  // Allocates `size` bytes when there is no buffer yet.
  void Init(unsigned int size);
  // Grows the buffer by `n` bytes (m_nGrowBy when n is 0).  1 on success.
  int Expand(unsigned int n);
  // Appends `n` bytes at the position.  When the buffer cannot hold them the
  // recorder stops and nothing is written (see HasBeenStopped).
  void Add(unsigned char* const data, unsigned int n, unsigned int nInit);
  // Copies `n` bytes from the position.  1 on success; 0 (or a thrown
  // CString "Read error" when both bThrow and ThrowExceptions ask for it)
  // when fewer than `n` bytes remain.
  int Read(unsigned char* dst, unsigned int n, int bThrow);
  int PeekByte(unsigned char& b);
  unsigned char* PeekAll(unsigned int* n);
  void SeekToBegin();
  unsigned int GetBufferPos() const;
  unsigned int GetLength() const;
  unsigned int GetDataLength() const;
  int GetStmDepth() const;
  int HasBeenStopped() const;
  void ThrowExceptions(int b);
  void Empty();
  void Attach(unsigned char* buf, unsigned int n, int bOwn);
  // Hands the buffer to the caller, who frees it with Free.
  unsigned char* Detach(unsigned int* n);
  static void Free(unsigned char* p);
  // A new recorder with a copy of the data; null when memory runs out.
  CCompRecorder* Clone();

  // --- records ---------------------------------------------------------------

  // Reads one record at the position.  1 on success, 0 at the end or on a
  // malformed record.  `name` needs room for 61 characters.  For write and
  // append records *data points into this recorder's buffer.  *op receives
  // every kind byte read, also an unknown one (then the result is 0).
  int PopOp(RecOpEnum* op, char* name, unsigned char** data, DWORD* n);

  // Hooks called by the stream operations while their storage records.
  void OpEnter(const char* name, int bFolder, void* stm);
  void OpEnterFast(const char* name, int bSeekToEnd, void* stm);
  void OpLeave(void* stm);
  void OpWrite(unsigned char* data, DWORD n, int bEraseOld, void* stm, int bPrependSize);
  void OpAppend(unsigned char* data, DWORD n, void* stm, int bWithPrefix);
  void OpRemove(const char* name, void* parent);

 private:
  friend class kyTestAccess;

  void PushOp(RecOpEnum op, const char* name, unsigned char* data, DWORD n);
  int UpdateStmStack(void* stm);
  int InsertParents(RecStmStruct* top, void* stm);
  void Stop();

  RecStmStruct m_aStmStack[32];
  int m_iStmDepth;
  int m_bStopped;
  unsigned char* m_pBuffer;
  unsigned int m_nPos;
  unsigned int m_nLength;
  unsigned int m_nDataLength;
  int m_bOwnBuffer;
  int m_bThrowExceptions;
  unsigned int m_nGrowBy;
};

// The number of whole records at the start of a recording's `size` bytes,
// read as PopOp reads them.  When `end` is not null it receives the offset
// where those records end (`size` when every byte belongs to one).  The
// buffer is only read.  0 for a null buffer.
KYSTORE_EXPORT unsigned int CountWholeRecords(unsigned char* buf, unsigned int size,
                                              unsigned int* end);

#endif  // KYSTORE_RECORDER_H_
