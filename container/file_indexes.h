// What the storage objects of this process know about one storage file
// beyond its bytes, kept once per file and shared by every object over it.
//
// Walking a root directory or a folder's slots from the start for every
// creation or lookup makes many small streams cost quadratic time.  The
// indexes here remember what earlier walks saw, so that a search can start
// where its answer must lie.  They only ever shorten a search: the search
// that follows picks the same slot and appends the same blocks as a walk
// from the start would, so the file stays byte for byte the same.
//
// The file is identified by device and inode, so two storage objects over
// one file, opened under different paths, share one set of indexes and
// every change made through either keeps them true.  Changes made by
// another process are not seen; like every other copy of file state a
// storage object holds, the indexes assume this process is the only writer.
//
// Internal to the library.
#ifndef KYSTORE_CONTAINER_FILE_INDEXES_H_
#define KYSTORE_CONTAINER_FILE_INDEXES_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/win_types.h"

// The root directory: the chain's blocks as far as walks of this process
// have followed them, and the first of them that may still hold a free
// ordinary slot (every block before it had none when last read, and no
// slot of it has been freed since).
class RootDirectoryIndex {
 public:
  // Where a search for a free ordinary slot may start: the chain position
  // and offset of that block.  False when nothing is known: start at the
  // first block.
  bool SearchStart(size_t& position, __int64& blockOffset) const;
  // The walk found block `blockOffset` at `position` of the chain.  A
  // block other than the one remembered there means the chain is not what
  // was known: everything from that position on is forgotten.
  void BlockAt(size_t position, __int64 blockOffset);
  // Every ordinary slot of the block at `position` was in use.
  void BlockFull(size_t position);
  // The slot at file offset `slotOffset` was freed (or may have been).
  void SlotFreed(__int64 slotOffset);
  void Forget();

 private:
  std::vector<__int64> m_blocks;  // chain order, so ascending offsets
  size_t m_firstMaybeFree = 0;
};

// One folder's child slots, as a walk over all of them saw them and the
// folder's own creations, removals and renames have changed them since:
// where each slot lies, which name each used slot carries, which slots are
// free, and where the cursor stands after the last slot.  Built only for a
// folder whose slots all read whole, with names that are all different.
class FolderIndex {
 public:
  struct Slot {
    __int64 offset;           // the slot's file offset
    __int64 block;            // the block holding it whole, or 0 when it straddles two
    const std::string* name;  // the key in `names`, or null for a free slot
  };
  struct Cursor {
    __int64 block;
    __int64 blockPos;
    __int64 dataPos;
  };

  FolderIndex(__int64 firstBlock) : m_firstBlock(firstBlock) {}

  // Whether the index describes a folder whose chain starts at
  // `firstBlock` and whose count on disk is `count`.
  bool Describes(__int64 firstBlock, DWORD count) const {
    return firstBlock == m_firstBlock && count == m_slots.size();
  }
  // Appends the next slot.  False when a used name is already taken: the
  // index then cannot stand for the folder.
  bool AddSlot(__int64 offset, __int64 block, const char* name);
  // The slot of used child `name`.
  bool Find(const char* name, DWORD& index) const;
  // The first free slot, in slot order.
  bool FirstFree(DWORD& index) const;
  // The slot at file offset `offset`.
  bool SlotAt(__int64 offset, DWORD& index) const;
  const Slot& At(DWORD index) const { return m_slots[index]; }
  // Slot `index` now carries `name` (empty: it is free).  False when the
  // name is taken by another slot.
  bool Name(DWORD index, const char* name);

  const Cursor& End() const { return m_end; }
  void SetEnd(const Cursor& end) { m_end = end; }

 private:
  __int64 m_firstBlock;
  std::vector<Slot> m_slots;
  std::unordered_map<std::string, DWORD> m_names;
  std::set<DWORD> m_free;
  Cursor m_end = {0, 0, 0};
};

class kyFileIndexes {
 public:
  // The indexes of the file with this identity, created empty for the
  // first object over it.  Every Attach is paired with one Detach; the last
  // Detach frees them.  Null when memory runs out: the object then works
  // without indexes.
  static kyFileIndexes* Attach(uint64_t device, uint64_t inode);
  static void Detach(kyFileIndexes* indexes);

  // The file was truncated and written anew: nothing known holds any more.
  void Forget();

  // Tests compare files written with and without the indexes; with this
  // set no search starts anywhere but at the beginning.
  static void SetBypassed(bool bypassed);
  static bool Bypassed();

  RootDirectoryIndex root;

  // The handle of the one storage object that gathers its writes in
  // memory, if any.  A batch starts only while that object is the only one
  // over the file; an object attached later ends it first (its bytes are
  // written), so that it reads the file as the batch left it.
  bool StartBatch(HANDLE file);
  // Writes out the batch of the file at `path`, if any: a file about to be
  // emptied must not get them afterwards, over what is written anew.
  static void EndBatchAt(const char* path);
  void StopBatch(HANDLE file);

  // The index of the folder whose header lies at `headerOffset`, or null.
  FolderIndex* Folder(__int64 headerOffset);
  // A fresh, empty index for that folder in place of any old one; null
  // when memory runs out.
  FolderIndex* NewFolder(__int64 headerOffset, __int64 firstBlock);
  void ForgetFolder(__int64 headerOffset);

 private:
  kyFileIndexes(uint64_t device, uint64_t inode) : m_device(device), m_inode(inode) {}
  uint64_t m_device;
  uint64_t m_inode;
  std::unordered_map<__int64, std::unique_ptr<FolderIndex>> m_folders;
  int m_refs = 0;
  HANDLE m_batchFile = nullptr;
};

#endif  // KYSTORE_CONTAINER_FILE_INDEXES_H_
