// The checker's walk along block chains, and the ownership of every block:
// each byte of the file belongs to at most one block, and each block to at
// most one chain.

#include <cstring>
#include <iterator>

#include "container/storage_check.h"

// A chain is walked under the rules every reader of the library applies: a
// block is taken when its header lies in the file with the magic, its ends
// are ordered and its room lies in the file; a link is taken when it points
// behind the whole room of the block holding it.  The first fault ends the
// walk, since the library's readers stop there too.  Every step moves
// forward in the file, so the walk ends.
StorageChecker::Chain StorageChecker::WalkChain(__int64 first, __int64 linkField, int owner,
                                                ChainUse use) {
  const __int64 h = DataBlockHeaderSize(m_b64);
  Chain chain;
  __int64 block = first;
  while (block != 0) {
    if (!Holds(block, h)) {
      Fault(linkField, OwnerName(owner) + ": block link " + Hex(block) +
                           (block < 0 ? " is negative" : " lies past the end of the file"));
      break;
    }
    DataBlock hdr;
    if (!TakeBlock(block, owner, linkField, use, hdr, chain)) break;
    const __int64 roomEnd = block + hdr.AllocEnd(m_b64);
    const __int64 next = hdr.NextBlock(m_b64);
    if (next == 0) return chain;
    linkField = block + (m_b64 ? 32 : 16);
    if (next >= 0 && next < roomEnd && OwnerAt(next) == owner) {
      Fault(linkField, OwnerName(owner) + ": next-block link " + Hex(next) +
                           " loops back into the same chain");
      break;
    }
    if (next < roomEnd) {
      Fault(linkField, OwnerName(owner) + ": next-block link " + Hex(next) +
                           " points backwards (blocks are only appended behind the block)");
      break;
    }
    block = next;
  }
  chain.whole = false;
  return chain;
}

// Reads and vets one block of a chain and claims its whole room for the
// chain; on success adds its data to `chain`.
bool StorageChecker::TakeBlock(__int64 block, int owner, __int64 linkField, ChainUse use,
                               DataBlock& hdr, Chain& chain) {
  const __int64 h = DataBlockHeaderSize(m_b64);
  memset(&hdr, 0, sizeof(hdr));
  if (!ReadExact(block, hdr.raw, h)) return false;
  if (hdr.Magic() != kDataBlockMagic) {
    Fault(block,
          OwnerName(owner) + ": no data block magic at the block linked from " + Hex(linkField));
    return false;
  }
  const __int64 usedEnd = hdr.UsedEnd(m_b64), allocEnd = hdr.AllocEnd(m_b64);
  if (usedEnd < h || usedEnd > allocEnd) {
    Fault(block + (m_b64 ? 8 : 4), OwnerName(owner) + ": used end " + std::to_string(usedEnd) +
                                       " lies outside " + std::to_string(h) + " to allocated end " +
                                       std::to_string(allocEnd));
    return false;
  }
  if (!Holds(block, allocEnd)) {
    Fault(block + (m_b64 ? 16 : 8), OwnerName(owner) + ": allocated end " +
                                        std::to_string(allocEnd) +
                                        " runs past the end of the file at " + Hex(m_size));
    return false;
  }
  if (!Claim(block, allocEnd, owner, block, use)) return false;
  chain.segments.push_back({block + h, usedEnd - h});
  chain.held += usedEnd - h;
  ++m_report->dataBlocks;
  return true;
}

// Takes [at, at + size) for `owner`.  A region that starts where another
// one does is a block two chains link to; one that overlaps another is a
// block laid over someone else's bytes.  Either is reported at
// `faultOffset` and the region is not taken.
bool StorageChecker::Claim(__int64 at, __int64 size, int owner, __int64 faultOffset, ChainUse use) {
  if (size == 0) return true;
  const __int64 end = at + size;
  auto after = m_regions.lower_bound(at);
  if (after != m_regions.end() && after->first == at) {
    Fault(faultOffset, OwnerName(owner) + ": block " + Hex(at) + " is also linked by " +
                           OwnerName(after->second.owner));
    return false;
  }
  if (after != m_regions.begin()) {
    auto before = std::prev(after);
    if (before->second.end > at) {
      Fault(faultOffset, OwnerName(owner) + ": block " + Hex(at) + " overlaps the block at " +
                             Hex(before->first) + " of " + OwnerName(before->second.owner));
      return false;
    }
  }
  if (after != m_regions.end() && after->first < end) {
    Fault(faultOffset, OwnerName(owner) + ": block " + Hex(at) + " overlaps the block at " +
                           Hex(after->first) + " of " + OwnerName(after->second.owner));
    return false;
  }
  m_regions.emplace(at, Region{end, owner});
  m_claimed += size;
  if (owner == kDirectoryOwner)
    m_report->directoryBytes += size;
  else if (use == kFreeChain)
    m_report->freeSlotBytes += size;
  else
    m_report->liveBytes += size;
  return true;
}

int StorageChecker::OwnerAt(__int64 offset) const {
  auto after = m_regions.upper_bound(offset);
  if (after == m_regions.begin()) return kDirectoryOwner - 1;
  --after;
  return after->second.end > offset ? after->second.owner : kDirectoryOwner - 1;
}

std::string StorageChecker::OwnerName(int owner) const {
  if (owner == kDirectoryOwner) return "the root directory";
  if (m_nodes[owner].name.empty()) return "the free slot at " + Hex(m_nodes[owner].slot);
  return PathOf(owner);
}

void StorageChecker::CountSpace() {
  m_report->unreachableBytes = static_cast<ULONGLONG>(m_size - m_claimed);
}
