// The per-file indexes and the registry that shares them between the
// storage objects over one file.

#include "container/file_indexes.h"

#include <sys/stat.h>

#include "platform/win_file.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <new>
#include <utility>

namespace {

typedef std::pair<uint64_t, uint64_t> FileKey;

// Storage objects may be opened and released on different threads, so the
// registry itself is locked; each set of indexes is used under the same
// rule as the storage objects that share it.
std::mutex& RegistryLock() {
  static std::mutex lock;
  return lock;
}
std::map<FileKey, kyFileIndexes*>& Registry() {
  static std::map<FileKey, kyFileIndexes*> registry;
  return registry;
}

bool g_bypassed = false;

}  // namespace

bool RootDirectoryIndex::SearchStart(size_t& position, __int64& blockOffset) const {
  if (m_firstMaybeFree == 0 || m_firstMaybeFree >= m_blocks.size()) return false;
  position = m_firstMaybeFree;
  blockOffset = m_blocks[m_firstMaybeFree];
  return true;
}

void RootDirectoryIndex::BlockAt(size_t position, __int64 blockOffset) {
  if (position < m_blocks.size() && m_blocks[position] == blockOffset) return;
  if (position > m_blocks.size()) return;  // a gap: nothing to learn
  m_blocks.resize(position);
  m_blocks.push_back(blockOffset);
  m_firstMaybeFree = std::min(m_firstMaybeFree, position);
}

void RootDirectoryIndex::BlockFull(size_t position) {
  if (position == m_firstMaybeFree && position < m_blocks.size()) m_firstMaybeFree = position + 1;
}

// Blocks are appended at the end of the file and linked forward, so the
// block holding a slot is the last one that starts at or before it.
void RootDirectoryIndex::SlotFreed(__int64 slotOffset) {
  const auto after = std::upper_bound(m_blocks.begin(), m_blocks.end(), slotOffset);
  const size_t holder =
      after == m_blocks.begin() ? 0 : static_cast<size_t>(after - m_blocks.begin()) - 1;
  m_firstMaybeFree = std::min(m_firstMaybeFree, holder);
}

void RootDirectoryIndex::Forget() {
  m_blocks.clear();
  m_firstMaybeFree = 0;
}

kyFileIndexes* kyFileIndexes::Attach(uint64_t device, uint64_t inode) {
  std::lock_guard<std::mutex> hold(RegistryLock());
  kyFileIndexes*& slot = Registry()[FileKey(device, inode)];
  if (slot == nullptr) slot = new (std::nothrow) kyFileIndexes(device, inode);
  if (slot == nullptr) {
    Registry().erase(FileKey(device, inode));
    return nullptr;
  }
  ++slot->m_refs;
  if (slot->m_batchFile != nullptr && EndWriteBatch(slot->m_batchFile)) slot->m_batchFile = nullptr;
  return slot;
}

bool kyFileIndexes::StartBatch(HANDLE file) {
  std::lock_guard<std::mutex> hold(RegistryLock());
  if (m_refs != 1 || (m_batchFile != nullptr && m_batchFile != file)) return false;
  m_batchFile = file;
  return true;
}

void kyFileIndexes::EndBatchAt(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0) return;
  std::lock_guard<std::mutex> hold(RegistryLock());
  const auto found = Registry().find(FileKey(st.st_dev, st.st_ino));
  if (found == Registry().end() || found->second->m_batchFile == nullptr) return;
  if (EndWriteBatch(found->second->m_batchFile)) found->second->m_batchFile = nullptr;
}

void kyFileIndexes::StopBatch(HANDLE file) {
  std::lock_guard<std::mutex> hold(RegistryLock());
  if (m_batchFile == file) m_batchFile = nullptr;
}

void kyFileIndexes::Detach(kyFileIndexes* indexes) {
  if (indexes == nullptr) return;
  std::lock_guard<std::mutex> hold(RegistryLock());
  if (--indexes->m_refs > 0) return;
  Registry().erase(FileKey(indexes->m_device, indexes->m_inode));
  delete indexes;
}

bool FolderIndex::AddSlot(__int64 offset, __int64 block, const char* name) {
  const DWORD index = static_cast<DWORD>(m_slots.size());
  m_slots.push_back(Slot{offset, block, nullptr});
  return Name(index, name);
}

bool FolderIndex::Find(const char* name, DWORD& index) const {
  const auto it = m_names.find(name);
  if (it == m_names.end()) return false;
  index = it->second;
  return true;
}

bool FolderIndex::FirstFree(DWORD& index) const {
  if (m_free.empty()) return false;
  index = *m_free.begin();
  return true;
}

// A folder's blocks are linked forward only, so its slots lie at ascending
// offsets.
bool FolderIndex::SlotAt(__int64 offset, DWORD& index) const {
  const auto it = std::lower_bound(m_slots.begin(), m_slots.end(), offset,
                                   [](const Slot& s, __int64 o) { return s.offset < o; });
  if (it == m_slots.end() || it->offset != offset) return false;
  index = static_cast<DWORD>(it - m_slots.begin());
  return true;
}

bool FolderIndex::Name(DWORD index, const char* name) {
  Slot& slot = m_slots[index];
  if (slot.name != nullptr) {
    if (*slot.name == name) return true;
    m_names.erase(*slot.name);
    slot.name = nullptr;
  }
  if (name[0] == '\0') {
    m_free.insert(index);
    return true;
  }
  m_free.erase(index);
  const auto added = m_names.emplace(name, index);
  if (!added.second) return false;
  slot.name = &added.first->first;
  return true;
}

FolderIndex* kyFileIndexes::Folder(__int64 headerOffset) {
  const auto it = m_folders.find(headerOffset);
  return it == m_folders.end() ? nullptr : it->second.get();
}

FolderIndex* kyFileIndexes::NewFolder(__int64 headerOffset, __int64 firstBlock) {
  std::unique_ptr<FolderIndex>& slot = m_folders[headerOffset];
  slot.reset(new (std::nothrow) FolderIndex(firstBlock));
  if (slot == nullptr) m_folders.erase(headerOffset);
  return Folder(headerOffset);
}

void kyFileIndexes::ForgetFolder(__int64 headerOffset) {
  m_folders.erase(headerOffset);
}

void kyFileIndexes::Forget() {
  root.Forget();
  m_folders.clear();
}

void kyFileIndexes::SetBypassed(bool bypassed) {
  g_bypassed = bypassed;
}

bool kyFileIndexes::Bypassed() {
  return g_bypassed;
}
