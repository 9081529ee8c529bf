// kyStorage: one open storage file.
//
// A storage keeps a tree of named byte streams inside one ordinary file.
// Applications get a kyStorage only from the static factories (Create, Open,
// OpenFast, OpenOrCreate) and give it back with Release, which destroys it at
// once.  Every stream handed out by a storage is owned by the caller and is
// given back with kyStream::Release before the storage itself is released.
//
// Failures are reported by results only: null pointers, false, 0 or -1.
// Nothing is thrown.  A storage and its streams are used by one thread at a
// time, and so are all the storage objects over one file: they share its
// in-memory indexes.
#ifndef KYSTORE_STORAGE_H_
#define KYSTORE_STORAGE_H_

#include <cstdint>
#include <functional>

#include "kystore/export.h"
#include "kystore/format.h"
#include "kystore/map_sort.h"
#include "kystore/open_stream.h"
#include "platform/collections.h"
#include "platform/cstring.h"
#include "platform/win_types.h"

class kyStream;
class CCompRecorder;

typedef CMapSort<CString, const char*, tag_kyStreamOffset, tag_kyStreamOffset> t_kyStreamMap;

// Progress of a rebuild (kyStorage::Recreate): `done` root streams of
// `total` have been copied.  Called once with done 0 before the first copy
// and once after each root stream; `context` is the caller's own.
typedef void (*RecreateProgress)(int done, int total, void* context);

// State of a sorted walk over the root streams that opens nothing
// (kyStorage::IterateSortedStreamsNoOPENS).  Owned by the caller.
class KYSTORE_EXPORT CIterateSortedStreams {
 public:
  int bFirst = 1;                            // set before the first call; the first call clears it
  DWORD dwFixedDuration = 0;                 // nonzero: the duration reported for every stream
  int iOrder = 0;                            // 0 ascending, nonzero descending
  DWORD dwLastDuration = 0;                  // last duration worked out from names
  int iPos = 0;                              // next index into the sorted view, -1 at the end
  CString strName;                           // out: name of the current root stream
  tag_kyStreamOffset offset = {0, 0, 0, 0};  // out: its locator and duration
};

class kyFileIndexes;

class KYSTORE_EXPORT kyStorage {
 public:
  // --- factories ---------------------------------------------------------

  // Makes a new, empty storage at `path` (an existing file is emptied) and
  // opens it for reading and writing.  New files take their offset width
  // from g_bUse64BitOffsets.  `blockSize` is the data capacity of every new
  // data block.  Null on failure; a file made by a failed Create is removed.
  static kyStorage* Create(const char* path, DWORD mode, DWORD blockSize);

  // Opens an existing storage and maps its root streams.  With
  // `bLoadIntoMemory` nonzero and no write bit (0x04) in `mode`, the whole
  // file is read into memory and the file is closed; all reads are then
  // served from memory and every write fails.  Null when the file is missing,
  // is not a storage, or its root directory is damaged; the file is never
  // changed by a failed Open.
  static kyStorage* Open(const char* path, DWORD mode, DWORD blockSize, int bLoadIntoMemory);

  // Opens an existing storage without mapping its root streams (only the
  // fast-slot operations and streams created through this object see names).
  static kyStorage* OpenFast(const char* path, DWORD mode, DWORD blockSize);

  // Open, or Create when no file exists at `path`.  An existing file that
  // does not open as a storage is left as it is and null is returned: this
  // never replaces a file that holds something else.
  static kyStorage* OpenOrCreate(const char* path, DWORD mode, DWORD blockSize);

  // Closes the file and destroys the storage.  Streams of the storage must be
  // released first.
  void Release();

  // The path given to the factory, byte for byte.
  const char* GetPath() const { return m_szPath; }

  // --- root stream map ---------------------------------------------------

  // Takes `name` out of the name map; the file is not touched.  False when
  // the name was not mapped.
  bool RemoveStream(const char* name);

  // --- opening and iterating root streams --------------------------------
  // Every stream returned is a new object owned by the caller.

  // Opens the root stream `name` found in the name map.  Null when it is not
  // there, the open-stream registry refuses `mode`, or its header is damaged.
  kyStream* OpenStream(const char* name, DWORD mode);
  // Opens `name` by looking only at the fast slots on disk (works on a
  // storage opened with OpenFast).  An empty name matches nothing.
  kyStream* OpenStreamFast(const char* name, DWORD mode);
  // Opens the stream whose header `offset` locates, registered as `name`.
  kyStream* OpenStreamByOffset(tag_kyStreamOffset& offset, const char* name, DWORD mode);

  // Walks the name map, in hash order or, after EnableSorting(1, order), in
  // name order.  The cursor is advanced before the stream is opened, so null
  // means either the end or a refused open.  The map must not change during
  // a walk.
  kyStream* OpenStreamFirst(void*& cursor, DWORD mode);
  kyStream* OpenStreamNext(void*& cursor, DWORD mode);

  // Opens the stream in the first ordinary slot of the first directory
  // block, whatever it holds; continue with kyStream::GoNext.
  kyStream* OpenStreamFirst(DWORD mode);

  // Walks the root streams in directory order over a snapshot of the names
  // on disk taken by OpenStreamFirst2.
  kyStream* OpenStreamFirst2(int& cursor, DWORD mode);
  kyStream* OpenStreamNext2(int& cursor, DWORD mode);

  // The first root data stream (not a folder) named `name`, or the first of
  // any name when `name` is empty; opened with mode 0x12.
  kyStream* FindRootStream(const char* name);
  // The same for folders (0x12), and for folders opened with 0x16.
  kyStream* FindRootStorage(const char* name);
  kyStream* FindRootStorageWrite(const char* name);

  // Number of child slots of the root folder `name`, read from its data; 0
  // when it cannot be opened.
  DWORD GetSubfolderCount(const char* name);

  // --- creating root streams ---------------------------------------------
  // `dwType`: low byte nonzero makes a folder; the high word is the duration
  // in minutes.  Names are 1 to 60 characters; a null or empty name, a name
  // already mapped, a read-only or in-memory storage, or a full fast area
  // gives null and changes nothing.

  kyStream* CreateStream(const char* name, DWORD dwType, DWORD mode);
  kyStream* CreateStream(const char* name, DWORD mode);
  kyStream* CreateStreamFast(const char* name, DWORD dwType, DWORD mode);
  kyStream* CreateStreamFast(const char* name, DWORD mode);

  // OpenStream(name, 0x16), else CreateStream(name, bFolder, 0x16).
  kyStream* OpenOrCreateStream(const char* name, int bFolder);
  // OpenStreamFast(name, 0x16), else CreateStreamFast(name, 0x16); with
  // `bSeekToEnd` the stream stands at the end of its data.  Recorded when the
  // storage records.
  kyStream* OpenOrCreateStreamFast(const char* name, int bSeekToEnd);

  // --- sorting -----------------------------------------------------------

  // `bSort` nonzero makes OpenStreamFirst/OpenStreamNext follow name order
  // (`iOrder` 0 ascending, nonzero descending).  Takes effect at the next
  // OpenStreamFirst.
  void EnableSorting(int bSort, int iOrder) {
    m_bSortStreams = bSort;
    m_iSortOrder = iOrder;
  }

  // One step of a name-ordered walk over the root streams that opens
  // nothing: fills it->strName and it->offset (with a duration in seconds in
  // offset.dwDuration) and returns 1, or returns 0 at the end.
  int IterateSortedStreamsNoOPENS(CIterateSortedStreams* it);

  // --- entries: typed values kept as root streams -------------------------
  // The same value forms as kyStream's entries (see stream.h), each kept
  // in the root stream named by its key.  Setters open the stream with
  // OpenOrCreateStream(szKey, 0) and write through the serialization
  // operators; they return 1, or 0 when the stream cannot be opened or
  // created or the key names a folder (left untouched).  Getters open it
  // with 0x12 and never fail.  The Fast forms look only at the six fast
  // slots and create there (SetEntryFast is recorded as a fast enter).
  int SetEntry(const char* szKey, int value);
  int SetEntry(const char* szKey, DWORD value);
  int SetEntry(const char* szKey, double value);
  int SetEntry(const char* szKey, __int64 value);
  int SetEntry(const char* szKey, unsigned __int64 value);
  int SetEntry(const char* szKey, const char* value);
  int SetEntry(const char* szKey, const void* data, DWORD size);
  int SetEntryNoPrefix(const char* szKey, const void* data, DWORD size);
  int SetEntryEraseOld(const char* szKey, const void* data, DWORD size, int bPrependSize);

  int GetEntry(const char* szKey, int def);
  DWORD GetEntry(const char* szKey, DWORD def);
  double GetEntry(const char* szKey, double def);
  __int64 GetEntry(const char* szKey, __int64 def);
  unsigned __int64 GetEntry(const char* szKey, unsigned __int64 def);
  CString GetEntry(const char* szKey, const char* def);
  int GetEntryErasedOld(const char* szKey, void** data, unsigned int* size);
  int GetEntryErasedOld(const char* szKey, void* data, unsigned int size);

  int SetEntryFast(const char* szKey, int value);
  int SetEntryFast(const char* szKey, DWORD value);
  int SetEntryFast(const char* szKey, double value);
  int SetEntryFast(const char* szKey, __int64 value);
  int SetEntryFast(const char* szKey, unsigned __int64 value);
  int SetEntryFast(const char* szKey, const char* value);
  int GetEntryFast(const char* szKey, int def);
  DWORD GetEntryFast(const char* szKey, DWORD def);
  double GetEntryFast(const char* szKey, double def);
  __int64 GetEntryFast(const char* szKey, __int64 def);
  unsigned __int64 GetEntryFast(const char* szKey, unsigned __int64 def);
  CString GetEntryFast(const char* szKey, const char* def);

  // --- recording ---------------------------------------------------------

  // Starts recording into a new recorder (1), or goes on with the current
  // one (1); 0 when it cannot be allocated.
  int StartRecording();
  // Stops recording and hands the recorder to the caller, who deletes it.
  // A recording that was stopped or left streams entered comes back empty.
  // Null when the storage was not recording.
  CCompRecorder* StopRecording();

  // Applies the records of a recording (CCompRecorder::Detach) to this
  // storage, in order, and returns how many were applied.  The replay ends
  // at the end of the buffer, at a record cut short or malformed, at an
  // enter that cannot open or create its stream (or would nest more than 32
  // streams deep), at a leave, write or append with no stream entered, and at
  // a write or append into a folder (its child table is the library's);
  // that record is not counted.  A removal of a missing stream counts and
  // changes nothing; failed writes count too.  The changes made stay.  The
  // buffer is only read: neither copied, changed nor freed.  Every stream
  // the replay opened is released before it returns.  0 for a null buffer
  // or length 0.
  int ReplayRecording(unsigned char* buf, DWORD len);

  // --- rebuild -------------------------------------------------------------

  // Rebuilds the storage file `name` compactly: every root stream with all
  // it holds is copied into a fresh storage under the name `name` + "_tmp"
  // (an existing file of that name is replaced), and that file, flushed to
  // the disk, is renamed over `name` in one atomic step.  Removed streams
  // and their blocks are gone; durations become 0 and the settings are those
  // of a new file (offset width from g_bUse64BitOffsets); the permission
  // bits stay.  The file is replaced only by a copy checked to hold every
  // stream with its kind, size-prefix mark, length and bytes: when a stream
  // cannot be copied, or the old tree cannot be walked to its end (damage),
  // the temporary file is deleted and `name` stays as it was.  A crash at
  // any moment leaves either the old file or the new one, whole.
  // 1 when the file was rebuilt; 0 when it could not be opened, the
  // temporary storage could not be created, or the rebuild failed.
  static int Recreate(const char* name);
  // The same, reporting progress to `progress` (may be null).
  static int Recreate(const char* name, RecreateProgress progress, void* context);
  // Rebuilds the file `name` that `pStg` has open, copying from `pStg`, and
  // returns a new storage opened on the result with mode 0x16 (null when
  // that open fails).  `pStg` is released and must not be used again,
  // except when nothing was done: when the temporary storage cannot be
  // created, or `name` is not the file `pStg` has open, `pStg` itself is
  // returned unchanged.  When the rebuild fails the returned storage is
  // opened on the untouched old file.  Release every stream of `pStg`
  // first.
  static kyStorage* Recreate(kyStorage* pStg, const char* name);

  // --- gathering writes (an extension of ours) -----------------------------

  // Keeps this storage's writes in memory, up to `maxBytes` (0: 8 MiB) at
  // a time, and puts them into the file in offset order when they reach
  // that, at EndWriteBatch, or at Release.  Reads through this storage see
  // them at once.  The file then holds exactly what the same calls would
  // have written one by one; the difference is speed, when many small
  // streams are created or changed together, as a database transaction
  // gathers its rows.  It is not a transaction: a crash before the bytes
  // are written loses them, and a crash while they are written leaves part
  // of them written.  Another storage object opened over the same file in
  // this process ends the batch first, so that it reads what this one
  // wrote.  FALSE (nothing changes) for a storage held in memory or opened
  // without write access, while other storage objects over the file are
  // open in this process, or when memory runs out.  TRUE when a batch is
  // already running.
  BOOL BeginWriteBatch(DWORD maxBytes = 0);
  // Writes what is gathered and stops gathering; TRUE when no batch runs.
  // FALSE when a write failed: what could not be written stays gathered,
  // and EndWriteBatch may be called again.  Release writes a batch too, but
  // cannot report a failure: end the batch first to know.
  BOOL EndWriteBatch();

  // --- settings read at the moment of use --------------------------------

  static int g_bUse64BitOffsets;     // width of new files: nonzero 64-bit, 0 32-bit
  static __int64 g_iMaxTolvarSize;   // largest file with 64-bit offsets
  static __int64 g_iMaxCompStmSize;  // largest data position a write reaches

 private:
  friend class kyStream;
  friend class kyTestAccess;

  kyStorage(const char* path, HANDLE hFile, DWORD mode, int bLoadIntoMemory);
  ~kyStorage();
  kyStorage(const kyStorage&) = delete;
  kyStorage& operator=(const kyStorage&) = delete;

  static kyStorage* ReadStorageHeader(HANDLE hFile, const char* path, DWORD mode, DWORD blockSize,
                                      int bLoadIntoMemory);
  static void FlagsToAttributes(DWORD mode, DWORD& access, DWORD& share);
  void LoadIntoMemory();

  // Positioned I/O on the file or on the in-memory image.
  __int64 SetFilePointer(HANDLE hFile, __int64 distance, DWORD method);
  BOOL ReadFile(HANDLE hFile, void* buf, __int64 count, __int64* pRead, OVERLAPPED* overlapped);
  bool WriteStreamHeader(__int64 offset, t_kyStreamU& header);
  // Reads exactly `count` bytes at `offset` without moving the shared file
  // position or the image's; false when they are not all there.
  bool ReadAt(__int64 offset, void* buf, __int64 count);

  // Whether both storages are open on the same file, under whatever names.
  bool SameFileAs(const kyStorage& other) const;
  // Whether there is anything to read from: an open handle or an image.
  bool CanRead() const;
  // Current size of the file (or the image); -1 when it cannot be found.
  // A size found is also taken as the known size below.
  __int64 CurrentFileSize();
  // Whether the `count` bytes at `offset` lie inside the file.  Checked
  // against the known size; the file is asked only when that is too small
  // (another object or process may have grown the file).  False for
  // negative values and for sums beyond the range of an offset.
  bool FileHolds(__int64 offset, __int64 count);
  // Notes that one of our own writes made the file reach `end` bytes.
  void FileReached(__int64 end);
  // Largest size the file may reach: g_iMaxTolvarSize or 4294967295.
  __int64 FileSizeLimit() const;
  // Reads and checks the directory block at `offset` (magic required).
  bool ReadDirectoryBlock(__int64 offset, DirectoryBlock& block);
  // The one step of every walk along the root directory chain.  With
  // `offset` 0 it reads the first block; otherwise the block that `block`,
  // read at `offset`, links to.  The block is read whole into `block` and
  // its offset put in `offset`.  Returns 1 with a block, 0 after the last
  // block, -1 when a block cannot be read or a link is damage.
  int NextDirectoryBlock(__int64& offset, DirectoryBlock& block);
  // A link of the directory block at `block` leads on only when it points
  // behind the whole block, to a block that lies whole in the file.
  bool DirectoryLinkUsable(__int64 block, __int64 link);
  // Hands every used slot of the root directory chain, in chain order, to
  // `visit` until it returns false.  Returns 1 when `visit` stopped the
  // walk, 0 at the end of the chain, -1 when the chain is damaged.
  int ForEachUsedRootSlot(const std::function<bool(const t_kyStreamU&)>& visit);

  // Root stream map.
  bool InitStreamMap();
  bool FindStreamOffset(const char* name, tag_kyStreamOffset& offset);

  // Open-stream registry of the root streams.
  t_OpenStream* IsStreamOpen(const char* name);
  t_OpenStream* AddNewOpenStream(const char* name, DWORD mode);
  int CloseStream(const char* name);

  // Replay.  `entered` holds the streams entered so far, outermost first.
  bool ReplayRecord(int op, const char* name, unsigned char* data, DWORD n, kyStream** entered,
                    int& depth);
  void ReplayRemove(const char* name, kyStream** entered, int depth);
  static void ReplayWrite(kyStream* top, const char* flags, const unsigned char* data, DWORD n);

  // Rebuild.  RebuildFile copies `old` into a fresh file and puts it in
  // place of `target`: 1 done, 0 failed (old file untouched), -1 nothing
  // done because the temporary storage could not be created.  `old` is
  // released unless the result is -1.
  static int RebuildFile(kyStorage* old, const char* target, RecreateProgress progress,
                         void* context);
  bool CopyRootStreams(kyStorage* fresh, RecreateProgress progress, void* context);
  // Root slots on disk that carry a name (duplicates and damaged headers
  // too); -1 when the directory cannot be read to its end.
  __int64 CountRootSlots();
  // Whether `copy` holds everything `original` holds (recording/tree_compare.cpp).
  static bool SameTree(kyStream* original, kyStream* copy, BYTE* bufA, BYTE* bufB);
  static bool SameData(kyStream* original, kyStream* copy, BYTE* bufA, BYTE* bufB);
  static bool SameChildren(kyStream* original, kyStream* copy, BYTE* bufA, BYTE* bufB);

  // Root stream creation.
  kyStream* CreateStreamHelper(const char* name, DWORD dwType, DWORD mode, bool bFast,
                               bool bOpenFirst);
  bool NameOnDisk(const char* name);
  kyStream* CreateInSlot(const char* name, DWORD dwType, DWORD mode, __int64 blockOffset,
                         const DirectoryBlock& block, __int64 index);
  __int64 AppendDirectoryBlock(__int64 lastBlock);
  // Reads the first directory block a search for a free ordinary slot must
  // look at, and its position in the chain.  Returns 1, or -1 when the
  // chain cannot be read.
  int StartFreeSlotSearch(bool bFromFirst, __int64& blockOffset, DirectoryBlock& block,
                          size_t& position);

  // Entries: the root stream of a key opened for a setter (null for a
  // folder, which is released unrecorded), in the fast slots or anywhere.
  kyStream* OpenEntryForWrite(const char* szKey, bool bFast);
  // The root stream of a key opened for a getter, or null.
  kyStream* OpenEntryForRead(const char* szKey, bool bFast);

  __int64 m_memPos;
  int m_bSortStreams;
  int m_iSortOrder;
  DWORD m_dwBlockSize;
  char m_szPath[MAX_PATH];
  BYTE m_bOpenedFast;
  WORD m_wSlotsPerBlock;
  WORD m_wFastSlots;
  __int64 m_rootOffset;
  __int64 m_lastAppended;
  t_OpenStreamList m_openStreams;
  CStringArray m_streamNames;
  t_kyStreamMap m_streamMap;
  int m_bUse64BitOffsets;
  CCompRecorder* m_pRecorder;
  HANDLE m_hFile;
  BOOL m_bInMemory;
  BYTE* m_pImage;
  __int64 m_imageSize;
  int m_iFormat;
  // The file's size as far as this object knows it, never more than the
  // real size: 0 until first asked, raised by our own appends and growth.
  __int64 m_knownFileSize = 0;
  // The file's identity, taken when it is opened (before an in-memory load
  // closes the handle); m_bKnownFile 0 when the system could not tell.
  ULONGLONG m_fileDevice;
  ULONGLONG m_fileInode;
  BOOL m_bKnownFile;
  // What walks of this file have learnt, shared with every other storage
  // object over the same file (container/file_indexes.h); null when the
  // file's identity is unknown.
  kyFileIndexes* m_pIndexes = nullptr;
};

#endif  // KYSTORE_STORAGE_H_
