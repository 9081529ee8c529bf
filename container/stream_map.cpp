// The name map of the root streams: built from the root directory chain
// when a storage is opened or created, then kept up to date by this
// object's own creations and removals.

#include "container/directory.h"
#include "kystore/storage.h"

bool kyStorage::InitStreamMap() {
  const bool b64 = m_bUse64BitOffsets != 0;
  DirectoryBlock block;
  __int64 blockOffset = 0;
  int step;
  while ((step = NextDirectoryBlock(blockOffset, block)) > 0) {
    if (block.SlotCount() != kSlotsPerBlock) return false;
    for (__int64 i = 0; i < kSlotsPerBlock; ++i) {
      t_kyStreamU slot;
      CopyDirectorySlot(block, i, b64, slot);
      if (slot.Magic() != kStreamHeaderMagic || slot.IsFree()) continue;
      tag_kyStreamOffset where = {SlotOffset(blockOffset, i, b64), blockOffset, block.SlotCount(),
                                  static_cast<DWORD>(slot.Duration()) * 60u};
      m_streamMap.SetAt(SlotName(slot), where);
    }
  }
  return step == 0;
}

bool kyStorage::FindStreamOffset(const char* name, tag_kyStreamOffset& offset) {
  if (name == nullptr) return false;
  return m_streamMap.Lookup(name, offset);
}

bool kyStorage::RemoveStream(const char* name) {
  if (name == nullptr) return false;
  return m_streamMap.RemoveKey(name);
}
