#include "storage_scan.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include "kystore/format.h"

namespace kycli {

namespace {

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
typedef std::unique_ptr<FILE, FileCloser> FilePtr;

bool ReadAt(FILE* f, int64_t offset, void* buf, size_t count) {
  return fseeko(f, static_cast<off_t>(offset), SEEK_SET) == 0 && fread(buf, 1, count, f) == count;
}

// Classifies the header bytes; false when they are not a storage header.
bool ParseHeader(const StorageHeader& header, int64_t got, StorageScan& scan) {
  if (got < kLegacyHeaderSize || memcmp(header.szSignature, KYSTORE_SIGNATURE, kSignatureLength))
    return false;
  unsigned char mark = static_cast<unsigned char>(header.cFormat);
  scan.formatMark = mark;
  if (mark == '_') {
    scan.olderHeader = true;
    scan.offsets64 = false;
    scan.slotsPerBlock = kSlotsPerBlock;
    scan.fastSlots = kLegacyFastSlots;
    scan.rootOffset = kLegacyHeaderSize;
    return true;
  }
  if (mark < '1' || mark >= 0x80 || got < kHeaderSize) return false;
  scan.offsets64 = mark != '1';
  scan.slotsPerBlock = header.wSlotsPerBlock;
  scan.fastSlots = header.wFastSlots;
  scan.rootOffset = kHeaderSize;
  return true;
}

void CollectSlots(const DirectoryBlock& block, int blockIndex, int64_t blockOffset,
                  StorageScan& scan) {
  bool b64 = scan.offsets64;
  unsigned slots = block.SlotCount() < kSlotsPerBlock ? block.SlotCount() : kSlotsPerBlock;
  for (unsigned i = 0; i < slots; ++i) {
    t_kyStreamU slot;
    memset(&slot, 0, sizeof(slot));
    int64_t at = DirectoryHeadSize(b64) + StreamHeaderSize(b64) * i;
    memcpy(&slot, block.raw + at, static_cast<size_t>(StreamHeaderSize(b64)));
    if (slot.IsFree()) continue;
    NamedSlot named;
    named.name.assign(slot.Name(), strnlen(slot.Name(), kMaxNameLength));
    named.block = blockIndex;
    named.slot = static_cast<int>(i);
    named.offset = blockOffset + at;
    named.hasMagic = slot.Magic() == kStreamHeaderMagic;
    named.folder = slot.Flags() == kFolderFlag;
    named.length = slot.Length(b64);
    named.duration = slot.Duration();
    scan.namedSlots.push_back(named);
  }
}

// Follows the chain from the root offset.  Every block must lie whole in
// the file and be visited once; that bounds the walk by the file's size.
void WalkDirectory(FILE* f, StorageScan& scan) {
  bool b64 = scan.offsets64;
  int64_t blockSize = DirectoryBlockSize(b64);
  std::set<int64_t> seen;
  char text[128];
  for (int64_t offset = scan.rootOffset; offset != 0;) {
    if (offset < 0 || offset > scan.fileSize - blockSize) {
      snprintf(text, sizeof(text), "directory block at %lld lies outside the file",
               static_cast<long long>(offset));
      scan.chainProblem = text;
      return;
    }
    if (!seen.insert(offset).second) {
      snprintf(text, sizeof(text), "directory chain loops back to %lld",
               static_cast<long long>(offset));
      scan.chainProblem = text;
      return;
    }
    DirectoryBlock block;
    memset(&block, 0, sizeof(block));
    if (!ReadAt(f, offset, block.raw, static_cast<size_t>(blockSize))) {
      snprintf(text, sizeof(text), "cannot read directory block at %lld",
               static_cast<long long>(offset));
      scan.chainProblem = text;
      return;
    }
    if (block.Magic() != kDirectoryBlockMagic) {
      snprintf(text, sizeof(text), "directory block at %lld has a bad magic number",
               static_cast<long long>(offset));
      scan.chainProblem = text;
      return;
    }
    if (block.SlotCount() != kSlotsPerBlock && scan.chainProblem.empty()) {
      snprintf(text, sizeof(text), "directory block at %lld holds %u slots instead of %u",
               static_cast<long long>(offset), block.SlotCount(), kSlotsPerBlock);
      scan.chainProblem = text;
    }
    CollectSlots(block, scan.directoryBlocks, offset, scan);
    ++scan.directoryBlocks;
    offset = block.NextBlock(b64);
  }
}

}  // namespace

int StorageScan::RootStreamCount() const {
  std::set<std::string> names;
  for (const NamedSlot& s : namedSlots)
    if (s.hasMagic) names.insert(s.name);
  return static_cast<int>(names.size());
}

const NamedSlot* StorageScan::FindMapped(const std::string& name) const {
  const NamedSlot* found = nullptr;
  for (const NamedSlot& s : namedSlots)
    if (s.hasMagic && s.name == name) found = &s;
  return found;
}

bool ScanStorage(const std::string& path, StorageScan& scan, std::string& error) {
  scan = StorageScan();
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    error = "is a directory";
    return false;
  }
  FilePtr f(fopen(path.c_str(), "rb"));
  if (!f) {
    error = strerror(errno);
    return false;
  }
  if (fseeko(f.get(), 0, SEEK_END) != 0 || (scan.fileSize = ftello(f.get())) < 0) {
    error = "cannot find the size of the file";
    return false;
  }
  StorageHeader header;
  memset(&header, 0, sizeof(header));
  int64_t want = scan.fileSize < kHeaderSize ? scan.fileSize : kHeaderSize;
  if (!ReadAt(f.get(), 0, &header, static_cast<size_t>(want)) || !ParseHeader(header, want, scan)) {
    error = "not a storage file";
    return false;
  }
  WalkDirectory(f.get(), scan);
  return true;
}

bool ReadStreamHeader(const std::string& path, const StorageScan& scan, int64_t offset,
                      t_kyStreamU& header) {
  FilePtr f(fopen(path.c_str(), "rb"));
  memset(&header, 0, sizeof(header));
  return f && offset > 0 &&
         ReadAt(f.get(), offset, header.raw, static_cast<size_t>(StreamHeaderSize(scan.offsets64)));
}

ChainScan ScanChain(const std::string& path, const StorageScan& scan, int64_t first) {
  ChainScan chain;
  FilePtr f(fopen(path.c_str(), "rb"));
  if (!f) {
    chain.problem = strerror(errno);
    return chain;
  }
  const bool b64 = scan.offsets64;
  const int64_t h = b64 ? sizeof(DataBlock64) : sizeof(DataBlock32);
  const int64_t size = scan.fileSize;
  int64_t minimum = 1;  // a link must point at or past this offset
  for (int64_t block = first; block != 0;) {
    DataBlock hdr;
    memset(&hdr, 0, sizeof(hdr));
    const std::string at =
        "block " + std::to_string(chain.blocks + 1) + " at " + std::to_string(block);
    if (block < minimum || block > size - h) {
      chain.problem = at + " lies outside the file or links backwards";
      break;
    }
    if (!ReadAt(f.get(), block, hdr.raw, static_cast<size_t>(h)) ||
        hdr.Magic() != kDataBlockMagic) {
      chain.problem = at + " has no block magic";
      break;
    }
    const int64_t used = hdr.UsedEnd(b64), room = hdr.AllocEnd(b64);
    if (used < h || used > room || room > size - block) {
      chain.problem = at + " has its ends out of order or past the file";
      break;
    }
    ++chain.blocks;
    chain.usedBytes += used - h;
    chain.roomBytes += room - h;
    minimum = block + room;
    block = hdr.NextBlock(b64);
  }
  return chain;
}

}  // namespace kycli
