// Walking a tree of streams for the commands that look at all of it: tree
// prints it, cp checks its source with it before copying.  The walk tells
// damage from the end of the data, reports it, and goes on past it where
// it can.
#ifndef KYSTORE_TOOLS_TREE_WALK_H_
#define KYSTORE_TOOLS_TREE_WALK_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kystore.h"
#include "path_util.h"
#include "storage_scan.h"

namespace kycli {

// Why the data of `stm` cannot be read as far as its length says (a
// negative length, or blocks that hold fewer bytes), or "" when they can.
// Moves the storage's shared file position.
std::string LengthProblem(kyStream* stm);

struct TreeLine {
  int depth;
  std::string name;
  bool folder;
  int64_t length;
  DWORD seconds;
};

// Damage found at `path` (from the storage's root).
struct TreeProblem {
  StreamPath path;
  std::string message;
};

class TreeWalk {
 public:
  // `scan` describes the storage (its header width steps over a damaged
  // slot; its file size bounds the walk: every stream needs a slot of at
  // least 80 bytes).  `base` is the path of the folder that holds the first
  // stream added, empty for the root.
  TreeWalk(const StorageScan& scan, const StreamPath& base);

  // Adds `stm` at `depth` (0 for the first) and everything below it.  False
  // when the walk had to stop early (more streams than the file can hold);
  // problems() then says why.  Damage below `stm` is only reported.
  bool Add(kyStream* stm, int depth);
  // Adds every root stream in directory order.
  bool Roots(kyStorage* storage);

  const std::vector<TreeLine>& Lines() const { return m_lines; }
  const std::vector<TreeProblem>& Problems() const { return m_problems; }
  // Levels below the first stream added (0 when nothing is nested).
  int Height() const { return m_height; }

 private:
  bool Children(kyStream* folder, int depth);
  void Report(const std::string& message);

  const StorageScan& m_scan;
  StreamPath m_path;
  int64_t m_budget;      // streams the file can still hold
  int64_t m_skipBudget;  // damaged slots the walk may still step over
  int m_height = 0;
  std::vector<TreeLine> m_lines;
  std::vector<TreeProblem> m_problems;
};

}  // namespace kycli

#endif  // KYSTORE_TOOLS_TREE_WALK_H_
