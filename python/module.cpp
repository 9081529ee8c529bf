// The native module kystore._kystore: the exceptions, the storage class and
// the rebuild.  kystore/__init__.py builds the Python-facing API on it.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "core.h"

namespace kypy {

namespace {

PyObject* g_storageError = nullptr;

int ErrnoOf(const Fault& f) {
  switch (f.kind) {
    case FaultKind::kPermission:
      return EACCES;
    case FaultKind::kIsFolder:
      return EISDIR;
    case FaultKind::kNotFolder:
      return ENOTDIR;
    case FaultKind::kExists:
      return EEXIST;
    case FaultKind::kNotEmpty:
      return ENOTEMPTY;
    case FaultKind::kTooLarge:
      return EFBIG;
    default:
      return f.err;
  }
}

// Raises the Python exception for `f`.  OSError picks its subclass
// (PermissionError, FileNotFoundError, ...) from the errno it is given.
void Raise(const Fault& f) {
  if (f.kind == FaultKind::kKey) return PyErr_SetObject(PyExc_KeyError, TextOf(f.what()).ptr());
  if (f.kind == FaultKind::kValue) return PyErr_SetObject(PyExc_ValueError, TextOf(f.what()).ptr());
  if (f.kind == FaultKind::kStorage) return PyErr_SetObject(g_storageError, TextOf(f.what()).ptr());
  const int err = ErrnoOf(f);
  py::tuple args = f.kind == FaultKind::kOs
                       ? py::make_tuple(err, TextOf(strerror(err)), TextOf(f.file))
                       : py::make_tuple(err, TextOf(f.what()));
  PyObject* error = PyObject_Call(PyExc_OSError, args.ptr(), nullptr);
  if (error == nullptr) return;  // the call's own exception stands
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error)), error);
  Py_DECREF(error);
}

// Rebuilds the storage file `path` compactly (kyStorage::Recreate).
void Compact(py::handle pathObj) {
  const std::string path = BytesOf(pathObj);
  CallLibrary([&] {
    // A storage open here would go on with the old, replaced file.
    if (StorageCore::IsOpenInProcess(path))
      throw Fault(FaultKind::kPermission, path + ": the storage is open in this process");
    struct stat st;
    if (stat(path.c_str(), &st) != 0) throw Fault(FaultKind::kOs, "", errno, path);
    kyStorage* probe = kyStorage::Open(path.c_str(), kModeReadShared, 4096, 0);
    if (probe == nullptr)
      throw Fault(FaultKind::kStorage, path + ": not a storage file, or its directory is damaged");
    probe->Release();
    if (!kyStorage::Recreate(path.c_str()))
      throw Fault(FaultKind::kStorage,
                  path + ": cannot rebuild the storage (damaged, or no room); it is unchanged");
  });
}

// The faults kyCheckStorage finds in the file `path`, as (offset, message)
// pairs; an empty list for a clean storage.  A file that cannot be read
// raises OSError, one that is not a storage StorageError.
py::list Check(py::handle pathObj) {
  const std::string path = BytesOf(pathObj);
  kyCheckReport report;
  CallLibrary([&] {
    errno = 0;
    if (!kyCheckStorage(path.c_str(), &report)) {
      // The checker's own reason is the system's text; errno still holds
      // the number behind it unless the read found a short file.
      throw Fault(FaultKind::kOs, report.error, errno != 0 ? errno : EIO, path);
    }
    if (!report.isStorage) throw Fault(FaultKind::kStorage, path + ": " + report.error);
  });
  py::list faults;
  for (const kyCheckFault& f : report.faults)
    faults.append(py::make_tuple(f.offset, TextOf(f.message)));
  return faults;
}

}  // namespace

}  // namespace kypy

PYBIND11_MODULE(_kystore, m) {
  using namespace kypy;
  m.doc() = "Native part of kystore: storages of named byte streams in one file";
  static py::exception<Fault> storageError(m, "StorageError", PyExc_OSError);
  g_storageError = storageError.ptr();
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const Fault& f) {
      Raise(f);
    }
  });
  py::class_<StorageCore, CoreRef> storage(m, "_Storage");
  BindStorage(m, storage);
  BindStreams(m, storage);
  BindEntries(storage);
  m.def("check", &Check, py::arg("path"),
        "The faults found in the storage file at `path`, as a list of (offset, message).");
  m.def(
      "compact", &Compact, py::arg("path"),
      "Rebuilds the storage file at `path` compactly; the file is replaced only by a whole copy.");
}
