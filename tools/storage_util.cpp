#include "storage_util.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "commands.h"

namespace kycli {

namespace {

std::string WhyNotOpened(const std::string& file, bool writable) {
  struct stat st;
  if (stat(file.c_str(), &st) != 0) return strerror(errno);
  if (S_ISDIR(st.st_mode)) return "is a directory";
  if (access(file.c_str(), writable ? R_OK | W_OK : R_OK) != 0) return strerror(errno);
  if (file.size() >= MAX_PATH) return "path too long (at most 259 bytes)";
  return "not a storage file, or its directory is damaged";
}

}  // namespace

OpenedStorage::OpenedStorage(const std::string& file, bool writable)
    : m_storage(kyStorage::Open(file.c_str(), writable ? kModeReadWriteShared : kModeReadShared,
                                4096, 0)) {
  if (m_storage == nullptr) Complain(file, WhyNotOpened(file, writable));
}

OpenedStorage::~OpenedStorage() {
  if (m_storage != nullptr) m_storage->Release();
}

bool ForEachRootStream(kyStorage* storage,
                       const std::function<bool(kyStream* stm, int cursor)>& visit) {
  int cursor = -1;
  kyStream* stm = storage->OpenStreamFirst2(cursor, kModeReadShared);
  for (;;) {
    if (!visit(stm, cursor)) return false;
    // A null stream with the cursor moved on is a name that could not be
    // opened; with the cursor still, the chain has ended.
    int before = cursor;
    stm = storage->OpenStreamNext2(cursor, kModeReadShared);
    if (stm == nullptr && cursor == before) return true;
  }
}

bool StreamChain::OpenBelow(kyStorage* storage, const std::string& name, bool writable) {
  // The loader holds only an unbroken run of levels from the root: below a
  // stream of the chain's own, the chain opens the child itself.
  const bool loaderRun = m_streams.empty() || m_streams.back().byLoader;
  kyStream* stm = nullptr;
  if (!loaderRun) {
    kyStream* parent = Leaf();
    stm = parent->OpenStream(name.c_str(), writable ? kModeReadWriteShared : kModeReadShared);
  } else if (m_streams.empty()) {
    stm = m_loader.GetStreamByPath(storage, CString(name.c_str()), writable, 0);
  } else {
    stm = m_loader.GetSubStreamByPath(Leaf(), CString(name.c_str()), writable, 0);
  }
  if (stm == nullptr) return false;
  m_streams.push_back({stm, loaderRun});
  return true;
}

void StreamChain::ReleaseAll() {
  while (!m_streams.empty() && !m_streams.back().byLoader) {
    m_streams.back().stm->Release();
    m_streams.pop_back();
  }
  m_streams.clear();
  m_loader.CloseOpenStorages();
}

}  // namespace kycli
