// A read-only look at a storage file's header and root directory, made by
// reading the bytes directly rather than through kyStorage, so that `info`
// can describe files the library refuses and `ls -l` can say where each
// root stream's slot lies.
#ifndef KYSTORE_TOOLS_STORAGE_SCAN_H_
#define KYSTORE_TOOLS_STORAGE_SCAN_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kystore/format.h"

namespace kycli {

// One root directory slot whose name is not empty.
struct NamedSlot {
  std::string name;
  int block;          // index of its directory block along the chain, from 0
  int slot;           // index of the slot within that block
  int64_t offset;     // file offset of the slot
  bool hasMagic;      // the slot carries the stream header magic
  bool folder;        // its flags byte is exactly the folder flag
  int64_t length;     // its length field
  unsigned duration;  // its duration field, in minutes
};

struct StorageScan {
  int64_t fileSize = 0;
  bool olderHeader = false;  // the 26-byte header form
  unsigned char formatMark = 0;
  bool offsets64 = false;
  unsigned slotsPerBlock = 0;
  unsigned fastSlots = 0;
  int64_t rootOffset = 0;
  int directoryBlocks = 0;            // blocks read along the chain
  std::vector<NamedSlot> namedSlots;  // in directory order
  std::string chainProblem;           // empty when the whole chain was read

  // Root streams as the library maps them: distinct names of slots that
  // carry the magic.
  int RootStreamCount() const;
  // The slot the library maps `name` to (the last one in directory order
  // carrying the magic), or null.
  const NamedSlot* FindMapped(const std::string& name) const;
};

// Reads the header of `path` and walks its directory chain, never further
// than the file can hold.  Returns false with `error` set when the file
// cannot be read or is not a storage; a damaged chain still returns true,
// with what was read and `chainProblem` set.
bool ScanStorage(const std::string& path, StorageScan& scan, std::string& error);

// One stream's chain of data blocks as the file holds it.
struct ChainScan {
  int64_t blocks = 0;     // blocks followed
  int64_t usedBytes = 0;  // data bytes in use in them
  int64_t roomBytes = 0;  // data room they hold
  std::string problem;    // why the walk stopped before the chain's end, or ""
};

// Reads the stream header slot at `offset` of `path`, in the scan's width.
bool ReadStreamHeader(const std::string& path, const StorageScan& scan, int64_t offset,
                      t_kyStreamU& header);

// Follows the chain starting at the block `first` (0: no block) by the
// rules the library's walker keeps: a block lies whole in the file, carries
// the magic, has ordered ends, and links only forward past its own room.
// The walk therefore ends on any file.
ChainScan ScanChain(const std::string& path, const StorageScan& scan, int64_t first);

}  // namespace kycli

#endif  // KYSTORE_TOOLS_STORAGE_SCAN_H_
