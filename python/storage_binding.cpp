// Storage: opening and closing, data by path, folders, listing, removal,
// recording and replay.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "core.h"

namespace kypy {

namespace {

const size_t kPiece = 1 << 16;  // ReadAll reads in pieces of this size

// Why `path` cannot be opened as asked; nothing when it can be tried.
void CheckOpenable(const std::string& path, bool writable) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) throw Fault(FaultKind::kOs, "", errno, path);
  if (S_ISDIR(st.st_mode)) throw Fault(FaultKind::kOs, "", EISDIR, path);
  if (access(path.c_str(), writable ? R_OK | W_OK : R_OK) != 0)
    throw Fault(FaultKind::kOs, "", errno, path);
}

kyStorage* OpenExisting(const std::string& path, bool writable, DWORD blockSize, bool inMemory) {
  CheckOpenable(path, writable);
  kyStorage* storage = kyStorage::Open(
      path.c_str(), writable ? kModeReadWriteShared : kModeReadShared, blockSize, inMemory ? 1 : 0);
  if (storage == nullptr)
    throw Fault(FaultKind::kStorage, path + ": not a storage file, or its directory is damaged");
  return storage;
}

// Makes a new storage of the asked width; the width is a process-wide
// setting of the library, read at creation, so it is put back at once.
kyStorage* CreateNew(const std::string& path, int width, DWORD blockSize) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    throw Fault(FaultKind::kOs, "", EISDIR, path);
  const int saved = kyStorage::g_bUse64BitOffsets;
  kyStorage::g_bUse64BitOffsets = width == 32 ? 0 : 1;
  errno = 0;
  kyStorage* storage = kyStorage::Create(path.c_str(), kModeReadWriteShared, blockSize);
  const int err = errno;
  kyStorage::g_bUse64BitOffsets = saved;
  if (storage != nullptr) return storage;
  if (err != 0) throw Fault(FaultKind::kOs, "", err, path);
  throw Fault(FaultKind::kStorage, path + ": cannot create the storage");
}

// "x": the file is made with O_EXCL first, so that an existing file is
// never touched, whoever made it in the meantime.
kyStorage* CreateExclusive(const std::string& path, int width, DWORD blockSize) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) throw Fault(FaultKind::kOs, "", errno, path);
  close(fd);
  try {
    return CreateNew(path, width, blockSize);
  } catch (...) {
    unlink(path.c_str());
    throw;
  }
}

CoreRef OpenStorage(py::handle pathObj, const std::string& mode, py::object widthObj,
                    long long blockSize, bool inMemory) {
  const std::string path = BytesOf(pathObj);
  if (mode != "r" && mode != "r+" && mode != "w" && mode != "x" && mode != "a")
    throw Fault(FaultKind::kValue, "mode must be 'r', 'r+', 'w', 'x' or 'a', not '" + mode + "'");
  int width = 64;
  if (!widthObj.is_none()) {
    if (!PyLong_Check(widthObj.ptr())) throw py::type_error("width must be 32 or 64");
    width = widthObj.cast<int>();
    if (width != 32 && width != 64) throw Fault(FaultKind::kValue, "width must be 32 or 64");
    if (mode == "r" || mode == "r+")
      throw Fault(FaultKind::kValue, "width applies to new storages ('w', 'x' or 'a')");
  }
  // Our choice: blocks from 16 bytes to 1 GiB; a block of 0 bytes could
  // hold no data and a huge one wastes the disk on every small stream.
  if (blockSize < 16 || blockSize > (1LL << 30))
    throw Fault(FaultKind::kValue, "block_size must be between 16 and 1073741824");
  if (inMemory && mode != "r")
    throw Fault(FaultKind::kValue, "in_memory needs mode 'r': a storage in memory is read-only");
  if (path.empty() || path.find('\0') != std::string::npos)
    throw Fault(FaultKind::kValue, "a storage path is not empty and holds no NUL byte");
  if (path.size() >= MAX_PATH)
    throw Fault(FaultKind::kValue, "the storage path is too long (at most 259 bytes)");
  const DWORD block = static_cast<DWORD>(blockSize);
  return CallLibrary([&] {
    kyStorage* storage = nullptr;
    struct stat st;
    if (mode == "r" || mode == "r+")
      storage = OpenExisting(path, mode == "r+", block, inMemory);
    else if (mode == "w")
      storage = CreateNew(path, width, block);
    else if (mode == "x")
      storage = CreateExclusive(path, width, block);
    else if (stat(path.c_str(), &st) == 0)
      storage = OpenExisting(path, true, block, false);
    else
      storage = CreateNew(path, width, block);
    return std::make_shared<StorageCore>(storage, path, mode != "r", inMemory);
  });
}

// All the data of a data stream, from its start.
std::string ReadAll(kyStream* stm, const std::string& where) {
  std::string data;
  if (stm->GetLength() > 0 && stm->Seek(0, 0) != 0)
    throw Fault(FaultKind::kStorage, where + ": the stream is damaged");
  std::vector<char> piece(kPiece);
  for (;;) {
    const __int64 n = stm->Read(piece.data(), static_cast<__int64>(piece.size()));
    if (n < 0) throw Fault(FaultKind::kStorage, where + ": the stream is damaged");
    if (n == 0) return data;
    data.append(piece.data(), static_cast<size_t>(n));
  }
}

py::bytes GetData(StorageCore& core, py::handle pathObj) {
  const Names names = ParsePath(BytesOf(pathObj), false);
  std::string data = CallLibrary([&] {
    Chain chain;
    core.OpenOrThrow(names, kModeReadShared, chain);
    if (chain.Leaf()->IsFolder())
      throw Fault(FaultKind::kIsFolder, JoinNames(names) + ": is a folder");
    return ReadAll(chain.Leaf(), JoinNames(names));
  });
  return py::bytes(data);
}

// Replaces the data of the stream at `names`, making it and the folders
// above it when they are missing.  The data go in as one erase-old write
// of the library, which a recording keeps.
void SetData(StorageCore& core, const Names& names, const char* data, size_t size) {
  const Names parentNames(names.begin(), names.end() - 1);
  const std::string& leafName = names.back();
  kyStorage* storage = core.WritableStorage();
  if (static_cast<unsigned long long>(size) >
      static_cast<unsigned long long>(kyStorage::g_iMaxCompStmSize))
    throw Fault(FaultKind::kTooLarge, JoinNames(names) + ": a stream holds at most " +
                                          std::to_string(kyStorage::g_iMaxCompStmSize) + " bytes");
  Chain chain;
  core.MakeFolders(parentNames, true, chain);
  kyStream* parent = chain.Leaf();
  kyStream* old = OpenChild(storage, parent, leafName, kModeReadWriteShared);
  if (old != nullptr && old->IsFolder()) {
    old->Release();
    throw Fault(FaultKind::kIsFolder, JoinNames(names) + ": is a folder");
  }
  bool ok = true;
  if (size == 0) {
    // An empty value writes nothing through the entry call: empty the stream.
    if (old == nullptr) old = CreateChild(storage, parent, leafName, false);
    ok = old != nullptr && (old->GetLength() == 0 || old->Erase());
  }
  if (old != nullptr) old->Release();
  if (size > 0) {
    const DWORD n = static_cast<DWORD>(size);
    ok = parent == nullptr ? storage->SetEntryEraseOld(leafName.c_str(), data, n, 0) != 0
                           : parent->SetEntryEraseOld(leafName.c_str(), data, n, 0) != 0;
  }
  if (!ok) throw Fault(FaultKind::kStorage, JoinNames(names) + ": cannot write the data");
}

bool HasChildren(kyStream* folder) {
  __int64 cursor = 0;
  kyStream* child = folder->OpenStreamFirst(&cursor, kModeReadShared);
  if (child == nullptr) return false;
  child->Release();
  return true;
}

void RemovePath(StorageCore& core, py::handle pathObj, bool recursive, bool dataOnly) {
  const Names names = ParsePath(BytesOf(pathObj), false);
  CallLibrary([&] {
    core.WritableStorage();
    Chain chain;
    core.OpenOrThrow(names, kModeReadWriteShared, chain);
    kyStream* leaf = chain.Leaf();
    if (leaf->IsFolder() && dataOnly)
      throw Fault(FaultKind::kIsFolder,
                  JoinNames(names) + ": is a folder; use remove(path, recursive=True)");
    if (leaf->IsFolder() && !recursive && HasChildren(leaf))
      throw Fault(FaultKind::kNotEmpty, JoinNames(names) + ": folder not empty");
    if (core.HoldsStreamAt(names))
      throw Fault(FaultKind::kPermission, JoinNames(names) + ": a stream there is open");
    if (!leaf->Remove()) throw Fault(FaultKind::kStorage, JoinNames(names) + ": cannot remove");
    chain.DropLeaf();  // Remove destroyed the object
  });
}

void MakeDir(StorageCore& core, py::handle pathObj, bool parents, bool existOk) {
  const Names names = ParsePath(BytesOf(pathObj), false);
  CallLibrary([&] {
    core.WritableStorage();
    Chain chain;
    size_t reached = 0;
    if (core.OpenAlong(names, kModeReadShared, chain, reached) == StorageCore::Walk::kOpened) {
      if (existOk && chain.Leaf()->IsFolder()) return;
      throw Fault(FaultKind::kExists, JoinNames(names) + ": exists");
    }
    chain.ReleaseAll();
    core.MakeFolders(names, parents, chain);
  });
}

// The children of the folder at `names` (the root directory for none), in
// the order they lie on disk: names and whether each is a folder.
std::vector<std::pair<std::string, bool>> ScanFolder(StorageCore& core, const Names& names) {
  std::vector<std::pair<std::string, bool>> found;
  auto take = [&found](kyStream* stm) {
    found.emplace_back(std::string(stm->GetName(), strnlen(stm->GetName(), kMaxNameLength)),
                       stm->IsFolder() != 0);
    stm->Release();
  };
  kyStorage* storage = core.Storage();
  if (names.empty()) {
    int cursor = -1;
    kyStream* stm = storage->OpenStreamFirst2(cursor, kModeReadShared);
    for (;;) {
      if (stm != nullptr) take(stm);
      const int before = cursor;
      stm = storage->OpenStreamNext2(cursor, kModeReadShared);
      if (stm == nullptr && cursor == before) return found;
    }
  }
  Chain chain;
  core.OpenOrThrow(names, kModeReadShared, chain);
  kyStream* folder = chain.Leaf();
  if (!folder->IsFolder()) throw Fault(FaultKind::kNotFolder, JoinNames(names) + ": not a folder");
  __int64 cursor = 0;
  for (kyStream* stm = folder->OpenStreamFirst(&cursor, kModeReadShared); stm != nullptr;
       stm = folder->OpenStreamNext(&cursor, kModeReadShared))
    take(stm);
  if (cursor < folder->GetLength())
    throw Fault(FaultKind::kStorage, JoinNames(names) + ": the folder is damaged");
  return found;
}

py::list ScanToPython(StorageCore& core, py::handle pathObj, bool withKinds) {
  const Names names = ParsePath(BytesOf(pathObj), true);
  auto found = CallLibrary([&] { return ScanFolder(core, names); });
  py::list out;
  for (const auto& child : found) {
    if (withKinds)
      out.append(py::make_tuple(TextOf(child.first), child.second));
    else
      out.append(TextOf(child.first));
  }
  return out;
}

py::tuple Stat(StorageCore& core, py::handle pathObj) {
  const Names names = ParsePath(BytesOf(pathObj), true);
  struct Info {
    long long length = 0;
    bool folder = true;
    int minutes = 0;
  };
  Info info = CallLibrary([&] {
    Info i;
    Chain chain;
    core.OpenOrThrow(names, kModeReadShared, chain);
    if (kyStream* leaf = chain.Leaf()) {
      i.length = leaf->GetLength();
      i.folder = leaf->IsFolder() != 0;
      i.minutes = leaf->GetDuration();
    } else {
      core.Storage();  // the root of a closed storage
    }
    return i;
  });
  return py::make_tuple(info.length, info.folder, info.minutes);
}

bool Contains(StorageCore& core, py::handle pathObj) {
  Names names;
  try {
    names = ParsePath(BytesOf(pathObj), false);
  } catch (const Fault&) {
    return false;  // a path no stream can have is not in the storage
  }
  return CallLibrary([&] {
    Chain chain;
    size_t reached = 0;
    return core.OpenAlong(names, kModeReadShared, chain, reached) == StorageCore::Walk::kOpened;
  });
}

void StartRecording(StorageCore& core) {
  CallLibrary([&] {
    kyStorage* storage = core.Storage();
    if (core.recording) throw Fault(FaultKind::kValue, "the storage is recording already");
    if (!storage->StartRecording()) throw std::bad_alloc();
    core.recording = true;
  });
}

py::bytes StopRecording(StorageCore& core) {
  std::string data = CallLibrary([&] {
    kyStorage* storage = core.Storage();
    if (!core.recording) throw Fault(FaultKind::kValue, "the storage is not recording");
    core.recording = false;
    std::unique_ptr<CCompRecorder> rec(storage->StopRecording());
    std::string bytes;
    unsigned int n = 0;
    unsigned char* buf = rec ? rec->Detach(&n) : nullptr;
    if (buf != nullptr) bytes.assign(reinterpret_cast<char*>(buf), n);
    CCompRecorder::Free(buf);
    return bytes;
  });
  return py::bytes(data);
}

int Replay(StorageCore& core, py::handle data) {
  ByteView view(data, false);
  if (view.Size() > 0xFFFFFFFFu)
    throw Fault(FaultKind::kValue, "a recording holds less than 4 GiB");
  // The library reads the buffer only, but takes it unqualified: give it a copy.
  std::string copy(view.Data(), view.Size());
  return CallLibrary([&] {
    kyStorage* storage = core.WritableStorage();
    if (copy.empty()) return 0;
    return storage->ReplayRecording(reinterpret_cast<unsigned char*>(&copy[0]),
                                    static_cast<DWORD>(copy.size()));
  });
}

}  // namespace

void BindStorage(py::module_& m, py::class_<StorageCore, CoreRef>& cls) {
  (void)m;
  cls.def(py::init(&OpenStorage), py::arg("path"), py::arg("mode") = "r",
          py::arg("width") = py::none(), py::arg("block_size") = 4096, py::arg("in_memory") = false)
      .def("close", [](StorageCore& core) { CallLibrary([&] { core.Close(); }); })
      .def_property_readonly("closed", [](StorageCore& core) { return !core.IsOpen(); })
      .def_property_readonly("writable", [](StorageCore& core) { return core.Writable(); })
      .def_property_readonly("path", [](StorageCore& core) { return TextOf(core.Path()); })
      .def("__getitem__", &GetData)
      .def("__setitem__",
           [](StorageCore& core, py::handle pathObj, py::handle value) {
             const Names names = ParsePath(BytesOf(pathObj), false);
             ByteView view(value, false);
             CallLibrary([&] { SetData(core, names, view.Data(), view.Size()); });
           })
      .def("__delitem__", [](StorageCore& core, py::handle p) { RemovePath(core, p, false, true); })
      .def("__contains__", &Contains)
      .def(
          "remove", [](StorageCore& core, py::handle p, bool r) { RemovePath(core, p, r, false); },
          py::arg("path"), py::arg("recursive") = false)
      .def("mkdir", &MakeDir, py::arg("path"), py::arg("parents") = false,
           py::arg("exist_ok") = false)
      .def(
          "listdir", [](StorageCore& core, py::handle p) { return ScanToPython(core, p, false); },
          py::arg("path") = "")
      .def("_scandir", [](StorageCore& core, py::handle p) { return ScanToPython(core, p, true); })
      .def("_stat", &Stat)
      .def("_start_recording", &StartRecording)
      .def("_stop_recording", &StopRecording)
      .def("replay", &Replay, py::arg("data"));
}

}  // namespace kypy
