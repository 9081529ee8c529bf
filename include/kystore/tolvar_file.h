// CTolvarFile: one storage file holding generic streams.
//
// Generic streams are root streams, typically named by eight lower-case
// hexadecimal digits (CreateStreamName), each one a plain stream or a folder
// with child streams.  The object holds one open storage, one current
// generic stream and one current child of it, and offers opening them by
// name or one after another, reading, writing, seeking and removing them.
// Every operation reports success as 1 (or a count, or a pointer) and
// failure as 0 (or null); only the static Remove throws.
//
// Open modes of the streams: 0x16 (read and write) or 0x12 (read), both
// shared.  "The object's open mode" below is 0x16 when the file was opened
// in mode 2 and 0x12 otherwise.
//
// The file position is shared by all streams of the storage: an operation on
// a child (or on another stream) moves it, so reposition the current stream
// (GoToBeginningOfGenericStream, or a seek) before reading or writing it
// again.
#ifndef KYSTORE_TOLVAR_FILE_H_
#define KYSTORE_TOLVAR_FILE_H_

#include "kystore/export.h"
#include "platform/win_types.h"

class kyStorage;
class kyStream;

class KYSTORE_EXPORT CTolvarFile {
 public:
  CTolvarFile();
  // A copy never shares the open file, so that no storage or stream is
  // released twice: it starts closed (no storage, no streams, mode 0) and
  // keeps only m_bCreated.  Assigning onto an open object closes it first.
  CTolvarFile(const CTolvarFile& other);
  CTolvarFile& operator=(const CTolvarFile& other);
  // Close.
  virtual ~CTolvarFile();

  // --- opening and closing ---------------------------------------------------

  // Closes what is open, then opens the storage `name`: mode 1 and 3 for
  // reading; mode 2 for reading and writing, creating the file (and setting
  // m_bCreated) only where no file exists.  An existing file that does not
  // open as a storage is left as it is.  1 on success; 0 for any other mode,
  // a null name or a failure (the object is then closed).
  int Open(const char* name, int mode);
  // Closes the streams and the storage.  0 when no storage was open.
  int Close();
  // Closes the current child, then the current stream.  1 when there was a
  // current stream.
  int CloseStream();
  // 1 when there was a current child.
  int CloseChildStream();

  // Deletes the files without an extension (no '.' in the name) of the
  // directory `path`, then the directory itself when that left it empty.
  // Does nothing for a null path, a path of 257 characters or more, or a
  // path that is not a directory.  Throws the CFileException* of a deletion
  // that failed (the catcher calls Delete); the files before it are gone.
  static void Remove(const char* path);

  // --- choosing the current stream -------------------------------------------
  // Each of these closes the current child and stream first.

  // The root stream `name`, opened 0x16.  1 when found.
  int OpenGenericStream(char* name);
  // The root stream `name` and, when it is a folder, its child `childName`
  // as the current child, both with the object's open mode.  0 when the
  // stream is missing, or a folder without that child (the stream stays
  // current); 1 otherwise.
  int OpenGenericStreams(char* name, char* childName);
  // Opens the root stream `name` with 0x16, or creates it with `dwType` (low
  // byte nonzero: a folder; high word: duration in minutes), setting
  // `bCreated` to 1 only then.  With `bSeekToEnd` it stands at its end.  1
  // when there is a current stream afterwards.
  int OpenOrCreateGenericStream(const char* name, int bSeekToEnd, DWORD dwType, int& bCreated);
  int OpenOrCreateGenericStream(const char* name, int bSeekToEnd, DWORD dwType);

  // The next root stream in directory order (the first ordinary slot first,
  // opened with the object's open mode), kept as the current stream.  At the
  // end the current stream is closed and 0 returned; the next call starts
  // again from the first.  The walk ends at the first free slot.
  int OpenNextGenericStream();
  // The same, visiting only streams with generic names (eight characters
  // whose hexadecimal value lies from 0x10000000 to 0xFFFFFFFE); the first
  // stream is opened 0x12.
  int OpenNextStream();

  // --- names -----------------------------------------------------------------

  // Writes `n` in lower-case hexadecimal without leading zeros ("%lx" of a
  // 32-bit number, at most 8 characters and the NUL) into `buf` and returns
  // it.  With a null `buf` it writes into one static 20-byte buffer shared
  // by all objects, overwritten by the next such call.
  static char* CreateStreamName(DWORD n, char* buf);
  // The current stream's name, in m_szName; null without a current stream.
  char* GetStreamName();
  // Moves like OpenNextGenericStream (opening the first stream with
  // `dwMode`) and returns the new current stream's name in m_szName.  Null
  // at the end, where the current stream stays as it was, and when the
  // storage has no ordinary root stream.
  char* GetNextStreamName(DWORD dwMode);
  // Walks the children of the current folder, opened 0x12: pass a null
  // `child` for the first; pass the child handed back for the next, which
  // releases it.  Returns m_szName holding the child's name while `child`
  // is not null; a null `child` ends the walk.  The walk's position is kept
  // in this object and starts again when the current stream changes.
  // Release a child still held before changing the current stream.  Null
  // without a current folder.
  char* GetNextChildStreamName(kyStream*& child);

  // --- reading, writing and seeking ------------------------------------------

  // Writes `n` bytes at the stream's position.  1 when all were written.
  int WriteGenericStream(kyStream* stm, unsigned char* data, LONG n);
  int WriteGenericStream(unsigned char* data, LONG n);
  // Writes into the child `name` of the folder `parent` (opened 0x16, or
  // created as a plain stream): at its end with `bAppend`, else from its
  // start; with `bEraseOld` the child ends where the write ends.  The child
  // is released again.  1 when all `n` bytes were written; 0 when `parent`
  // is not a folder.
  int WriteGenericChildStream(kyStream* parent, const char* name, unsigned char* data, LONG n,
                              int bAppend, int bEraseOld);
  int WriteGenericChildStream(const char* name, unsigned char* data, LONG n, int bAppend,
                              int bEraseOld);
  // Writes to the current child: `n` when all were written, else 0.
  DWORD WriteGenericChildOpenedStream(unsigned char* data, LONG n, int bEraseOld);

  // kyStream::Read on the current stream / child: the bytes read, -1 on
  // damage, 0 without the stream.
  __int64 ReadGenericStream(unsigned char* buf, __int64 n);
  __int64 ReadGenericChildStream(unsigned char* buf, __int64 n);
  // Reads up to `n` bytes of the current stream and moves back by the
  // number read, so the position stays where it was.  The bytes read, or
  // 0 when none were (or on damage).
  __int64 ReadTagSeekBack(unsigned char* buf, __int64 n);

  // Lengths; 0 without the stream.
  __int64 GetStreamSize();
  __int64 GetChildStreamSize();

  // Positioning; 1, or 0 without the stream (the child ones also need a
  // current stream).
  int GoToBeginningOfGenericStream();
  int GoToBeginningOfGenericChildStream();
  int GoToEndOfGenericChildStream();
  // Moves the current stream forward by `n`: 1, or 0 when that is beyond
  // its data or there is no current stream.
  int SeekForward(DWORD n);

  // --- removing --------------------------------------------------------------

  // Removes the current stream with everything below it (closing the
  // current child first).  1 on success, when the stream is no longer
  // current; 0 when refused (it needs the write mode and no other object of
  // it open) or there is no current stream.
  int RemoveGenericStream();
  // Makes the root stream `name` current (0x16) and removes it.
  int RemoveGenericStream(const char* name);
  // Removes the child `childName` of the root folder `name`.  0 when `name`
  // is missing or not a folder; 1 otherwise, whether or not the child
  // existed or could be removed.  No stream is current afterwards.
  int RemoveGenericChildStream(const char* name, const char* childName);

  // --- state -----------------------------------------------------------------

  int m_iMode;               // 1, 2 or 3 while open; 0 when closed
  int m_bCreated;            // 1 once Open in mode 2 created the file
  kyStorage* m_pStorage;     // the open storage, or null
  kyStream* m_pStream;       // the current generic stream, or null
  kyStream* m_pChildStream;  // the current child of it, or null
  char m_szName[128];        // names handed out; at most 63 characters

 private:
  DWORD StreamOpenMode() const;
  // Moves the current stream to the next root stream, opening the first
  // with `firstMode`.  False at the end; the current stream then stays,
  // unless it stood on a free first slot (it is closed).
  bool MoveToNextRoot(DWORD firstMode);
  // Copies a name into m_szName (63 characters at most) and returns it.
  char* HandOutName(const char* name);
  // Forgets the child walk's position: the next step starts from the first.
  void RestartChildWalk() { m_iChildCursor = -1; }
  void FreeInfoBlock();

  // A global-memory block for two 32-bit values, which the library never
  // fills; freed by CloseStream when set.
  HGLOBAL m_hInfo;
  // Position of GetNextChildStreamName's walk in the current folder's data;
  // -1 when the walk has to start again.
  __int64 m_iChildCursor;
};

#endif  // KYSTORE_TOLVAR_FILE_H_
