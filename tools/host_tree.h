// Walking a directory tree of the host for `kystore import`: what it
// holds, in the order the import makes it, and everything in it that
// cannot become a stream, found before the storage is touched.
#ifndef KYSTORE_TOOLS_HOST_TREE_H_
#define KYSTORE_TOOLS_HOST_TREE_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "path_util.h"

namespace kycli {

// One directory or regular file below the walked directory.
struct HostEntry {
  StreamPath path;  // names from the walked directory down
  bool folder;
  int64_t size;  // bytes of a file; 0 for a directory
};

struct HostTree {
  std::vector<HostEntry> entries;     // a directory before what it holds
  std::vector<std::string> problems;  // "<path>: <why>", names shown escaped
  int64_t dataBytes = 0;              // bytes of all the files
};

// Walks `dir` without following symbolic links.  Entries of a directory
// come in byte order of their names, so that the same tree always makes
// the same storage.  Refused, with a problem each: names longer than a
// stream name may be, files larger than a stream holds, symbolic links,
// anything that is neither a regular file nor a directory, what cannot be
// read, the file `self` (device and inode; the storage being written), and
// directories nested more than `maxDepth` levels.  Returns false when
// `dir` itself is not a readable directory (a problem says why).
bool WalkHostTree(const std::string& dir, int maxDepth, dev_t selfDev, ino_t selfIno,
                  HostTree& tree);

}  // namespace kycli

#endif  // KYSTORE_TOOLS_HOST_TREE_H_
