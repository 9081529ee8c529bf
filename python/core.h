// What the Python bindings share: the lock around the library, the errors
// they raise, stream paths, and the state of one open storage.
//
// The library lets one thread at a time use a storage and every storage
// object over the same file.  The bindings release the GIL while the
// library works, so they serialise every call into it with one process-wide
// lock instead; Python threads still overlap their own work with the I/O.
// Nothing inside a locked call touches a Python object.
#ifndef KYSTORE_PYTHON_CORE_H_
#define KYSTORE_PYTHON_CORE_H_

#include <pybind11/pybind11.h>

#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "kystore.h"

namespace kypy {

namespace py = pybind11;

// --- errors ------------------------------------------------------------------

// The Python exception a failure becomes (module.cpp translates them).
enum class FaultKind {
  kKey,         // KeyError: no stream at that path
  kValue,       // ValueError: a bad name, mode or argument
  kPermission,  // PermissionError: a change to a read-only storage, a stream in use
  kIsFolder,    // IsADirectoryError: data asked of a folder
  kNotFolder,   // NotADirectoryError: a path through a data stream
  kExists,      // FileExistsError: the stream is there already
  kNotEmpty,    // OSError(ENOTEMPTY): a folder with children
  kTooLarge,    // OSError(EFBIG): beyond the largest stream
  kOs,          // OSError from `err` (the errno), with the file name
  kStorage,     // kystore.StorageError: a damaged file or a failed library call
};

// Thrown inside or outside the lock; it holds no Python object, so it may
// be made while the GIL is released.
class Fault : public std::runtime_error {
 public:
  Fault(FaultKind kind, const std::string& message, int err = 0, std::string file = "")
      : std::runtime_error(message), kind(kind), err(err), file(std::move(file)) {}
  FaultKind kind;
  int err;
  std::string file;
};

// The lock every call into the library holds.
std::mutex& LibraryLock();

// Runs `work` with the GIL released and the library lock held.
template <class Work>
auto CallLibrary(Work&& work) -> decltype(work()) {
  py::gil_scoped_release release;
  std::lock_guard<std::mutex> hold(LibraryLock());
  return work();
}

// --- names and paths -----------------------------------------------------------

typedef std::vector<std::string> Names;

// The bytes of a name or path given as str (UTF-8; undecodable bytes come
// back through surrogateescape, as os.fsencode does) or bytes.
std::string BytesOf(py::handle text);
// A name for Python: UTF-8 text, other bytes kept as surrogates.
py::str TextOf(const std::string& bytes);

// Splits a stream path at '/' (empty parts dropped) and checks every name.
// An empty path is refused unless `rootAllowed`.  ValueError on a fault.
Names ParsePath(const std::string& path, bool rootAllowed);
std::string JoinNames(const Names& names, size_t count = static_cast<size_t>(-1));

// The bytes of a bytes-like object, held (and, for a bytearray, kept from
// resizing) while the view lives.  Made and destroyed with the GIL held;
// the bytes themselves may be used without it.
class ByteView {
 public:
  ByteView(py::handle obj, bool writable) {
    if (PyObject_GetBuffer(obj.ptr(), &m_view, writable ? PyBUF_WRITABLE : PyBUF_SIMPLE) != 0)
      throw py::error_already_set();
  }
  ~ByteView() { PyBuffer_Release(&m_view); }
  ByteView(const ByteView&) = delete;
  ByteView& operator=(const ByteView&) = delete;
  char* Data() const { return static_cast<char*>(m_view.buf); }
  size_t Size() const { return static_cast<size_t>(m_view.len); }

 private:
  Py_buffer m_view;
};

// --- open storages and the streams along a path ---------------------------

// The streams opened along a path, outermost first; released innermost
// first (children keep pointers to their parents).  Used under the lock.
class Chain {
 public:
  Chain() = default;
  ~Chain() { ReleaseAll(); }
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;
  Chain(Chain&& other) noexcept : m_streams(std::move(other.m_streams)) { other.m_streams.clear(); }

  kyStream* Leaf() const { return m_streams.empty() ? nullptr : m_streams.back(); }
  size_t Depth() const { return m_streams.size(); }
  bool LeafIsFolder() const { return Leaf() == nullptr || Leaf()->IsFolder(); }
  void Push(kyStream* stm) { m_streams.push_back(stm); }
  // Forgets the leaf without releasing it (a Remove destroyed it).
  void DropLeaf() { m_streams.pop_back(); }
  void ReleaseLeaf();
  void ReleaseAll();

 private:
  std::vector<kyStream*> m_streams;
};

class StreamHandle;

// One storage opened from Python, shared by the Storage object and every
// stream it handed out.  Its members are used under the lock.
class StorageCore {
 public:
  StorageCore(kyStorage* storage, std::string path, bool writable, bool inMemory);
  ~StorageCore();

  // Releases every handed-out stream, then the storage.  Idempotent.
  void Close();
  bool IsOpen() const { return m_storage != nullptr; }
  kyStorage* Storage() const;  // ValueError when closed
  // ValueError when closed; PermissionError when read-only.
  kyStorage* WritableStorage() const;
  const std::string& Path() const { return m_path; }
  bool Writable() const { return m_writable; }

  // How far a path could be opened; `reached` is the number of names opened.
  enum class Walk { kOpened, kMissing, kNotFolder };
  Walk OpenAlong(const Names& names, DWORD mode, Chain& chain, size_t& reached);
  // OpenAlong that turns a failure into KeyError.
  void OpenOrThrow(const Names& names, DWORD mode, Chain& chain);
  // Opens the existing folders along `names` and creates the missing ones
  // (with parents, or only the last when !parents).  All checks come before
  // the first creation; a creation that fails removes the folders made.
  void MakeFolders(const Names& names, bool parents, Chain& chain);

  // Whether a handed-out stream lies at or below `names`.
  bool HoldsStreamAt(const Names& names) const;

  void Register(StreamHandle* h) { m_handles.insert(h); }
  void Unregister(StreamHandle* h) { m_handles.erase(h); }

  // Whether a storage open in this process is the file `path`.
  static bool IsOpenInProcess(const std::string& path);

  bool recording = false;
  // The handle whose transfer moved the file position last, or null once
  // anything else may have moved it: that handle may go on without seeking
  // (a seek walks the block chain from the start).  Storage() clears it.
  mutable const StreamHandle* lastTransfer = nullptr;

 private:
  kyStorage* m_storage;
  std::string m_path;
  bool m_writable;
  bool m_inMemory;
  std::set<StreamHandle*> m_handles;
  unsigned long long m_device = 0, m_inode = 0;
  bool m_known = false;
};

typedef std::shared_ptr<StorageCore> CoreRef;

// A stream handed out by open_stream: the streams along its path, and its
// own position, since all streams of a storage share one file position.
// Lives until Python drops it; its streams go at close, or with the storage.
class StreamHandle {
 public:
  StreamHandle(CoreRef core, Names names, Chain chain, bool readable, bool writable, bool append);
  ~StreamHandle();
  StreamHandle(const StreamHandle&) = delete;
  StreamHandle& operator=(const StreamHandle&) = delete;

  // Releases the streams (under the lock); later calls raise ValueError.
  void Close();
  // The storage is closing: let the streams go without unregistering.
  void Orphan() { m_chain.ReleaseAll(); }
  // The open stream, or ValueError when it or its storage was closed.
  kyStream* Stream() const;

  bool Closed() const { return m_chain.Leaf() == nullptr || !m_core->IsOpen(); }
  const Names& PathNames() const { return m_names; }
  StorageCore& Core() const { return *m_core; }
  bool readable, writable, append;
  long long position = 0;

 private:
  CoreRef m_core;
  Names m_names;
  Chain m_chain;
};

// Opens the root stream (parent null) or the child `name` of `parent`.
kyStream* OpenChild(kyStorage* storage, kyStream* parent, const std::string& name, DWORD mode);
// Creates a root stream or a child with mode 0x16.
kyStream* CreateChild(kyStorage* storage, kyStream* parent, const std::string& name, bool folder);

// The bindings of each concern (storage_binding.cpp, stream_io.cpp,
// entries_binding.cpp).
void BindStorage(py::module_& m, py::class_<StorageCore, CoreRef>& cls);
void BindStreams(py::module_& m, py::class_<StorageCore, CoreRef>& cls);
void BindEntries(py::class_<StorageCore, CoreRef>& cls);

}  // namespace kypy

#endif  // KYSTORE_PYTHON_CORE_H_
