// The integrity checker behind kyCheckStorage.  Internal to the library.
//
// One checker walks one file: the header and directory chain
// (storage_check.cpp), every block chain with the ownership of every block
// (storage_check_chains.cpp), and the root slots and folder slots
// (storage_check_folders.cpp).  It reads with positioned reads on a handle
// of its own and holds nothing sized by a number read from the file: what
// it keeps grows with the blocks and slots it has verified inside the file.
#ifndef KYSTORE_CONTAINER_STORAGE_CHECK_H_
#define KYSTORE_CONTAINER_STORAGE_CHECK_H_

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "kystore/check.h"
#include "kystore/format.h"
#include "platform/win_types.h"

class StorageChecker {
 public:
  StorageChecker(HANDLE file, __int64 fileSize, kyCheckReport* report);

  // Checks the whole file into the report.
  void Run();

 private:
  // The data area of one block of a chain: file offset and byte count.
  struct Segment {
    __int64 at;
    __int64 size;
  };
  // What a chain walk found.
  struct Chain {
    std::vector<Segment> segments;
    __int64 held = 0;   // data bytes of all its blocks
    bool whole = true;  // walked to its end without a fault
  };
  // Who owns a region of the file: a chain (index into m_nodes) or the
  // header and directory (kDirectoryOwner).
  struct Region {
    __int64 end;
    int owner;
  };
  // A slot met on the walk: the stream's name (empty for a free slot), the
  // folder holding it (-1: the root directory) and the slot's offset.
  // Paths are built from these only for messages.
  struct Node {
    int parent;
    std::string name;
    __int64 slot;
  };
  // A folder whose slots are still to be checked.
  struct PendingFolder {
    int node;
    Chain chain;
    __int64 length;
  };
  enum ChainUse { kLiveChain, kFreeChain };
  static const int kDirectoryOwner = -1;

  // storage_check.cpp: header, directory chain, faults and reads.
  bool CheckHeader();
  void WalkDirectory();
  bool DirectoryLinkOk(__int64 block, __int64 next);
  void Fault(__int64 offset, const std::string& message);
  bool ReadExact(__int64 offset, void* buf, __int64 count);
  bool Holds(__int64 offset, __int64 count) const;
  std::string PathOf(int node) const;
  std::string Hex(__int64 value) const;

  // storage_check_chains.cpp: chains and who owns each block.
  Chain WalkChain(__int64 first, __int64 linkField, int owner, ChainUse use);
  bool TakeBlock(__int64 block, int owner, __int64 linkField, ChainUse use, DataBlock& hdr,
                 Chain& chain);
  bool Claim(__int64 at, __int64 size, int owner, __int64 faultOffset, ChainUse use);
  int OwnerAt(__int64 offset) const;
  std::string OwnerName(int owner) const;
  void CountSpace();

  // storage_check_folders.cpp: slots at the root and in folders.
  void CheckSlot(const t_kyStreamU& slot, __int64 at, int parent, bool inFolder,
                 std::map<std::string, __int64>& names);
  void CheckStream(const t_kyStreamU& slot, __int64 at, int node);
  void CheckFolders();
  void CheckFolder(const PendingFolder& folder);
  bool ReadData(const Chain& chain, __int64 pos, void* buf, __int64 count);

  HANDLE m_file;
  __int64 m_size;
  kyCheckReport* m_report;
  bool m_b64 = true;
  __int64 m_rootOffset = kHeaderSize;
  __int64 m_claimed = 0;
  std::map<__int64, Region> m_regions;  // by start offset, never overlapping
  std::vector<Node> m_nodes;
  std::deque<PendingFolder> m_folders;
};

#endif  // KYSTORE_CONTAINER_STORAGE_CHECK_H_
