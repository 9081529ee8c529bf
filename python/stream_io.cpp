// Streams handed out by open_stream: transfers at the handle's own
// position, seeking by absolute position before each one, because every
// stream of a storage moves the storage's one file position.
#include <algorithm>
#include <vector>

#include "core.h"

namespace kypy {

namespace {

const long long kZeroPiece = 1 << 16;

[[noreturn]] void Damaged(const StreamHandle& h, const char* what) {
  throw Fault(FaultKind::kStorage, JoinNames(h.PathNames()) + ": " + what);
}

// Moves the stream's cursor (and the shared file position) to `at`.  A
// stream that has never been written has no block to stand in; its writes
// start at its start without a seek.
bool SeekTo(kyStream* stm, long long at, long long length) {
  return stm->Seek(at, 0) == 0 || (at == 0 && length == 0);
}

// Starts a transfer of `h` at `at`: no seek when the handle made the last
// transfer on the storage and its cursor stands there already, so that a
// stream read or written in order does not walk its chain again each time.
bool StartTransfer(StreamHandle& h, kyStream* stm, long long at, long long length) {
  StorageCore& core = h.Core();
  const bool inPlace = core.lastTransfer == &h && stm->GetCurDataPos() == at;
  core.lastTransfer = nullptr;  // until this transfer has ended well
  return inPlace || SeekTo(stm, at, length);
}

// Writes `count` zero bytes at the end of `stm`, whose length is `length`:
// what lies between the old end and a write or truncate beyond it.
void FillZeros(const StreamHandle& h, kyStream* stm, long long length, long long count) {
  if (!SeekTo(stm, length, length)) Damaged(h, "cannot seek to the end of the stream");
  const std::vector<char> zeros(static_cast<size_t>(std::min(count, kZeroPiece)), 0);
  for (long long done = 0; done < count;) {
    const long long n = std::min(count - done, kZeroPiece);
    if (stm->Write(zeros.data(), n) != n) Damaged(h, "cannot write the stream");
    done += n;
  }
}

void CheckLimit(const StreamHandle& h, long long end) {
  if (end > kyStorage::g_iMaxCompStmSize)
    throw Fault(FaultKind::kTooLarge, JoinNames(h.PathNames()) + ": a stream holds at most " +
                                          std::to_string(kyStorage::g_iMaxCompStmSize) + " bytes");
}

std::shared_ptr<StreamHandle> OpenHandle(const CoreRef& core, py::handle pathObj,
                                         const std::string& mode) {
  const Names names = ParsePath(BytesOf(pathObj), false);
  const bool known = mode == "rb" || mode == "r+b" || mode == "rb+" || mode == "wb" || mode == "ab";
  if (!known) throw Fault(FaultKind::kValue, "mode must be 'rb', 'r+b', 'wb' or 'ab'");
  const bool create = mode == "wb" || mode == "ab";
  const bool write = mode != "rb";
  return CallLibrary([&] {
    kyStorage* storage = write ? core->WritableStorage() : core->Storage();
    const DWORD access = write ? kModeReadWriteShared : kModeReadShared;
    Chain chain;
    if (!create) {
      core->OpenOrThrow(names, access, chain);
    } else {
      // Like a file system's open: the folders above must be there.
      core->OpenOrThrow(Names(names.begin(), names.end() - 1), access, chain);
      if (!chain.LeafIsFolder())
        throw Fault(FaultKind::kNotFolder, JoinNames(names, names.size() - 1) + ": not a folder");
      kyStream* stm = OpenChild(storage, chain.Leaf(), names.back(), access);
      if (stm == nullptr) stm = CreateChild(storage, chain.Leaf(), names.back(), false);
      if (stm == nullptr)
        throw Fault(FaultKind::kStorage, JoinNames(names) + ": cannot create the stream");
      chain.Push(stm);
    }
    if (chain.Leaf()->IsFolder())
      throw Fault(FaultKind::kIsFolder, JoinNames(names) + ": is a folder");
    if (mode == "wb" && chain.Leaf()->GetLength() > 0 && !chain.Leaf()->Erase())
      throw Fault(FaultKind::kStorage, JoinNames(names) + ": cannot empty the stream");
    return std::make_shared<StreamHandle>(core, names, std::move(chain), !create, write,
                                          mode == "ab");
  });
}

long long ReadInto(StreamHandle& h, py::handle buffer) {
  ByteView view(buffer, true);
  return CallLibrary([&]() -> long long {
    kyStream* stm = h.Stream();
    if (!h.readable) throw Fault(FaultKind::kValue, "the stream is not open for reading");
    const long long length = stm->GetLength();
    if (h.position >= length || view.Size() == 0) return 0;
    if (!StartTransfer(h, stm, h.position, length)) Damaged(h, "cannot seek in the stream");
    const long long want =
        std::min<long long>(static_cast<long long>(view.Size()), length - h.position);
    const long long n = stm->Read(view.Data(), want);
    if (n < 0) Damaged(h, "the stream is damaged");
    h.position += n;
    h.Core().lastTransfer = &h;
    return n;
  });
}

long long Write(StreamHandle& h, py::handle data) {
  ByteView view(data, false);
  const long long size = static_cast<long long>(view.Size());
  return CallLibrary([&] {
    kyStream* stm = h.Stream();
    if (!h.writable) throw Fault(FaultKind::kValue, "the stream is not open for writing");
    const long long length = stm->GetLength();
    const long long at = h.append ? length : h.position;
    CheckLimit(h, at + size);
    if (size == 0) return 0LL;
    if (at > length) {
      h.Core().lastTransfer = nullptr;
      FillZeros(h, stm, length, at - length);
    } else if (!StartTransfer(h, stm, at, length)) {
      Damaged(h, "cannot seek in the stream");
    }
    if (stm->Write(view.Data(), size) != size) Damaged(h, "cannot write the stream");
    h.position = at + size;
    h.Core().lastTransfer = &h;
    return size;
  });
}

long long Truncate(StreamHandle& h, long long size) {
  if (size < 0) throw Fault(FaultKind::kValue, "negative size");
  return CallLibrary([&] {
    kyStream* stm = h.Stream();
    if (!h.writable) throw Fault(FaultKind::kValue, "the stream is not open for writing");
    CheckLimit(h, size);
    h.Core().lastTransfer = nullptr;
    const long long length = stm->GetLength();
    if (size < length && !stm->SetLength(size)) Damaged(h, "cannot cut the stream");
    if (size > length) FillZeros(h, stm, length, size - length);
    return size;
  });
}

}  // namespace

void BindStreams(py::module_& m, py::class_<StorageCore, CoreRef>& cls) {
  cls.def("_open_stream", &OpenHandle);
  py::class_<StreamHandle, std::shared_ptr<StreamHandle>>(m, "_Stream")
      .def("readinto", &ReadInto)
      .def("write", &Write)
      .def("truncate", &Truncate)
      .def("length",
           [](StreamHandle& h) { return CallLibrary([&] { return h.Stream()->GetLength(); }); })
      .def("close", [](StreamHandle& h) { CallLibrary([&] { h.Close(); }); })
      .def_property_readonly(
          "closed", [](StreamHandle& h) { return CallLibrary([&] { return h.Closed(); }); })
      .def_readonly("readable", &StreamHandle::readable)
      .def_readonly("writable", &StreamHandle::writable)
      .def_property(
          "position", [](StreamHandle& h) { return CallLibrary([&] { return h.position; }); },
          [](StreamHandle& h, long long at) { CallLibrary([&] { h.position = at; }); });
}

}  // namespace kypy
