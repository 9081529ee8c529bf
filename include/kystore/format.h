// The records of a storage file, byte for byte.
//
// Every record is packed and little-endian.  A storage has one offset width,
// chosen at creation: with 32-bit offsets every offset field (and a stream's
// length) is a DWORD, with 64-bit offsets it is a signed 64-bit integer.  The
// unions below hold either layout; the accessors take the width and read or
// write the right one.  docs/FORMAT.md describes the same bytes in prose.
#ifndef KYSTORE_FORMAT_H_
#define KYSTORE_FORMAT_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kystore/export.h"
#include "platform/win_types.h"

// Magic numbers of the three block and record kinds.
const DWORD kDirectoryBlockMagic = 0xFBFBFBFBu;
const DWORD kStreamHeaderMagic = 0xFCFCFCFCu;
const DWORD kDataBlockMagic = 0xFAFAFAFAu;

// The 24 signature characters every storage file starts with.
#define KYSTORE_SIGNATURE "@_RK_Structured_Storage@"
const size_t kSignatureLength = 24;

const WORD kSlotsPerBlock = 64;        // slots in a directory block
const WORD kFastSlots = 6;             // fast slots of a file with the 32-byte header
const WORD kLegacyFastSlots = 2;       // fast slots of a file with the older 26-byte header
const __int64 kHeaderSize = 32;        // StorageHeader as written today
const __int64 kLegacyHeaderSize = 26;  // older header form, read only
const int kMaxNameLength = 60;         // characters of a stream name, terminator excluded

// Bits of t_kyStreamU::bFolder.
const BYTE kFolderFlag = 0x01;
const BYTE kSizePrefixFlag = 0x02;

// A WORD field of a packed record that lies at an odd offset.  Binding a
// WORD& to it would be misaligned, so it is read and written by copying.
class KYSTORE_EXPORT PackedWordRef {
 public:
  explicit PackedWordRef(void* at) : m_at(at) {}
  operator WORD() const {
    WORD v;
    memcpy(&v, m_at, sizeof(v));
    return v;
  }
  PackedWordRef& operator=(WORD v) {
    memcpy(m_at, &v, sizeof(v));
    return *this;
  }

 private:
  void* m_at;
};

#pragma pack(push, 1)

// File header at offset 0.
struct StorageHeader {
  char szSignature[24];  // "@_RK_Structured_Storage@", no terminator
  char cFormat;          // '1': 32-bit offsets, '2': 64-bit offsets
  char cTerminator;      // 0
  WORD wSlotsPerBlock;   // 64
  WORD wFastSlots;       // 6
  WORD wReserved;        // 0
};

// Stream header record, 32-bit layout (80 bytes).
struct t_kyStreamU32 {
  DWORD dwMagic;
  char szName[61];
  WORD wDuration;  // minutes
  BYTE bFolder;    // kFolderFlag, kSizePrefixFlag
  DWORD length;
  DWORD lastBlock;
  DWORD firstBlock;
};

// Stream header record, 64-bit layout (92 bytes).
struct t_kyStreamU64 {
  DWORD dwMagic;
  char szName[61];
  WORD wDuration;
  BYTE bFolder;
  __int64 length;
  __int64 lastBlock;
  __int64 firstBlock;
};

// One stream header in either layout.  The first 68 bytes are common.
union t_kyStreamU {
  t_kyStreamU32 s32;
  t_kyStreamU64 s64;
  BYTE raw[92];

  DWORD& Magic() { return s32.dwMagic; }
  DWORD Magic() const { return s32.dwMagic; }
  char* Name() { return s32.szName; }
  const char* Name() const { return s32.szName; }
  PackedWordRef Duration() { return PackedWordRef(raw + 65); }
  WORD Duration() const { return s32.wDuration; }
  BYTE& Flags() { return s32.bFolder; }
  BYTE Flags() const { return s32.bFolder; }
  bool IsFree() const { return s32.szName[0] == '\0'; }

  __int64 Length(bool b64) const { return b64 ? s64.length : static_cast<__int64>(s32.length); }
  __int64 LastBlock(bool b64) const {
    return b64 ? s64.lastBlock : static_cast<__int64>(s32.lastBlock);
  }
  __int64 FirstBlock(bool b64) const {
    return b64 ? s64.firstBlock : static_cast<__int64>(s32.firstBlock);
  }
  void SetLength(bool b64, __int64 v) {
    if (b64)
      s64.length = v;
    else
      s32.length = static_cast<DWORD>(v);
  }
  void SetLastBlock(bool b64, __int64 v) {
    if (b64)
      s64.lastBlock = v;
    else
      s32.lastBlock = static_cast<DWORD>(v);
  }
  void SetFirstBlock(bool b64, __int64 v) {
    if (b64)
      s64.firstBlock = v;
    else
      s32.firstBlock = static_cast<DWORD>(v);
  }
};

// Header of a root directory block; the slots follow it.
struct DirectoryBlockHead32 {
  DWORD dwMagic;
  DWORD dwSlotCount;
  DWORD nextBlock;
};
struct DirectoryBlockHead64 {
  DWORD dwMagic;
  DWORD dwSlotCount;
  __int64 nextBlock;
};

struct DirectoryBlock32 {
  DirectoryBlockHead32 head;
  t_kyStreamU32 slots[64];
};
struct DirectoryBlock64 {
  DirectoryBlockHead64 head;
  t_kyStreamU64 slots[64];
};

// A whole root directory block in either layout.
union DirectoryBlock {
  DirectoryBlock32 d32;
  DirectoryBlock64 d64;
  BYTE raw[5904];

  DWORD Magic() const { return d32.head.dwMagic; }
  DWORD SlotCount() const { return d32.head.dwSlotCount; }
  __int64 NextBlock(bool b64) const {
    return b64 ? d64.head.nextBlock : static_cast<__int64>(d32.head.nextBlock);
  }
};

// Header of a data block; the block's data area follows it.
struct DataBlock32 {
  DWORD dwMagic;
  DWORD usedEnd;
  DWORD allocEnd;
  DWORD prevBlock;
  DWORD nextBlock;
};
struct DataBlock64 {
  DWORD dwMagic;
  DWORD dwReserved;
  __int64 usedEnd;
  __int64 allocEnd;
  __int64 prevBlock;
  __int64 nextBlock;
};

union DataBlock {
  DataBlock32 b32;
  DataBlock64 b64;
  BYTE raw[40];

  DWORD Magic() const { return b32.dwMagic; }
  __int64 UsedEnd(bool w) const { return w ? b64.usedEnd : static_cast<__int64>(b32.usedEnd); }
  __int64 AllocEnd(bool w) const { return w ? b64.allocEnd : static_cast<__int64>(b32.allocEnd); }
  __int64 PrevBlock(bool w) const {
    return w ? b64.prevBlock : static_cast<__int64>(b32.prevBlock);
  }
  __int64 NextBlock(bool w) const {
    return w ? b64.nextBlock : static_cast<__int64>(b32.nextBlock);
  }
  void SetUsedEnd(bool w, __int64 v) {
    if (w)
      b64.usedEnd = v;
    else
      b32.usedEnd = static_cast<DWORD>(v);
  }
  void SetAllocEnd(bool w, __int64 v) {
    if (w)
      b64.allocEnd = v;
    else
      b32.allocEnd = static_cast<DWORD>(v);
  }
  void SetPrevBlock(bool w, __int64 v) {
    if (w)
      b64.prevBlock = v;
    else
      b32.prevBlock = static_cast<DWORD>(v);
  }
  void SetNextBlock(bool w, __int64 v) {
    if (w)
      b64.nextBlock = v;
    else
      b32.nextBlock = static_cast<DWORD>(v);
  }
};

#pragma pack(pop)

// Where a stream header lives.  Kept in memory only, never written.
struct tag_kyStreamOffset {
  __int64 headerOffset;  // file offset of the header slot
  __int64 blockOffset;   // root streams: offset of the directory block; children: 0
  DWORD dwBlockSlots;    // root streams: slot count of that block; children: 0
  DWORD dwDuration;      // the header's wDuration times 60 (seconds)
};

// A header followed by its locator: the value type of a folder's preloaded
// children.  It lives in memory only, so it keeps its natural alignment: the
// locator starts at 96, and callers can pass `value.offset` straight to the
// calls that take a tag_kyStreamOffset&.
struct t_kyStreamWithOffset {
  t_kyStreamU hdr;
  tag_kyStreamOffset offset;
};

// Sizes that depend on the offset width.
inline __int64 StreamHeaderSize(bool b64) {
  return b64 ? 92 : 80;
}
inline __int64 DirectoryHeadSize(bool b64) {
  return b64 ? 16 : 12;
}
inline __int64 DirectoryBlockSize(bool b64) {
  return b64 ? 5904 : 5132;
}
inline __int64 DataBlockHeaderSize(bool b64) {
  return b64 ? 40 : 20;
}
// Byte offset of a header's `length` field (followed by lastBlock).
const __int64 kHeaderLengthOffset = 68;
const __int64 kHeaderFlagsOffset = 67;
inline __int64 HeaderFirstBlockOffset(bool b64) {
  return b64 ? 84 : 76;
}
// File offset of slot `index` of the directory block at `block`.
inline __int64 SlotOffset(__int64 block, __int64 index, bool b64) {
  return block + DirectoryHeadSize(b64) + StreamHeaderSize(b64) * index;
}

static_assert(sizeof(StorageHeader) == 32, "StorageHeader is 32 bytes");
static_assert(offsetof(StorageHeader, cFormat) == 24, "format mark at 24");
static_assert(offsetof(StorageHeader, wSlotsPerBlock) == 26, "slots per block at 26");
static_assert(offsetof(StorageHeader, wFastSlots) == 28, "fast slots at 28");
static_assert(sizeof(t_kyStreamU32) == 80, "32-bit stream header is 80 bytes");
static_assert(sizeof(t_kyStreamU64) == 92, "64-bit stream header is 92 bytes");
static_assert(sizeof(t_kyStreamU) == 92, "stream header union is 92 bytes");
static_assert(offsetof(t_kyStreamU32, szName) == 4, "name at 4");
static_assert(offsetof(t_kyStreamU32, wDuration) == 65, "duration at 65");
static_assert(offsetof(t_kyStreamU32, bFolder) == 67, "folder flags at 67");
static_assert(offsetof(t_kyStreamU32, length) == 68, "32-bit length at 68");
static_assert(offsetof(t_kyStreamU32, lastBlock) == 72, "32-bit lastBlock at 72");
static_assert(offsetof(t_kyStreamU32, firstBlock) == 76, "32-bit firstBlock at 76");
static_assert(offsetof(t_kyStreamU64, wDuration) == 65, "duration at 65");
static_assert(offsetof(t_kyStreamU64, length) == 68, "64-bit length at 68");
static_assert(offsetof(t_kyStreamU64, lastBlock) == 76, "64-bit lastBlock at 76");
static_assert(offsetof(t_kyStreamU64, firstBlock) == 84, "64-bit firstBlock at 84");
static_assert(sizeof(DirectoryBlockHead32) == 12, "32-bit directory head is 12 bytes");
static_assert(sizeof(DirectoryBlockHead64) == 16, "64-bit directory head is 16 bytes");
static_assert(sizeof(DirectoryBlock32) == 5132, "32-bit directory block is 5132 bytes");
static_assert(sizeof(DirectoryBlock64) == 5904, "64-bit directory block is 5904 bytes");
static_assert(sizeof(DirectoryBlock) == 5904, "directory block union is 5904 bytes");
static_assert(offsetof(DirectoryBlock32, slots) == 12, "32-bit slots at 12");
static_assert(offsetof(DirectoryBlock64, slots) == 16, "64-bit slots at 16");
static_assert(sizeof(DataBlock32) == 20, "32-bit data block header is 20 bytes");
static_assert(sizeof(DataBlock64) == 40, "64-bit data block header is 40 bytes");
static_assert(offsetof(DataBlock64, usedEnd) == 8, "64-bit usedEnd at 8");
static_assert(offsetof(DataBlock64, nextBlock) == 32, "64-bit nextBlock at 32");
static_assert(offsetof(DataBlock32, nextBlock) == 16, "32-bit nextBlock at 16");
static_assert(sizeof(tag_kyStreamOffset) == 24, "locator is 24 bytes");
static_assert(offsetof(t_kyStreamWithOffset, offset) % alignof(tag_kyStreamOffset) == 0,
              "the locator of a preloaded child is aligned");

#endif  // KYSTORE_FORMAT_H_
