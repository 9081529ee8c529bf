// Creating, opening, loading and closing storage files.

#include <cstring>
#include <new>

#include "container/directory.h"
#include "container/file_indexes.h"
#include "container/file_access.h"
#include "kystore/recorder.h"
#include "kystore/storage.h"
#include "platform/global_mem.h"
#include "platform/win_file.h"

namespace {

// Paths of MAX_PATH characters or more do not fit m_szPath; they are refused
// before any file is touched.
bool PathFits(const char* path) {
  return path != nullptr && path[0] != '\0' && strnlen(path, MAX_PATH) < MAX_PATH;
}

HANDLE OpenExisting(const char* path, DWORD mode, DWORD flags) {
  DWORD access = GENERIC_READ | ((mode & kModeWrite) ? GENERIC_WRITE : 0);
  return CreateFileA(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                     flags, nullptr);
}

// The image of a new, empty storage: the header and one directory block
// whose 64 slots carry the header magic and nothing else.
void BuildEmptyStorage(bool b64, StorageHeader& header, DirectoryBlock& block) {
  memset(&header, 0, sizeof(header));
  memcpy(header.szSignature, KYSTORE_SIGNATURE, kSignatureLength);
  header.cFormat = b64 ? '2' : '1';
  header.wSlotsPerBlock = kSlotsPerBlock;
  header.wFastSlots = kFastSlots;

  memset(&block, 0, sizeof(block));
  block.d32.head.dwMagic = kDirectoryBlockMagic;
  block.d32.head.dwSlotCount = kSlotsPerBlock;
  for (__int64 i = 0; i < kSlotsPerBlock; ++i) {
    memcpy(block.raw + DirectoryHeadSize(b64) + StreamHeaderSize(b64) * i, &kStreamHeaderMagic,
           sizeof(DWORD));
  }
}

}  // namespace

kyStorage::kyStorage(const char* path, HANDLE hFile, DWORD mode, int bLoadIntoMemory)
    : m_memPos(0),
      m_bSortStreams(0),
      m_iSortOrder(0),
      m_dwBlockSize(0),
      m_szPath(),
      m_bOpenedFast(0),
      m_wSlotsPerBlock(0),
      m_wFastSlots(0),
      m_rootOffset(0),
      m_lastAppended(0),
      m_openStreams(10),
      m_bUse64BitOffsets(0),
      m_pRecorder(nullptr),
      m_hFile(hFile),
      m_bInMemory(FALSE),
      m_pImage(nullptr),
      m_imageSize(0),
      m_iFormat(0),
      m_fileDevice(0),
      m_fileInode(0),
      m_bKnownFile(FALSE) {
  strncpy(m_szPath, path, MAX_PATH - 1);
  FileIdentity id;
  if (GetFileIdentity(hFile, &id)) {
    m_fileDevice = id.device;
    m_fileInode = id.inode;
    m_bKnownFile = TRUE;
    m_pIndexes = kyFileIndexes::Attach(id.device, id.inode);
  }
  if (bLoadIntoMemory && !(mode & kModeWrite)) LoadIntoMemory();
  __int64 end = SetFilePointer(m_hFile, 0, FILE_END);
  m_lastAppended = end < 0 ? 0 : end;
}

// Reads the whole file into a global-memory image and closes the handle.
// A file too large for the image, or no memory, leaves the storage on the
// file; a failed read leaves it with nothing to read from, so Open fails.
void kyStorage::LoadIntoMemory() {
  LARGE_INTEGER size;
  if (!GetFileSizeEx(m_hFile, &size) || size.QuadPart >= 0xFFFFFFF0LL) return;
  BYTE* image = static_cast<BYTE*>(GlobalAlloc(GMEM_FIXED, static_cast<SIZE_T>(size.QuadPart)));
  if (image == nullptr) return;
  const __int64 resume = SeekHandle(m_hFile, 0, FILE_CURRENT);
  m_pImage = image;
  m_imageSize = size.QuadPart;
  m_bInMemory = TRUE;
  if (SeekHandle(m_hFile, 0, FILE_BEGIN) != 0 ||
      !ReadHandleExactly(m_hFile, m_pImage, m_imageSize, nullptr)) {
    GlobalFree(m_pImage);
    m_pImage = nullptr;
    m_imageSize = 0;
    m_bInMemory = FALSE;
  }
  CloseHandle(m_hFile);
  m_hFile = INVALID_HANDLE_VALUE;
  m_memPos = resume < 0 ? 0 : resume;
}

kyStorage::~kyStorage() {
  kyFileIndexes::Detach(m_pIndexes);
  if (m_pImage) GlobalFree(m_pImage);
  delete m_pRecorder;
  m_streamMap.RemoveAll();
  m_streamNames.RemoveAll();
  // Records of streams still open are freed with the storage; those stream
  // objects must not be used any more.
  for (POSITION pos = m_openStreams.GetHeadPosition(); pos != nullptr;)
    delete m_openStreams.GetNext(pos);
  m_openStreams.RemoveAll();
}

void kyStorage::Release() {
  // Closing the handle writes what a batch gathered.
  if (m_pIndexes != nullptr) m_pIndexes->StopBatch(m_hFile);
  if (m_hFile != INVALID_HANDLE_VALUE) CloseHandle(m_hFile);
  m_hFile = INVALID_HANDLE_VALUE;
  delete this;
}

// Without an identity for either file (the system could not tell) the
// paths are compared: a copy then refuses what its text shows to be the
// same file, rather than trusting nothing.
bool kyStorage::SameFileAs(const kyStorage& other) const {
  if (this == &other) return true;
  if (m_bKnownFile && other.m_bKnownFile)
    return m_fileDevice == other.m_fileDevice && m_fileInode == other.m_fileInode;
  return strcmp(m_szPath, other.m_szPath) == 0;
}

void kyStorage::FlagsToAttributes(DWORD mode, DWORD& access, DWORD& share) {
  access = 0;
  share = 0;
  if (mode & kModeRead) access = GENERIC_READ;
  if (mode & kModeWrite) access = GENERIC_READ | GENERIC_WRITE;
  if (mode & kModeShareRead) share = FILE_SHARE_READ;
  if (mode & kModeShareReadWrite) share = FILE_SHARE_READ | FILE_SHARE_WRITE;
}

kyStorage* kyStorage::Create(const char* path, DWORD mode, DWORD blockSize) {
  if (!PathFits(path)) return nullptr;
  const DWORD access = GENERIC_READ | GENERIC_WRITE;
  const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE;
  // Another object's gathered writes go in before the file is emptied, as
  // they would have without gathering, never over the new storage.
  kyFileIndexes::EndBatchAt(path);
  HANDLE h =
      CreateFileA(path, access, share, nullptr, TRUNCATE_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE)
    h = CreateFileA(path, access, share, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return nullptr;

  const bool b64 = g_bUse64BitOffsets != 0;
  StorageHeader header;
  DirectoryBlock block;
  BuildEmptyStorage(b64, header, block);
  DWORD written = 0;
  // A failed write shows up when the name map is built below.
  WriteFile(h, &header, sizeof(header), &written, nullptr);
  WriteFile(h, block.raw, static_cast<DWORD>(DirectoryBlockSize(b64)), &written, nullptr);

  kyStorage* s = new (std::nothrow) kyStorage(path, h, mode, 0);
  if (s == nullptr) {
    CloseHandle(h);
    _unlink(path);
    return nullptr;
  }
  // The file was truncated: what other objects over it knew is gone.
  if (s->m_pIndexes != nullptr) s->m_pIndexes->Forget();
  s->m_bUse64BitOffsets = b64 ? 1 : 0;
  s->m_wSlotsPerBlock = kSlotsPerBlock;
  s->m_wFastSlots = kFastSlots;
  s->m_iFormat = header.cFormat;
  s->m_dwBlockSize = blockSize;
  s->m_rootOffset = kHeaderSize;
  s->m_bOpenedFast = 0;
  if (!s->InitStreamMap()) {
    s->Release();
    _unlink(path);
    return nullptr;
  }
  return s;
}

kyStorage* kyStorage::ReadStorageHeader(HANDLE hFile, const char* path, DWORD mode, DWORD blockSize,
                                        int bLoadIntoMemory) {
  BYTE raw[sizeof(StorageHeader)];
  DWORD got = 0;
  if (!::ReadFile(hFile, raw, sizeof(raw), &got, nullptr) || got != sizeof(raw) ||
      memcmp(raw, KYSTORE_SIGNATURE, kSignatureLength) != 0) {
    CloseHandle(hFile);
    return nullptr;
  }
  StorageHeader header;
  memcpy(&header, raw, sizeof(header));
  const signed char format = static_cast<signed char>(header.cFormat);
  const bool legacy = format == '_';
  // Below '1' as a signed char: '0', control bytes and everything from 0x80.
  // Only the layout we know is accepted: 64 slots per block and at most 6
  // fast slots (the fast lookup reads exactly 6).
  bool accepted = legacy || (format >= '1' && header.wSlotsPerBlock == kSlotsPerBlock &&
                             header.wFastSlots <= kFastSlots);
  if (!accepted) {
    CloseHandle(hFile);
    return nullptr;
  }
  if (legacy) {
    LARGE_INTEGER back;
    back.QuadPart = -(kHeaderSize - kLegacyHeaderSize);
    SetFilePointerEx(hFile, back, nullptr, FILE_CURRENT);
  }
  kyStorage* s = new (std::nothrow) kyStorage(path, hFile, mode, bLoadIntoMemory);
  if (s == nullptr) {
    CloseHandle(hFile);
    return nullptr;
  }
  s->m_bUse64BitOffsets = (!legacy && format >= '2') ? 1 : 0;
  s->m_dwBlockSize = blockSize;
  s->m_wSlotsPerBlock = legacy ? kSlotsPerBlock : header.wSlotsPerBlock;
  s->m_wFastSlots = legacy ? kLegacyFastSlots : header.wFastSlots;
  s->m_rootOffset = legacy ? kLegacyHeaderSize : kHeaderSize;
  s->m_iFormat = format;
  return s;
}

kyStorage* kyStorage::Open(const char* path, DWORD mode, DWORD blockSize, int bLoadIntoMemory) {
  if (!PathFits(path)) return nullptr;
  HANDLE h = OpenExisting(path, mode, FILE_FLAG_RANDOM_ACCESS | FILE_ATTRIBUTE_NORMAL);
  if (h == INVALID_HANDLE_VALUE) return nullptr;
  kyStorage* s = ReadStorageHeader(h, path, mode, blockSize, bLoadIntoMemory);
  if (s == nullptr) return nullptr;
  s->m_dwBlockSize = blockSize;
  s->m_bOpenedFast = 0;
  if (!s->InitStreamMap()) {
    s->Release();
    return nullptr;
  }
  return s;
}

kyStorage* kyStorage::OpenFast(const char* path, DWORD mode, DWORD blockSize) {
  if (!PathFits(path)) return nullptr;
  HANDLE h = OpenExisting(path, mode, FILE_ATTRIBUTE_NORMAL);
  if (h == INVALID_HANDLE_VALUE) return nullptr;
  kyStorage* s = ReadStorageHeader(h, path, mode, blockSize, 0);
  if (s == nullptr) return nullptr;
  s->m_dwBlockSize = blockSize;
  s->m_bOpenedFast = 1;
  return s;
}

kyStorage* kyStorage::OpenOrCreate(const char* path, DWORD mode, DWORD blockSize) {
  if (!PathFits(path)) return nullptr;
  kyStorage* s = Open(path, mode, blockSize, 0);
  if (s != nullptr) return s;
  // Only where nothing exists is a storage made: an existing file that did
  // not open (another kind of file, a damaged storage, a directory) keeps
  // its contents.
  if (GetFileAttributesA(path) != INVALID_FILE_ATTRIBUTES) return nullptr;
  return Create(path, mode, blockSize);
}
