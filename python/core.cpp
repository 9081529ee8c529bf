#include "core.h"

#include <sys/stat.h>

#include <cstring>

#include "hierarchy/child_slots.h"
#include "path_util.h"

namespace kypy {

namespace {

// Every storage open in this process, to refuse rebuilding a file under it.
std::set<StorageCore*>& OpenCores() {
  static std::set<StorageCore*> cores;
  return cores;
}

bool FileIdentity(const std::string& path, unsigned long long& device, unsigned long long& inode) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  device = st.st_dev;
  inode = st.st_ino;
  return true;
}

}  // namespace

std::mutex& LibraryLock() {
  static std::mutex lock;
  return lock;
}

std::string BytesOf(py::handle text) {
  if (PyBytes_Check(text.ptr())) return std::string(py::reinterpret_borrow<py::bytes>(text));
  if (!PyUnicode_Check(text.ptr())) throw py::type_error("a path or name must be str or bytes");
  py::object encoded = py::reinterpret_steal<py::object>(
      PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogateescape"));
  if (!encoded) throw py::error_already_set();
  return std::string(py::reinterpret_borrow<py::bytes>(encoded));
}

py::str TextOf(const std::string& bytes) {
  PyObject* text =
      PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "surrogateescape");
  if (text == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

Names ParsePath(const std::string& path, bool rootAllowed) {
  Names names = kycli::SplitPath(path);
  std::string problem;
  if (names.empty() && !rootAllowed) problem = "'" + path + "': a stream path is required";
  if (problem.empty()) kycli::CheckPath(names, problem);
  if (!problem.empty()) throw Fault(FaultKind::kValue, problem);
  return names;
}

std::string JoinNames(const Names& names, size_t count) {
  return kycli::JoinPath(names, count);
}

void Chain::ReleaseLeaf() {
  m_streams.back()->Release();
  m_streams.pop_back();
}

void Chain::ReleaseAll() {
  while (!m_streams.empty()) ReleaseLeaf();
}

kyStream* OpenChild(kyStorage* storage, kyStream* parent, const std::string& name, DWORD mode) {
  if (parent == nullptr) return storage->OpenStream(name.c_str(), mode);
  return parent->OpenStream(name.c_str(), mode);
}

kyStream* CreateChild(kyStorage* storage, kyStream* parent, const std::string& name, bool folder) {
  const DWORD type = folder ? 1 : 0;
  if (parent == nullptr) return storage->CreateStream(name.c_str(), type, kModeReadWriteShared);
  return parent->CreateStream(name.c_str(), type, kModeReadWriteShared, 1);
}

StorageCore::StorageCore(kyStorage* storage, std::string path, bool writable, bool inMemory)
    : m_storage(storage), m_path(std::move(path)), m_writable(writable), m_inMemory(inMemory) {
  m_known = FileIdentity(m_path, m_device, m_inode);
  OpenCores().insert(this);
}

StorageCore::~StorageCore() {
  std::lock_guard<std::mutex> hold(LibraryLock());
  Close();
}

void StorageCore::Close() {
  for (StreamHandle* h : m_handles) h->Orphan();
  m_handles.clear();
  OpenCores().erase(this);
  if (m_storage == nullptr) return;
  if (recording) delete m_storage->StopRecording();
  recording = false;
  m_storage->Release();
  m_storage = nullptr;
}

kyStorage* StorageCore::Storage() const {
  if (m_storage == nullptr) throw Fault(FaultKind::kValue, "the storage is closed");
  lastTransfer = nullptr;
  return m_storage;
}

kyStorage* StorageCore::WritableStorage() const {
  kyStorage* storage = Storage();
  if (!m_writable)
    throw Fault(FaultKind::kPermission,
                m_path + ": the storage is open read-only" + (m_inMemory ? " (in memory)" : ""));
  return storage;
}

StorageCore::Walk StorageCore::OpenAlong(const Names& names, DWORD mode, Chain& chain,
                                         size_t& reached) {
  kyStorage* storage = Storage();
  for (reached = chain.Depth(); reached < names.size(); ++reached) {
    if (!chain.LeafIsFolder()) return Walk::kNotFolder;
    kyStream* stm = OpenChild(storage, chain.Leaf(), names[reached], mode);
    if (stm == nullptr) return Walk::kMissing;
    chain.Push(stm);
  }
  return Walk::kOpened;
}

void StorageCore::OpenOrThrow(const Names& names, DWORD mode, Chain& chain) {
  size_t reached = 0;
  if (OpenAlong(names, mode, chain, reached) != Walk::kOpened)
    throw Fault(FaultKind::kKey, JoinNames(names));
}

void StorageCore::MakeFolders(const Names& names, bool parents, Chain& chain) {
  kyStorage* storage = WritableStorage();
  size_t reached = 0;
  const Walk walk = OpenAlong(names, kModeReadWriteShared, chain, reached);
  if (walk == Walk::kNotFolder)
    throw Fault(FaultKind::kNotFolder, JoinNames(names, reached) + ": not a folder");
  if (walk == Walk::kOpened && !chain.LeafIsFolder())
    throw Fault(FaultKind::kNotFolder, JoinNames(names) + ": not a folder");
  if (walk == Walk::kOpened) return;
  if (!parents && reached + 1 < names.size())
    throw Fault(FaultKind::kKey, JoinNames(names, reached + 1));
  const size_t firstMade = chain.Depth();
  for (size_t i = reached; i < names.size(); ++i) {
    kyStream* stm = CreateChild(storage, chain.Leaf(), names[i], true);
    if (stm != nullptr) {
      chain.Push(stm);
      continue;
    }
    // Take back what this call made: the first folder made holds the rest.
    while (chain.Depth() > firstMade + 1) chain.ReleaseLeaf();
    if (chain.Depth() > firstMade && chain.Leaf()->Remove()) chain.DropLeaf();
    throw Fault(FaultKind::kStorage, JoinNames(names, i + 1) + ": cannot create the folder");
  }
}

bool StorageCore::HoldsStreamAt(const Names& names) const {
  for (const StreamHandle* h : m_handles) {
    const Names& held = h->PathNames();
    if (held.size() >= names.size() && std::equal(names.begin(), names.end(), held.begin()))
      return true;
  }
  return false;
}

bool StorageCore::IsOpenInProcess(const std::string& path) {
  unsigned long long device = 0, inode = 0;
  if (!FileIdentity(path, device, inode)) return false;
  for (const StorageCore* core : OpenCores())
    if (core->IsOpen() && core->m_known && core->m_device == device && core->m_inode == inode)
      return true;
  return false;
}

StreamHandle::StreamHandle(CoreRef core, Names names, Chain chain, bool readable, bool writable,
                           bool append)
    : readable(readable),
      writable(writable),
      append(append),
      m_core(std::move(core)),
      m_names(std::move(names)),
      m_chain(std::move(chain)) {
  m_core->Register(this);
}

StreamHandle::~StreamHandle() {
  std::lock_guard<std::mutex> hold(LibraryLock());
  Close();
}

void StreamHandle::Close() {
  m_core->lastTransfer = nullptr;  // a release may write the header back
  m_chain.ReleaseAll();
  m_core->Unregister(this);
}

kyStream* StreamHandle::Stream() const {
  if (m_chain.Leaf() == nullptr || !m_core->IsOpen())
    throw Fault(FaultKind::kValue, "I/O operation on a closed stream");
  return m_chain.Leaf();
}

}  // namespace kypy
