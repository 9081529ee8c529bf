// Creating children inside a folder: adding a header slot to the folder's
// data (in a free slot or at the end) and opening the new child.

#include <cstring>

#include "container/directory.h"
#include "hierarchy/child_slots.h"
#include "kystore/stream.h"

namespace {

// Name, folder flag and duration of a new child, written into `header`.
// The name is copied with its terminator; bytes of the field after it keep
// what the slot held.
void StampChild(t_kyStreamU& header, const char* name, DWORD dwType, bool b64) {
  memcpy(header.Name(), name, strlen(name) + 1);
  header.Flags() = TypeMakesFolder(dwType) ? kFolderFlag : 0;
  header.Duration() = TypeDuration(dwType);
  header.SetLength(b64, 0);
}

// Marks the folder's writes as its own slot bookkeeping for a scope.
class SlotWrites {
 public:
  explicit SlotWrites(bool& flag) : m_flag(flag), m_was(flag) { m_flag = true; }
  ~SlotWrites() { m_flag = m_was; }
  SlotWrites(const SlotWrites&) = delete;
  SlotWrites& operator=(const SlotWrites&) = delete;

 private:
  bool& m_flag;
  const bool m_was;
};

void StampLocator(tag_kyStreamOffset& offset, DWORD dwType) {
  offset.headerOffset = 0;
  offset.blockOffset = 0;
  offset.dwBlockSlots = 0;
  offset.dwDuration = static_cast<DWORD>(TypeDuration(dwType)) * 60u;
}

}  // namespace

bool kyStream::AddStreamHeader(const char* name, DWORD dwType, t_kyStreamU& header,
                               tag_kyStreamOffset& offset, int bReuseFreeSlot) {
  // A slot with an empty name counts as free and would be taken by the next
  // creation, so neither a missing nor an empty name is written.
  if (!IsValidStreamName(name)) return false;
  if (!ReadChildCount()) return false;
  const __int64 w = HeaderWidth();
  SlotWrites writing(m_bWritingSlots);
  const int indexed = AddStreamHeaderIndexed(name, dwType, header, offset, bReuseFreeSlot);
  if (indexed >= 0) return indexed == 1;
  // An index that could not answer may have moved the cursor.
  if (FileIndexes() != nullptr && !ReadChildCount()) return false;

  if (!bReuseFreeSlot) {
    // Straight to the end of the counted slots.  The count, not the
    // recorded length, says where the table ends: bytes a failed creation
    // left behind it are written over instead of being hidden behind it.
    const __int64 end = 4 + static_cast<__int64>(m_nChildren) * w;
    if (SeekRight(end, true) != 0) return false;
    return AppendSlot(name, dwType, header, offset, false);
  }

  const __int64 maxReads = MaxSlotReads();
  for (DWORD i = 0; i < m_nChildren; ++i) {
    if (i >= maxReads) return false;  // more slots than the data can hold
    memset(&header, 0, sizeof(header));
    const __int64 got = Read(header.raw, w);
    if (got == 0) {
      // The data end before the count says.  The new slot goes where they
      // end, and the count written afterwards is that of the slots present,
      // so that it matches the data again.
      m_nChildren = i;
      break;
    }
    if (got != w || header.Magic() != kStreamHeaderMagic) return false;
    if (header.IsFree()) return ReuseFreeSlot(name, dwType, header, offset);
  }
  return AppendSlot(name, dwType, header, offset, true);
}

// `header` holds the free slot just read; the cursor stands past it.
bool kyStream::ReuseFreeSlot(const char* name, DWORD dwType, t_kyStreamU& header,
                             tag_kyStreamOffset& offset) {
  if (SeekLeft(HeaderWidth(), false) != 0) return false;
  return WriteFreeSlot(name, dwType, header, offset);
}

bool kyStream::WriteFreeSlot(const char* name, DWORD dwType, t_kyStreamU& header,
                             tag_kyStreamOffset& offset) {
  const bool b64 = W64();
  const __int64 w = HeaderWidth();
  StampChild(header, name, dwType, b64);
  if (TypeMakesFolder(dwType)) {
    // A data stream takes over the chain the removed stream left here.  A
    // folder starts a chain of its own: its slots must each lie whole in
    // one block and nothing may follow the last of them, which an old chain
    // with room in its blocks and blocks after its end cannot promise.
    header.SetFirstBlock(b64, 0);
    header.SetLastBlock(b64, 0);
  }
  StampLocator(offset, dwType);
  if (Write(header.raw, w, false, nullptr) != w) return false;
  offset.headerOffset = SlotOffsetJustRead();
  return offset.headerOffset > 0;
}

// Writes a new slot at the cursor; the folder's data end after it.
bool kyStream::AppendSlot(const char* name, DWORD dwType, t_kyStreamU& header,
                          tag_kyStreamOffset& offset, bool bLocateByStepping) {
  const __int64 w = HeaderWidth();
  memset(&header, 0, sizeof(header));
  header.Magic() = kStreamHeaderMagic;
  StampChild(header, name, dwType, W64());
  StampLocator(offset, dwType);
  __int64* where = bLocateByStepping ? nullptr : &offset.headerOffset;
  if (Write(header.raw, w, true, where) != w) return false;
  if (bLocateByStepping) offset.headerOffset = SlotOffsetJustRead();
  if (offset.headerOffset <= 0) return false;
  ++m_nChildren;
  return true;
}

kyStream* kyStream::CreateStream(const char* name, DWORD dwType, DWORD dwMode, int bCheckExisting) {
  if (m_hdr.Flags() != kFolderFlag || !IsValidStreamName(name)) return nullptr;
  // Children another object of this folder added must be seen and kept.
  if (!CatchUpWithHeaderOnDisk()) return nullptr;
  t_kyStreamU header;
  tag_kyStreamOffset offset;
  memset(&header, 0, sizeof(header));
  memset(&offset, 0, sizeof(offset));

  // With a preloaded map and no check asked for, the slot scan is skipped
  // and the child goes to the end of the data.
  const bool lookUp = bCheckExisting != 0 || m_pPreloadMap == nullptr;
  if (lookUp && FindStream(name, header, offset)) return nullptr;
  if (!AddStreamHeader(name, dwType, header, offset, lookUp ? 1 : 0)) return nullptr;

  kyStream* child = OpenStreamByOffset(header, offset, name, dwMode);
  if (child != nullptr && TypeMakesFolder(dwType)) {
    const DWORD noChildren = 0;
    if (child->Write(&noChildren, 4, false, nullptr) != 4) {
      child->Release();
      return nullptr;
    }
  }
  // The count is rewritten even when the child could not be opened: its
  // slot is in the data either way.
  {
    SlotWrites writing(m_bWritingSlots);
    if (Seek(0, 0, true) == 0) Write(&m_nChildren, 4, false, nullptr);
  }

  if (m_pPreloadMap != nullptr) {
    // The open child's header already carries the block its first write
    // appended; a copy taken before would send later opens to no block.
    t_kyStreamWithOffset value;
    memset(&value, 0, sizeof(value));
    value.hdr = child != nullptr ? child->m_hdr : header;
    memcpy(&value.offset, &offset, sizeof(offset));  // the value is packed
    m_pPreloadMap->SetAt(name, value);
  }
  return child;
}

kyStream* kyStream::OpenOrCreateStream(const char* name, int type) {
  kyStream* child = OpenStream(name, kModeReadWriteShared);
  if (child != nullptr) return child;
  return CreateStream(name, static_cast<DWORD>(type), kModeReadWriteShared, 1);
}

kyStream* kyStream::OpenOrCreateStream(const char* name, DWORD dwType, DWORD dwMode) {
  kyStream* child = OpenStream(name, dwMode);
  if (child != nullptr) return child;
  // The open can fail for a child that exists (its holder refuses the
  // mode).  The map answers cheaply, so a second child of the same name is
  // not appended behind the first.
  t_kyStreamU header;
  tag_kyStreamOffset offset;
  if (m_pPreloadMap != nullptr && FindStream(name, header, offset)) return nullptr;
  return CreateStream(name, dwType, dwMode, 0);
}
