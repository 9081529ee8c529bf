// The checker's look at slots: every root slot, every child slot of every
// folder to the bottom, and the stream each used slot describes.

#include <algorithm>
#include <cstring>

#include "container/storage_check.h"

// A free slot may keep the chain of the stream removed from it; a used slot
// must carry the magic and a terminated name that no other slot of its
// folder (or of the root directory) carries.
void StorageChecker::CheckSlot(const t_kyStreamU& slot, __int64 at, int parent, bool inFolder,
                               std::map<std::string, __int64>& names) {
  if (slot.IsFree()) {
    ++m_report->freeSlots;
    if (inFolder && slot.Magic() != kStreamHeaderMagic)
      Fault(at, "a free child slot of " + PathOf(parent) + " has no slot magic");
    if (slot.FirstBlock(m_b64) == 0) return;
    m_nodes.push_back({parent, "", at});
    WalkChain(slot.FirstBlock(m_b64), at + HeaderFirstBlockOffset(m_b64),
              static_cast<int>(m_nodes.size()) - 1, kFreeChain);
    return;
  }
  ++m_report->streams;
  const bool terminated = memchr(slot.Name(), 0, kMaxNameLength + 1) != nullptr;
  const std::string name(slot.Name(), strnlen(slot.Name(), kMaxNameLength));
  m_nodes.push_back({parent, name, at});
  const int node = static_cast<int>(m_nodes.size()) - 1;
  if (slot.Magic() != kStreamHeaderMagic)
    Fault(at, PathOf(node) + ": slot in use without the slot magic, so the library passes it over");
  if (!terminated) Fault(at + 4, PathOf(node) + ": name has no terminating NUL in its 61 bytes");
  const auto taken = names.emplace(name, at);
  if (!taken.second)
    Fault(at, PathOf(node) + ": name also used by the slot at " + Hex(taken.first->second));
  CheckStream(slot, at, node);
}

void StorageChecker::CheckStream(const t_kyStreamU& slot, __int64 at, int node) {
  Chain chain =
      WalkChain(slot.FirstBlock(m_b64), at + HeaderFirstBlockOffset(m_b64), node, kLiveChain);
  const __int64 length = slot.Length(m_b64);
  if (length < 0)
    Fault(at + kHeaderLengthOffset, PathOf(node) + ": negative length " + std::to_string(length));
  else if (chain.whole && length > chain.held)
    Fault(at + kHeaderLengthOffset, PathOf(node) + ": length " + std::to_string(length) +
                                        " is more than the " + std::to_string(chain.held) +
                                        " bytes its chain holds");
  if (length > 0) m_report->dataBytes += static_cast<ULONGLONG>(std::min(length, chain.held));

  const __int64 last = slot.LastBlock(m_b64);
  const __int64 h = DataBlockHeaderSize(m_b64);
  const bool lastOnChain =
      last == 0 || std::any_of(chain.segments.begin(), chain.segments.end(),
                               [&](const Segment& s) { return s.at - h == last; });
  if (chain.whole && !lastOnChain)
    Fault(at + (m_b64 ? 76 : 72),
          PathOf(node) + ": last block " + Hex(last) + " is not a block of its chain");

  if (slot.Flags() == kFolderFlag) {
    ++m_report->folders;
    m_folders.push_back({node, std::move(chain), length});
  }
}

// Folders are checked breadth first from a queue rather than by recursion,
// so that a deep tree cannot exhaust the stack.  Each folder's blocks were
// claimed for it alone, so a folder whose slots lie in an ancestor's blocks
// was refused on the way down and no walk comes back to its start.
void StorageChecker::CheckFolders() {
  while (!m_folders.empty()) {
    PendingFolder folder = std::move(m_folders.front());
    m_folders.pop_front();
    CheckFolder(folder);
  }
}

// The child count says how many slots follow it; every one of them must lie
// whole in one block, since the library rewrites a child's slot in place.
void StorageChecker::CheckFolder(const PendingFolder& folder) {
  const std::string path = PathOf(folder.node);
  const __int64 slotAt = m_nodes[folder.node].slot;
  const __int64 data = std::min(folder.length, folder.chain.held);
  if (folder.length < 4) {
    if (folder.length >= 0)
      Fault(slotAt + kHeaderLengthOffset, path + ": folder length " +
                                              std::to_string(folder.length) +
                                              " leaves no room for its child count");
    return;
  }
  DWORD count = 0;
  if (data < 4 || !ReadData(folder.chain, 0, &count, 4)) return;
  const __int64 w = StreamHeaderSize(m_b64);
  const __int64 room = (data - 4) / w;
  const __int64 countAt = std::find_if(folder.chain.segments.begin(), folder.chain.segments.end(),
                                       [](const Segment& s) { return s.size > 0; })
                              ->at;
  if (4 + w * count != folder.length)
    Fault(countAt, path + ": child count " + std::to_string(count) +
                       " disagrees with the folder's length " + std::to_string(folder.length) +
                       " (room for " + std::to_string(room) + " slots)");

  std::map<std::string, __int64> names;
  const __int64 slots = std::min<__int64>(count, room);
  size_t seg = 0;
  __int64 segStart = 0;  // data position of segment `seg`
  for (__int64 i = 0; i < slots; ++i) {
    const __int64 pos = 4 + w * i;
    while (segStart + folder.chain.segments[seg].size <= pos)
      segStart += folder.chain.segments[seg++].size;
    const Segment& s = folder.chain.segments[seg];
    const __int64 at = s.at + (pos - segStart);
    if (pos + w > segStart + s.size) {
      Fault(at, path + ": child slot " + std::to_string(i) + " straddles the end of the block at " +
                    Hex(s.at - DataBlockHeaderSize(m_b64)));
      continue;
    }
    t_kyStreamU slot;
    memset(&slot, 0, sizeof(slot));
    if (!ReadExact(at, slot.raw, w)) return;
    CheckSlot(slot, at, folder.node, true, names);
  }
}

// Reads `count` bytes at data position `pos` of a chain, across blocks.
bool StorageChecker::ReadData(const Chain& chain, __int64 pos, void* buf, __int64 count) {
  BYTE* out = static_cast<BYTE*>(buf);
  for (const Segment& s : chain.segments) {
    if (count == 0) break;
    if (pos >= s.size) {
      pos -= s.size;
      continue;
    }
    const __int64 n = std::min(count, s.size - pos);
    if (!ReadExact(s.at + pos, out, n)) return false;
    out += n;
    count -= n;
    pos = 0;
  }
  return count == 0;
}
