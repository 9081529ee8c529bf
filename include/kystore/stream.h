// kyStream: one open stream or folder of a storage.
//
// A stream's data live in a chain of data blocks in the storage file; a
// folder's data are a table of its children's headers.  Every stream object
// is owned by the caller that opened or created it and is given back with
// Release; children are released before their parents, and every stream
// before its storage.
//
// All streams of a storage read and write through the storage's one file
// handle and so share one file position.  A stream assumes the position is
// where it left it: a caller that switches between streams of one storage
// repositions with an absolute Seek (origin 0 or 1) before the next Read or
// Write.  With a storage loaded into memory each stream keeps its own
// position and streams do not disturb each other.
#ifndef KYSTORE_STREAM_H_
#define KYSTORE_STREAM_H_

#include <cstdint>

#include "kystore/export.h"
#include "kystore/format.h"
#include "kystore/map_sort.h"
#include "kystore/open_stream.h"
#include "platform/collections.h"
#include "platform/cstring.h"
#include "platform/win_types.h"

class kyStorage;
class CCompRecorder;
class kyFileIndexes;
class FolderIndex;

typedef CMapSort<CString, const char*, t_kyStreamWithOffset, t_kyStreamWithOffset> t_kyChildMap;

class KYSTORE_EXPORT kyStream {
 public:
  // --- data ----------------------------------------------------------------

  // Reads up to `count` bytes at the cursor.  Returns the bytes read (fewer
  // at the end of the data, 0 at the end or for a stream without blocks), or
  // -1 when a block cannot be read or is damaged.
  virtual __int64 Read(void* buf, __int64 count);

  // Writes `count` bytes at the cursor, growing the stream as needed.  With
  // `bEraseOld` the stream ends where the write ends.  When `pFileOffset` is
  // given it receives the file offset of the first byte written.  Returns the
  // bytes written (fewer when a size limit is reached), 0 for a storage held
  // in memory or count <= 0, -1 on a write failure.
  virtual __int64 Write(const void* buf, __int64 count, bool bEraseOld = false,
                        __int64* pFileOffset = nullptr);

  virtual ~kyStream();

  // Moves the cursor.  origin 0: `distance` from the start; 1: back from the
  // end; 2: from the cursor, forward when `bForward`.  Returns 0, or -1 when
  // the target is beyond the data, a block is damaged, the origin is unknown
  // or the distance negative; the cursor then stays where it was.
  __int64 Seek(__int64 distance, unsigned char origin, bool bForward = true);
  // The file-class convention: `from` 0 begin (negative: back from the end),
  // 1 current; anything else goes to the start.
  __int64 Seek2(__int64 offset, UINT from);

  // Lowers the recorded length (never raises it); needs the write bit.
  bool SetLength(__int64 newLength);
  // Sets the length to 0; the blocks stay and are written over next time.
  bool Erase();
  // Marks the stream as size-prefixed and writes `size` as 4 bytes at the
  // cursor, ending the stream there.
  BOOL PrependSize(DWORD size);
  // For a size-prefixed stream read from its start: reads the prefix,
  // sets `len` to the data length after it and returns whether they agree.
  BOOL GetVerifiedDataLength(__int64& len);
  // Copies the data from the cursor into a new global-memory buffer owned
  // by the caller (release with FreeBuffer).  Returns the bytes copied, 0
  // with `buf` null on failure.
  DWORD CopyStreamToBuffer(BYTE*& buf, BOOL bSkipPrefix);
  void FreeBuffer(BYTE*& buf);

  // --- typed values at the cursor -----------------------------------------
  // Numbers are written as their little-endian bytes: WORD 2, int and DWORD
  // 4, double (its IEEE bits), __int64 and unsigned __int64 8.  A string is
  // a WORD length n when n < 0xFFFF, else the WORD 0xFFFF and a DWORD n,
  // then its n characters without a terminator; a null pointer writes the
  // empty string, and a CString stops at its first NUL as a char* does.
  // The operators go through the virtual Read and Write, so they serve
  // every stream class, and report nothing: a failed write of a string's
  // length writes nothing more.  While the storage records, each write is
  // announced to its recorder (numbers before they are written; a string's
  // length after it is written, its characters before).
  kyStream& operator<<(WORD value);
  kyStream& operator<<(int value);
  kyStream& operator<<(DWORD value);
  kyStream& operator<<(double value);
  kyStream& operator<<(__int64 value);
  kyStream& operator<<(unsigned __int64 value);
  kyStream& operator<<(const char* value);
  kyStream& operator<<(const CString& value);

  // A short read leaves the bytes of the value that did not come as they
  // were.  A string whose length cannot be read comes back empty.  One
  // whose characters come short holds the bytes that came, padded with NULs
  // to the announced length when the stream could hold that many bytes (a
  // storage stream: the file's size; a memory stream: its block), and only
  // the bytes that came otherwise; nothing is allocated ahead of the bytes
  // that arrive.  At most 0x7FFFFFFE characters are read.
  kyStream& operator>>(WORD& value);
  kyStream& operator>>(int& value);
  kyStream& operator>>(DWORD& value);
  kyStream& operator>>(double& value);
  kyStream& operator>>(__int64& value);
  kyStream& operator>>(unsigned __int64& value);
  kyStream& operator>>(CString& value);

  // --- entries: typed values kept as the children of this folder ----------
  // An entry is a data stream named by its key (1 to 60 characters) whose
  // data begin with the value.  Setters open the child with 0x16, or
  // create it, write and release it; they return 1, or 0 when this is not a
  // folder, the key is invalid, the child cannot be opened or created, or
  // the key names a folder (which is left untouched).  A fixed-width value
  // is written over the start of the entry without cutting a longer old
  // value.  Getters open the child with 0x12 and never fail: a missing key,
  // a folder, or data too short for the value give the default.
  int SetEntry(const char* szKey, int value);
  int SetEntry(const char* szKey, DWORD value);
  int SetEntry(const char* szKey, double value);
  int SetEntry(const char* szKey, __int64 value);
  int SetEntry(const char* szKey, unsigned __int64 value);
  // 8 bytes: cx, cy.
  int SetEntry(const char* szKey, SIZE* value);
  // 16 bytes: left, top, right, bottom.
  int SetEntry(const char* szKey, RECT* value);
  // The string form of operator<<.
  int SetEntry(const char* szKey, const char* value);
  // Appends `size` bytes behind the values appended before; the offset
  // prefix at the start of the entry (4 bytes with 32-bit offsets, 8 with
  // 64-bit) holds where this newest value begins.  Size 0 returns 1 and
  // touches nothing.
  int SetEntry(const char* szKey, const void* data, DWORD size);
  // Appends `size` bytes with no prefix.  Size 0 returns 1.
  int SetEntryNoPrefix(const char* szKey, const void* data, DWORD size);
  // Replaces the entry's data with `size` bytes, preceded by a DWORD size
  // prefix (and the header's size-prefix mark) when bPrependSize.  Size 0
  // returns 1; 0 also when the prefix or the data cannot be written.
  int SetEntryEraseOld(const char* szKey, const void* data, DWORD size, int bPrependSize);

  int GetEntry(const char* szKey, int def);
  DWORD GetEntry(const char* szKey, DWORD def);
  double GetEntry(const char* szKey, double def);
  __int64 GetEntry(const char* szKey, __int64 def);
  unsigned __int64 GetEntry(const char* szKey, unsigned __int64 def);
  // Fill *out and return it.  When fewer bytes than the value's come, *out
  // gets *def, or keeps what the read put there when def is null.
  RECT* GetEntry(const char* szKey, RECT* out, const RECT* def);
  SIZE* GetEntry(const char* szKey, SIZE* out, const SIZE* def);
  // The stored string (empty when its length cannot be read), or `def`
  // (empty when null) for a missing key or a folder.
  CString GetEntry(const char* szKey, const char* def);
  // A value written by SetEntryEraseOld, in a new buffer the caller frees
  // with GlobalFree (null for an empty value).  1 on success; 0 with *data
  // null and *size 0 for a missing key, a size prefix that does not match,
  // a value of 4 GiB or more, or a short read.
  int GetEntryErasedOld(const char* szKey, void** data, unsigned int* size);
  // Reads the first `size` bytes of such a value into `data`: 1, or 0 when
  // the value is missing, has fewer than `size` bytes or its prefix does
  // not match.
  int GetEntryErasedOld(const char* szKey, void* data, unsigned int size);

  // --- accessors (no file access) -----------------------------------------

  kyStream* GetParentStm() const { return m_pParent; }
  BOOL IsFolder() const { return m_hdr.Flags() == kFolderFlag ? 1 : 0; }
  WORD GetDuration() const { return m_hdr.Duration(); }
  const char* GetName() const { return m_hdr.Name(); }
  __int64 GetCurDataPos() const { return m_iDataPos; }
  DWORD GetNumChildren() const { return m_nChildren; }
  __int64 GetLength() const { return m_hdr.Length(m_b64BitOffsets != 0); }
  // Lists this stream's ancestors below `pAncestor`, nearest first, in
  // apChain.  Returns their number, 0 when `pAncestor` is not an ancestor,
  // or -1 when more than nMax would be needed.
  int GetChildrenOf(kyStream* pAncestor, kyStream** apChain, int nMax);

  // Gives the object back: closes its registry record and destroys it.
  // Returns the open count of its name before this release, -1 when no
  // record had its name, 0 for a stream without a name.
  int Release();

  // Sorting of the preloaded-children walk (same switches as the storage's).
  void EnableSorting(int bSort, int iOrder) {
    m_bSortStreams = bSort;
    m_iSortOrder = iOrder;
  }

  // Registry record of the open child `name`, or null.
  t_OpenStream* IsStreamOpen(const char* name);

  // --- folders --------------------------------------------------------------

  // Writes a header slot for `name` into this folder's data (reusing a free
  // slot when bReuseFreeSlot), filling `header` and `offset`.  Does not write
  // the child count.
  bool AddStreamHeader(const char* name, DWORD dwType, t_kyStreamU& header,
                       tag_kyStreamOffset& offset, int bReuseFreeSlot);
  // Creates the child `name` and opens it with `dwMode`.  Null when this is
  // not a folder, the name is null, empty or exists (when looked up), or a
  // write fails.
  kyStream* CreateStream(const char* name, DWORD dwType, DWORD dwMode, int bCheckExisting);
  // OpenStream(name, 0x16), else CreateStream(name, type, 0x16, 1).
  kyStream* OpenOrCreateStream(const char* name, int type);
  // OpenStream(name, dwMode), else CreateStream(name, dwType, dwMode, 0);
  // null (nothing created) when the child exists but refuses the open.
  kyStream* OpenOrCreateStream(const char* name, DWORD dwType, DWORD dwMode);

  // Finds the child `name` (exact bytes); fills its header and locator.
  // With preloaded children the map answers, checked against the child's
  // slot.  Moves this folder's cursor: seek before reading its data again.
  bool FindStream(const char* name, t_kyStreamU& header, tag_kyStreamOffset& offset);
  // Opens the child `name` as a new object owned by the caller.  Null when
  // this is not a folder, the name is null, empty or missing, or the
  // child's registry record refuses `dwMode`.
  kyStream* OpenStream(const char* name, DWORD dwMode);
  // Walks the used child slots in slot order; *pCursor holds the data
  // position past the last slot examined.  Null at the end, on damage, or
  // when this stream is not a folder.  A walk that reached the end leaves
  // *pCursor at the end of the data (>= GetLength()); a null with *pCursor
  // short of GetLength() means the walk stopped early: at a damaged slot or
  // a child whose registry refused `dwMode`.
  kyStream* OpenStreamFirst(__int64* pCursor, DWORD dwMode);
  kyStream* OpenStreamNext(__int64* pCursor, DWORD dwMode);
  // Appends the names of the children to `names`, in slot order.
  void EnumStreams(CStringArray& names);
  // Moves this root stream object to the next used slot of the root
  // directory.  False at the end; the object is then unchanged.
  bool GoNext();

  // --- preloaded children ---------------------------------------------------

  // Reads this folder's used children once into a map owned by this object
  // (no map when the count cannot be read; a second call does nothing).
  // Lookups then answer from the map and creations through this object
  // keep it up to date.
  void PreloadChildren();
  // Walk the map in hash order, or in name order after EnableSorting(1,
  // order), opening each child.  Null at the end, without a map, or when
  // the child's registry refuses the mode (the cursor has moved past it).
  kyStream* OpenPreloadChildrenFirst(void** cursor, DWORD dwMode);
  kyStream* OpenPreloadChildrenNext(void** cursor, DWORD dwMode);
  // The same walk without opening: 1 with the child's header, locator and
  // name, 0 (value zeroed, name empty) at the end or without a map.
  int GetPreloadChildrenOffsetFirst(void** cursor, DWORD unused, t_kyStreamWithOffset& value,
                                    CString& name);
  int GetPreloadChildrenOffsetNext(void** cursor, DWORD unused, t_kyStreamWithOffset& value,
                                   CString& name);
  // Opens the child whose slot `offset` locates, as it is on disk now; null
  // when the slot no longer carries `name`.
  kyStream* OpenPreloadChildrenByOffset(t_kyStreamU& header, tag_kyStreamOffset& offset,
                                        const char* name, DWORD dwMode);

  // --- remove, rename, copy -------------------------------------------------

  // Removes this stream and everything below it and destroys the object on
  // success.  Refused (false, nothing changed) without the write bit or while
  // another object of this stream or of anything below it is open.
  bool Remove();
  // Removes every child of this folder that can be removed.
  void ClearFolder();
  // Renames the stream (1 to 60 characters kept).  False without the write
  // bit, for an empty name, or when the header cannot be written.
  bool Rename(const char* newName);
  // Erases `dst` and copies this stream's data from its cursor into it,
  // with the size-prefix mark (set on `dst` when this stream has it, cleared
  // otherwise; a folder `dst` keeps its flags).  False for an empty source, for `dst` being this
  // same stream, for a `dst` that cannot be erased (no write access; it is left as it was), or
  // when a read or write comes short (`dst` then holds what was copied).
  bool CopyStream(kyStream* dst);
  // Copies this folder's children into `dst` (of any storage), merging:
  // children of the same kind are overwritten, of the other kind replaced.
  // A data stream copies itself with CopyStream.  Refused, with nothing
  // written, when `dst` is this folder or lies below it.  False when a child
  // could not be copied, or when the walk over this folder's slots stopped
  // early (the children before that point are copied).
  bool CopyFolder(kyStream* dst);

 protected:
  kyStream();

  // Low-level transfers through the storage's handle, or on the storage's
  // in-memory image with this stream's own position.
  BOOL ReadFile(HANDLE hFile, void* buf, __int64 count, __int64* pRead, OVERLAPPED* overlapped);
  __int64 SetFilePointer(HANDLE hFile, __int64 distance, DWORD method);

  // Most bytes this stream's data could hold: a length read from the data
  // beyond it cannot be true.  For a storage stream the file's size.
  virtual __int64 MostBytesHeld();

  HANDLE m_hFile;
  kyStorage* m_pStorage;
  kyStream* m_pParent;
  t_kyStreamU m_hdr;
  DataBlock m_blockHdr;
  tag_kyStreamOffset m_offset;
  DWORD m_dwOpenMode;
  __int64 m_memPos;
  int m_bSortStreams;
  int m_iSortOrder;
  __int64 m_iCurBlock;
  __int64 m_iBlockPos;
  __int64 m_iDataPos;
  t_kyChildMap* m_pPreloadMap;
  DWORD m_nChildren;
  t_OpenStreamList m_openChildren;
  BOOL m_b64BitOffsets;

 private:
  // Whether this object holds one open in its owner's registry.  Objects
  // made by root creation, and opens of an empty name, hold none; their
  // Release and Remove must not take an open away from another object.
  bool m_bCounted;
  // Set while the folder's own slot bookkeeping writes its data; any other
  // write into a folder's data makes its index forget it.
  bool m_bWritingSlots = false;
  friend class kyStorage;
  friend class kyTestAccess;

  kyStream(kyStorage* storage, t_kyStreamU& header, void* hFile, tag_kyStreamOffset& offset);
  kyStream(kyStream* parent, t_kyStreamU& header, void* hFile, tag_kyStreamOffset& offset);
  kyStream(const kyStream&) = delete;
  kyStream& operator=(const kyStream&) = delete;

  bool W64() const { return m_b64BitOffsets != 0; }
  __int64 BlockHeaderSize() const { return DataBlockHeaderSize(W64()); }
  __int64 HeaderWidth() const { return StreamHeaderSize(W64()); }
  bool StorageInMemory() const;

  // Data block chain.
  __int64 AllocateFirstBlock();
  __int64 AllocateNextBlock(__int64 prevBlock);
  __int64 NewBlockCapacity() const;
  // The chain rules every walk applies, reading or writing.  LoadBlock
  // takes the header of `block` into m_blockHdr (the cursor then stands
  // after it) only when the block is usable: inside the file, with the
  // magic and ordered ends.  NextBlockLink gives the loaded block's next
  // block, 0 at the end of the chain, or -1 when the link is refused: it
  // must point behind the block's whole room, to a header inside the file.
  bool LoadBlock(__int64 block);
  __int64 NextBlockLink();

  // Whether the recorded length can be computed with: 0 <= length <= the
  // file's size.  A damaged length fails every call that would start from
  // it or write.
  bool LengthUsable();

  __int64 SeekRight(__int64 distance, bool bFromStart);
  __int64 SeekLeft(__int64 distance, bool bFromEnd);
  bool WriteHeaderBack();
  // Takes over a longer length (and the chain ends) that another object of
  // this stream wrote to its header on disk; false when the slot on disk no
  // longer holds this stream.
  bool CatchUpWithHeaderOnDisk();
  bool WriteStreamHeader(__int64 offset, t_kyStreamU& header);

  // Registry of open children.
  // Whether an object other than this one holds an open of `name` (this
  // stream's name) in the registry of this stream's owner.
  bool OthersHoldIt(const char* name);
  t_OpenStream* AddNewOpenStream(const char* name, DWORD mode);
  int CloseStream(const char* name);
  kyStream* OpenStreamByOffset(t_kyStreamU& header, tag_kyStreamOffset& offset, const char* name,
                               DWORD dwMode);

  // Folder helpers.
  bool ReadChildCount();
  __int64 SlotOffsetAtCursor();
  __int64 SlotOffsetJustRead();
  bool IsOpenBelow();
  // Most slots a walk over this folder's data may read: what the file can
  // hold, plus one for the short read at the end.
  __int64 MaxSlotReads();
  // Reads up to `slots` slots from the folder's cursor on, advancing
  // *pCursor past each, and opens the first used one.  Null at a short
  // read, a slot without the header magic, or when none is used.
  kyStream* OpenFirstUsedSlot(__int64* pCursor, DWORD dwMode, __int64 slots);
  // Reads the W header bytes at a slot's file offset; no position moves.
  bool ReadSlotAt(__int64 offset, t_kyStreamU& header);
  // Reads the child count (0 when this is no folder or it cannot be read)
  // for a caller that did not ask to move anything: the shared file
  // position stays where it was.
  bool PeekChildCount(DWORD& count);
  // Whether a child whose slot lies at `headerOffset` may be opened below
  // this folder: not one of its own ancestors' slots, not too deep.
  bool ChildOpenAllowed(__int64 headerOffset);
  // Puts the shared file position back under this object's cursor, which
  // another object's transfer may have moved.  False when it cannot be.
  bool ResumeAtCursor();
  // Whether `other` stands for the same slot of the same file.
  bool IsSameStream(const kyStream* other) const;
  // Whether `dst` is this folder or lies below it.
  bool HoldsInItsTree(const kyStream* dst) const;
  void RemoveChildren();
  bool ReuseFreeSlot(const char* name, DWORD dwType, t_kyStreamU& header,
                     tag_kyStreamOffset& offset);
  bool AppendSlot(const char* name, DWORD dwType, t_kyStreamU& header, tag_kyStreamOffset& offset,
                  bool bLocateByStepping);
  // Writes the new child into the free slot `header` holds, at the cursor.
  bool WriteFreeSlot(const char* name, DWORD dwType, t_kyStreamU& header,
                     tag_kyStreamOffset& offset);

  // The folder's index (hierarchy/folder_index.cpp).  The two searches
  // return -1 when the index cannot answer and the slots must be walked.
  kyFileIndexes* FileIndexes() const;
  FolderIndex* FolderIndexInUse();
  bool FillFolderIndex(FolderIndex& index);
  void ForgetFolderIndex();
  bool PlaceCursor(__int64 block, __int64 blockPos, __int64 dataPos);
  int FindStreamIndexed(const char* name, t_kyStreamU& header, tag_kyStreamOffset& offset);
  int AddStreamHeaderIndexed(const char* name, DWORD dwType, t_kyStreamU& header,
                             tag_kyStreamOffset& offset, int bReuseFreeSlot);
  void NoteChildHeaderWritten(__int64 offset, const t_kyStreamU& header);

  // Preloaded-children helpers.
  bool RefreshPreloaded(const char* name, t_kyStreamWithOffset& value);
  bool NextPreloadEntry(void** cursor, bool bFirst, CString& name, t_kyStreamWithOffset& value);
  kyStream* OpenPreloadEntry(void** cursor, bool bFirst, DWORD dwMode);
  void ForgetPreloadedChild(const char* name);
  void RenamePreloadedChild(const char* oldName, const t_kyStreamU& header);

  // Root directory walk.
  bool ReadNextRootSlot(t_kyStreamU& next, tag_kyStreamOffset& where);

  // Serialization helpers.
  CCompRecorder* Recorder() const;
  kyStream& PutNumber(const void* value, DWORD width);
  kyStream& GetNumber(void* value, DWORD width);

  // Entries of this folder: the child `szKey` opened for a setter (null
  // when it cannot be, or is a folder, which is released untouched), or for
  // a getter.
  kyStream* OpenEntryForWrite(const char* szKey);
  kyStream* OpenEntryForRead(const char* szKey);
  // The value forms.  Each takes an entry stream opened for it (null gives
  // the failure result), records what it writes first, and releases it.
  static int PutFixedValue(kyStream* entry, const void* value, DWORD width);
  static int PutStringValue(kyStream* entry, const char* value);
  static int AppendValue(kyStream* entry, const void* data, DWORD size, bool bWithPrefix);
  static int PutErasingOld(kyStream* entry, const void* data, DWORD size, int bPrependSize);
  // False when not all `width` bytes came, or the entry is a folder.
  static bool GetFixedValue(kyStream* entry, void* out, DWORD width);
  static CString GetStringValue(kyStream* entry, const char* def);
  static int GetErasedOld(kyStream* entry, void** data, unsigned int* size);
  static int GetErasedOld(kyStream* entry, void* data, unsigned int size);
  // Whether the stream carries the folder bit: entries never write into it.
  bool HoldsChildren() const { return (m_hdr.Flags() & kFolderFlag) != 0; }
  // The cursor to the end of the data, walked from the start.
  bool SeekToDataEnd();
};

#endif  // KYSTORE_STREAM_H_
