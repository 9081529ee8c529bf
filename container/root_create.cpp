// Creating root streams: finding a free slot along the root directory chain,
// growing the chain by a new block when every slot is taken, writing the new
// header, and the open-or-create operations built on it.

#include <cstring>
#include <new>

#include "container/directory.h"
#include "container/file_indexes.h"
#include "kystore/recorder.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

namespace {

// The header of a stream about to be created in `freeSlot`.  A data stream
// takes over the slot's block chain (left by a removed stream) and starts
// with length 0.  A folder starts a chain of its own: the old chain's blocks
// may have spare room and further linked blocks, and a child slot written
// into them could straddle two blocks or be followed by stale bytes that a
// slot walk would read as children.
t_kyStreamU NewHeader(const char* name, DWORD dwType, const t_kyStreamU& freeSlot, bool b64) {
  t_kyStreamU header;
  memset(&header, 0, sizeof(header));
  header.Magic() = kStreamHeaderMagic;
  strncpy(header.Name(), name, kMaxNameLength);
  header.Duration() = static_cast<WORD>(dwType >> 16);
  const bool folder = (dwType & 0xFF) != 0;
  header.Flags() = folder ? kFolderFlag : 0;
  header.SetLength(b64, 0);
  header.SetLastBlock(b64, folder ? 0 : freeSlot.LastBlock(b64));
  header.SetFirstBlock(b64, folder ? 0 : freeSlot.FirstBlock(b64));
  return header;
}

bool WriteAll(HANDLE h, const void* data, __int64 size) {
  DWORD written = 0;
  return WriteFile(h, data, static_cast<DWORD>(size), &written, nullptr) &&
         written == static_cast<DWORD>(size);
}

}  // namespace

// Appends an empty directory block at the end of the file and links it from
// the block at `lastBlock`.  Returns the new block's offset, or -1.
__int64 kyStorage::AppendDirectoryBlock(__int64 lastBlock) {
  const bool b64 = m_bUse64BitOffsets != 0;
  const __int64 size = DirectoryBlockSize(b64);
  const __int64 at = SetFilePointer(m_hFile, 0, FILE_END);
  if (at < 0 || at + size > FileSizeLimit()) return -1;

  DirectoryBlock block;
  memset(&block, 0, sizeof(block));
  block.d32.head.dwMagic = kDirectoryBlockMagic;
  block.d32.head.dwSlotCount = m_wSlotsPerBlock;
  if (!WriteAll(m_hFile, block.raw, size)) return -1;
  FileReached(at + size);
  // From here on no data block ends the file, whether or not the link below
  // is written: none may grow in place over the new block.
  m_lastAppended = at + size;

  if (SetFilePointer(m_hFile, lastBlock + 8, FILE_BEGIN) == -1) return -1;
  const __int64 link64 = at;
  const DWORD link32 = static_cast<DWORD>(at);
  if (!(b64 ? WriteAll(m_hFile, &link64, 8) : WriteAll(m_hFile, &link32, 4))) return -1;
  return at;
}

// True when a used slot of the root directory carries `name`.  Also true
// when the chain cannot be read to its end: without proof that the name is
// absent, creation refuses rather than risk two streams of one name.
bool kyStorage::NameOnDisk(const char* name) {
  const int step =
      ForEachUsedRootSlot([name](const t_kyStreamU& slot) { return SlotName(slot) != name; });
  return step != 0;
}

// Creates root stream `name` in the first free slot in search order (the
// fast slots with bFast; otherwise the ordinary slots of the first block,
// then every later block, then a new block).  With bOpenFirst it opens the
// first ordinary slot instead, whatever it holds, and never writes.
//
// Choices made here:
// - a null or empty name, or one of 61 characters or more, is refused: an
//   empty name would make the slot look free and be overwritten later;
// - a storage without a file handle (held in memory) creates nothing, and a
//   read-only one fails at its first write, before any byte has changed;
// - a storage opened with OpenFast has no name map, so the root directory on
//   disk is searched for the name first;
// - the new stream is not entered in the open-stream registry: its Release
//   then returns -1, as for any stream created at the root.
kyStream* kyStorage::CreateStreamHelper(const char* name, DWORD dwType, DWORD mode, bool bFast,
                                        bool bOpenFirst) {
  if (bOpenFirst ? !CanRead() : !IsValidStreamName(name)) return nullptr;
  if (!bOpenFirst) {
    tag_kyStreamOffset existing;
    if (m_hFile == INVALID_HANDLE_VALUE || FindStreamOffset(name, existing)) return nullptr;
    if (m_bOpenedFast && NameOnDisk(name)) return nullptr;
  }

  const bool b64 = m_bUse64BitOffsets != 0;
  const bool searchFree = !bFast && !bOpenFirst;
  RootDirectoryIndex* index = m_pIndexes != nullptr ? &m_pIndexes->root : nullptr;
  DirectoryBlock block;
  __int64 blockOffset = 0;
  size_t position = 0;
  int step = StartFreeSlotSearch(!searchFree, blockOffset, block, position);
  for (bool appended = false;; ++position) {
    if (step < 0) return nullptr;
    if (step == 0) {
      // Every slot of the chain is taken: a new block joins it.  Should the
      // new block offer no free slot after all, the search ends there.
      if (appended) return nullptr;
      const __int64 added = AppendDirectoryBlock(blockOffset);
      if (added < 0 || !ReadDirectoryBlock(added, block)) return nullptr;
      blockOffset = added;
      appended = true;
    }
    if (index != nullptr) index->BlockAt(position, blockOffset);
    const __int64 first = position == 0 && !bFast ? m_wFastSlots : 0;
    __int64 end = UsableSlots(block);
    if (bFast && end > m_wFastSlots) end = m_wFastSlots;
    for (__int64 i = first; i < end; ++i) {
      t_kyStreamU slot;
      CopyDirectorySlot(block, i, b64, slot);
      if (bOpenFirst) {
        tag_kyStreamOffset where = {SlotOffset(blockOffset, i, b64), blockOffset, block.SlotCount(),
                                    static_cast<DWORD>(slot.Duration()) * 60u};
        return OpenStreamByOffset(where, SlotName(slot), mode);
      }
      if (!slot.IsFree()) continue;
      return CreateInSlot(name, dwType, mode, blockOffset, block, i);
    }
    // The fast area never grows, and opening the first slot never writes.
    if (!searchFree) return nullptr;
    if (index != nullptr) index->BlockFull(position);
    step = NextDirectoryBlock(blockOffset, block);
  }
}

// A search for a free ordinary slot starts at the first block that may
// still hold one, as far as this process knows, rather than at the first
// block of the chain; other searches, and a block that no longer reads as
// one, start at the first.
int kyStorage::StartFreeSlotSearch(bool bFromFirst, __int64& blockOffset, DirectoryBlock& block,
                                   size_t& position) {
  RootDirectoryIndex* index = m_pIndexes != nullptr ? &m_pIndexes->root : nullptr;
  if (!bFromFirst && index != nullptr && !kyFileIndexes::Bypassed() &&
      index->SearchStart(position, blockOffset)) {
    if (ReadDirectoryBlock(blockOffset, block)) return 1;
    index->Forget();
  }
  position = 0;
  blockOffset = 0;
  return NextDirectoryBlock(blockOffset, block) > 0 ? 1 : -1;
}

// Writes the header of new stream `name` into free slot `index` of the
// directory block at `blockOffset` (read whole into `block`), maps the name
// and hands out the stream.
kyStream* kyStorage::CreateInSlot(const char* name, DWORD dwType, DWORD mode, __int64 blockOffset,
                                  const DirectoryBlock& block, __int64 index) {
  const bool b64 = m_bUse64BitOffsets != 0;
  t_kyStreamU slot;
  CopyDirectorySlot(block, index, b64, slot);
  t_kyStreamU header = NewHeader(name, dwType, slot, b64);
  const __int64 slotOffset = SlotOffset(blockOffset, index, b64);
  if (!WriteStreamHeader(slotOffset, header)) return nullptr;
  tag_kyStreamOffset where = {slotOffset, blockOffset, block.SlotCount(),
                              static_cast<DWORD>(header.Duration()) * 60u};
  kyStream* stm = new (std::nothrow) kyStream(this, header, m_hFile, where);
  if (stm == nullptr) return nullptr;
  m_streamMap.SetAt(name, where);
  stm->m_dwOpenMode = mode;
  stm->m_b64BitOffsets = m_bUse64BitOffsets;
  // A folder's data begin with its child count.  Should that write fail,
  // the folder is still handed out: its name is on disk and in the map,
  // and a folder without data has no children.
  const DWORD noChildren = 0;
  if (header.Flags() == kFolderFlag) stm->Write(&noChildren, sizeof(noChildren));
  return stm;
}

kyStream* kyStorage::CreateStream(const char* name, DWORD dwType, DWORD mode) {
  return CreateStreamHelper(name, dwType, mode, false, false);
}

kyStream* kyStorage::CreateStream(const char* name, DWORD mode) {
  return CreateStreamHelper(name, 0, mode, false, false);
}

kyStream* kyStorage::CreateStreamFast(const char* name, DWORD dwType, DWORD mode) {
  return CreateStreamHelper(name, dwType, mode, true, false);
}

kyStream* kyStorage::CreateStreamFast(const char* name, DWORD mode) {
  return CreateStreamHelper(name, 0, mode, true, false);
}

kyStream* kyStorage::OpenOrCreateStream(const char* name, int bFolder) {
  kyStream* stm = OpenStream(name, kModeReadWriteShared);
  if (stm != nullptr) return stm;
  return CreateStreamHelper(name, static_cast<DWORD>(bFolder), kModeReadWriteShared, false, false);
}

kyStream* kyStorage::OpenOrCreateStreamFast(const char* name, int bSeekToEnd) {
  kyStream* stm = OpenStreamFast(name, kModeReadWriteShared);
  if (stm == nullptr) stm = CreateStreamHelper(name, 0, kModeReadWriteShared, true, false);
  if (stm == nullptr) return nullptr;
  if (bSeekToEnd) stm->Seek(0, 1);
  if (m_pRecorder != nullptr) m_pRecorder->OpEnterFast(name, bSeekToEnd, stm);
  return stm;
}
