#include "tree_walk.h"

#include "hierarchy/child_slots.h"
#include "kystore/format.h"
#include "storage_util.h"

namespace kycli {

namespace {

// Child count before the first slot of a folder's data.
const int64_t kCountBytes = 4;

}  // namespace

std::string LengthProblem(kyStream* stm) {
  const int64_t length = stm->GetLength();
  if (length < 0) return "damaged: negative length " + std::to_string(length);
  // A seek from the start walks the chain: it fails when the blocks end
  // before the length does.
  if (length == 0 || stm->Seek(length, 0, true) == 0) return "";
  return "damaged: its blocks do not hold its " + std::to_string(length) + " bytes";
}

TreeWalk::TreeWalk(const StorageScan& scan, const StreamPath& base)
    : m_scan(scan),
      m_path(base),
      m_budget(scan.fileSize / StreamHeaderSize(false) + 1),
      m_skipBudget(scan.fileSize / StreamHeaderSize(scan.offsets64) + 1) {}

void TreeWalk::Report(const std::string& message) {
  m_problems.push_back({m_path, message});
}

bool TreeWalk::Add(kyStream* stm, int depth) {
  m_path.push_back(stm->GetName());
  bool ok = true;
  if (--m_budget < 0) {
    Report("more streams than the file can hold (a folder contains itself?)");
    ok = false;
  } else if (depth > kMaxFolderDepth) {
    Report("folders nested deeper than " + std::to_string(kMaxFolderDepth) + " levels");
    ok = false;
  } else {
    if (depth > m_height) m_height = depth;
    m_lines.push_back({depth, stm->GetName(), stm->IsFolder() != 0, stm->GetLength(),
                       static_cast<DWORD>(stm->GetDuration()) * 60});
    std::string problem = stm->IsFolder() ? std::string() : LengthProblem(stm);
    if (!problem.empty()) Report(problem);
    if (stm->IsFolder()) ok = Children(stm, depth + 1);
  }
  m_path.pop_back();
  return ok;
}

// Walks the children in slot order.  The walk ends at the end of the
// folder's data; a walk whose cursor stops short of the folder's length met
// a slot it could not read or open.  That is reported once, and the walk
// steps over the slot and goes on while the folder's blocks reach further.
bool TreeWalk::Children(kyStream* folder, int depth) {
  const int64_t length = folder->GetLength();
  if (length < 0) {
    Report("damaged folder: negative length " + std::to_string(length));
    return true;
  }
  const int64_t width = StreamHeaderSize(m_scan.offsets64);
  bool reported = false;
  long long cursor = 0;
  kyStream* child = folder->OpenStreamFirst(&cursor, kModeReadShared);
  for (;;) {
    for (; child != nullptr; child = folder->OpenStreamNext(&cursor, kModeReadShared)) {
      const bool ok = Add(child, depth);
      child->Release();
      if (!ok) return false;
    }
    if (cursor >= length) return true;
    if (!reported)
      Report("damaged folder: its slots break off at byte " + std::to_string(cursor) + " of " +
             std::to_string(length));
    reported = true;
    const int64_t next = cursor < kCountBytes ? kCountBytes : cursor + width;
    if (next >= length || --m_skipBudget < 0 || folder->Seek(next, 0, true) != 0) return true;
    cursor = next;
    child = folder->OpenStreamNext(&cursor, kModeReadShared);
  }
}

bool TreeWalk::Roots(kyStorage* storage) {
  return ForEachRootStream(storage, [this](kyStream* stm, int cursor) {
    if (stm == nullptr) {
      // A slot that carries a name the storage could not open.
      if (cursor >= 0 && cursor < static_cast<int>(m_scan.namedSlots.size()) &&
          m_scan.namedSlots[cursor].hasMagic) {
        m_path.push_back(m_scan.namedSlots[cursor].name);
        Report("cannot open the root stream");
        m_path.pop_back();
      }
      return true;
    }
    const bool ok = Add(stm, 0);
    stm->Release();
    return ok;
  });
}

}  // namespace kycli
