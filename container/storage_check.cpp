// kyCheckStorage, and the checker's walk over the file header and the root
// directory chain.

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "container/storage_check.h"
#include "platform/win_file.h"

bool kyCheckStorage(const char* path, kyCheckReport* report) {
  *report = kyCheckReport();
  if (path == nullptr) {
    report->error = strerror(EINVAL);
    return false;
  }
  errno = 0;
  const DWORD attributes = GetFileAttributesA(path);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    report->error = strerror(errno != 0 ? errno : ENOENT);
    return false;
  }
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
    report->error = strerror(EISDIR);
    return false;
  }
  // Read access only: the check can never change the file.
  HANDLE file = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    report->error = strerror(errno != 0 ? errno : EACCES);
    return false;
  }
  LARGE_INTEGER size;
  if (!GetFileSizeEx(file, &size)) {
    report->error = strerror(EIO);
    CloseHandle(file);
    return false;
  }
  StorageChecker(file, size.QuadPart, report).Run();
  CloseHandle(file);
  return true;
}

StorageChecker::StorageChecker(HANDLE file, __int64 fileSize, kyCheckReport* report)
    : m_file(file), m_size(fileSize), m_report(report) {}

void StorageChecker::Run() {
  m_report->fileSize = static_cast<ULONGLONG>(m_size);
  if (!CheckHeader()) return;
  m_report->isStorage = true;
  m_report->offsetBits = m_b64 ? 64 : 32;
  Claim(0, m_rootOffset, kDirectoryOwner, 0, kLiveChain);
  WalkDirectory();
  CheckFolders();
  CountSpace();
}

// The header decides whether the file is a storage at all, and so whether
// anything else is looked at.  Within a storage header, values the library
// refuses (other slot counts, more fast slots) are faults.
bool StorageChecker::CheckHeader() {
  if (m_size == 0) {
    m_report->error = "the file is empty";
    return false;
  }
  StorageHeader header;
  memset(&header, 0, sizeof(header));
  const __int64 got = m_size < kHeaderSize ? m_size : kHeaderSize;
  if (!ReadExact(0, &header, got)) {
    m_report->error = strerror(EIO);
    return false;
  }
  if (got < kLegacyHeaderSize || memcmp(header.szSignature, KYSTORE_SIGNATURE, kSignatureLength)) {
    m_report->error = "no storage signature at offset 0";
    return false;
  }
  const unsigned char mark = static_cast<unsigned char>(header.cFormat);
  if (mark == '_') {
    m_b64 = false;
    m_rootOffset = kLegacyHeaderSize;
    return true;
  }
  if (mark < '1' || mark >= 0x80) {
    char text[64];
    snprintf(text, sizeof(text), "unknown format mark 0x%02X at offset 24", mark);
    m_report->error = text;
    return false;
  }
  if (got < kHeaderSize) {
    m_report->error = "the file ends inside the storage header";
    return false;
  }
  m_b64 = mark != '1';
  if (header.wSlotsPerBlock != kSlotsPerBlock)
    Fault(26, "header gives " + std::to_string(header.wSlotsPerBlock) +
                  " slots per directory block; only 64 is known");
  if (header.wFastSlots > kFastSlots)
    Fault(28,
          "header gives " + std::to_string(header.wFastSlots) + " fast slots; at most 6 are known");
  return true;
}

// Blocks of the chain are appended, never moved, so a sound link points
// forward past the whole block that holds it; the walk takes no other link
// and so ends.  Each block's slots, used and free, are checked on the way.
void StorageChecker::WalkDirectory() {
  const __int64 blockSize = DirectoryBlockSize(m_b64);
  std::map<std::string, __int64> names;
  __int64 block = m_rootOffset;
  if (!Holds(block, blockSize)) {
    Fault(block, "the first directory block runs past the end of the file at " + Hex(m_size));
    return;
  }
  while (block != 0) {
    DirectoryBlock dir;
    if (!ReadExact(block, dir.raw, blockSize)) return;
    if (dir.Magic() != kDirectoryBlockMagic) {
      Fault(block, "no directory block magic");
      return;
    }
    if (!Claim(block, blockSize, kDirectoryOwner, block, kLiveChain)) return;
    ++m_report->directoryBlocks;
    __int64 slots = dir.SlotCount();
    if (slots != kSlotsPerBlock) {
      Fault(block + 4, "directory block has slot count " + std::to_string(slots) + ", not 64");
      if (slots > kSlotsPerBlock) slots = kSlotsPerBlock;
    }
    for (__int64 i = 0; i < slots; ++i) {
      t_kyStreamU slot;
      memset(&slot, 0, sizeof(slot));
      const __int64 at = DirectoryHeadSize(m_b64) + StreamHeaderSize(m_b64) * i;
      memcpy(slot.raw, dir.raw + at, static_cast<size_t>(StreamHeaderSize(m_b64)));
      CheckSlot(slot, block + at, -1, false, names);
    }
    const __int64 next = dir.NextBlock(m_b64);
    if (next != 0 && !DirectoryLinkOk(block, next)) return;
    block = next;
  }
}

bool StorageChecker::DirectoryLinkOk(__int64 block, __int64 next) {
  const __int64 linkField = block + 8;
  const auto earlier = m_regions.find(next);
  if (earlier != m_regions.end() && earlier->second.owner == kDirectoryOwner) {
    Fault(linkField, "directory chain loops back to its block at " + Hex(next));
    return false;
  }
  if (next < 0 || next - block < DirectoryBlockSize(m_b64)) {
    Fault(linkField, "directory link " + Hex(next) +
                         " points backwards (blocks are only appended behind the last)");
    return false;
  }
  if (!Holds(next, DirectoryBlockSize(m_b64))) {
    Fault(linkField,
          "directory link " + Hex(next) + " lies past the end of the file at " + Hex(m_size));
    return false;
  }
  return true;
}

void StorageChecker::Fault(__int64 offset, const std::string& message) {
  m_report->faults.push_back({static_cast<ULONGLONG>(offset), message});
}

bool StorageChecker::Holds(__int64 offset, __int64 count) const {
  return offset >= 0 && count >= 0 && offset <= m_size && count <= m_size - offset;
}

// Only ranges already found inside the file are read, so a failure here is
// the system's: it is reported where it happened.
bool StorageChecker::ReadExact(__int64 offset, void* buf, __int64 count) {
  DWORD got = 0;
  if (Holds(offset, count) && ReadFileAt(m_file, offset, buf, static_cast<DWORD>(count), &got) &&
      got == count)
    return true;
  Fault(offset,
        "cannot read " + std::to_string(count) + " bytes: " + strerror(errno ? errno : EIO));
  return false;
}

std::string StorageChecker::Hex(__int64 value) const {
  char text[32];
  snprintf(text, sizeof(text), value < 0 ? "-0x%llX" : "0x%llX",
           static_cast<unsigned long long>(value < 0 ? -(value + 1) + 1ull : value));
  return text;
}

// The path of a stream for messages, with bytes outside printable ASCII
// written as \xNN.  A path deeper than a person reads is shortened at its
// start, so that a damaged, deep tree cannot make messages grow without end.
std::string StorageChecker::PathOf(int node) const {
  const int kShownLevels = 16;
  std::vector<const std::string*> names;
  for (int n = node; n >= 0 && static_cast<int>(names.size()) <= kShownLevels;
       n = m_nodes[n].parent)
    names.push_back(&m_nodes[n].name);
  std::string path = static_cast<int>(names.size()) > kShownLevels ? ".../" : "";
  for (size_t i = names.size() > kShownLevels ? kShownLevels : names.size(); i-- > 0;) {
    for (unsigned char c : *names[i]) {
      char hex[8];
      snprintf(hex, sizeof(hex), "\\x%02X", c);
      path += c >= 0x20 && c < 0x7F && c != '\\' ? std::string(1, static_cast<char>(c)) : hex;
    }
    if (i != 0) path += '/';
  }
  return "'" + path + "'";
}
