// Opening storages and holding chains of open streams for the commands.
#ifndef KYSTORE_TOOLS_STORAGE_UTIL_H_
#define KYSTORE_TOOLS_STORAGE_UTIL_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kystore.h"
#include "kystore/path_loader.h"

namespace kycli {

// A storage opened for one command and released when the object goes.
// Read-only commands open with mode 0x12, changing ones with 0x16, both
// with block size 4096 and without the in-memory load.  A failed open is
// reported on stderr ("No such file or directory", "not a storage file").
class OpenedStorage {
 public:
  OpenedStorage(const std::string& file, bool writable);
  ~OpenedStorage();
  OpenedStorage(const OpenedStorage&) = delete;
  OpenedStorage& operator=(const OpenedStorage&) = delete;

  kyStorage* get() const { return m_storage; }
  kyStorage* operator->() const { return m_storage; }
  explicit operator bool() const { return m_storage != nullptr; }

 private:
  kyStorage* m_storage;
};

// Walks the root streams in directory order, slot by slot along the chain.
// `visit` gets each stream opened with mode 0x12, which it must release, or
// null with `cursor` on the slot when a name could not be opened.  The walk
// ends after the last slot, or when `visit` returns false; the result is
// false only in the second case.
bool ForEachRootStream(kyStorage* storage,
                       const std::function<bool(kyStream* stm, int cursor)>& visit);

// One stream object, released when the holder goes (declare it after the
// chain holding its parent, so that it goes first).
struct StreamReleaser {
  void operator()(kyStream* stm) const {
    if (stm != nullptr) stm->Release();
  }
};
typedef std::unique_ptr<kyStream, StreamReleaser> StreamPtr;

// The streams opened along a path, outermost first.  Existing streams are
// opened through a path loader, which holds them; streams the command
// creates or opens itself below them are held by the chain.  A child keeps
// a pointer to its parent, so the chain releases the innermost stream
// first; declare it after the OpenedStorage it belongs to, so that it goes
// first.
class StreamChain {
 public:
  StreamChain() = default;
  ~StreamChain() { ReleaseAll(); }
  StreamChain(const StreamChain&) = delete;
  StreamChain& operator=(const StreamChain&) = delete;

  // Opens the existing child `name` of the leaf (a root stream for an
  // empty chain) with mode 0x12, or 0x16 when `writable`, and makes it the
  // leaf.  False, with the chain as it was, when it cannot be opened.
  bool OpenBelow(kyStorage* storage, const std::string& name, bool writable);
  // Makes `stm`, opened or created by the caller, the leaf; the chain
  // releases it.
  void Push(kyStream* stm) { m_streams.push_back({stm, false}); }
  size_t Depth() const { return m_streams.size(); }
  // The innermost stream, or null for an empty chain.
  kyStream* Leaf() const { return m_streams.empty() ? nullptr : m_streams.back().stm; }
  // The stream at `level` (0: the root stream).
  kyStream* At(size_t level) const { return m_streams[level].stm; }
  // Whether the leaf can hold streams: a folder, or the storage's root
  // directory that an empty chain stands for.
  bool LeafIsFolder() const { return Leaf() == nullptr || Leaf()->IsFolder(); }
  // The stream holding the leaf, or null when the leaf is a root stream.
  kyStream* Parent() const {
    return m_streams.size() < 2 ? nullptr : m_streams[m_streams.size() - 2].stm;
  }
  void ReleaseAll();

 private:
  struct Held {
    kyStream* stm;
    bool byLoader;  // the loader releases it
  };
  std::vector<Held> m_streams;
  CPathLoader m_loader;  // holds the streams of the chain's start
};

}  // namespace kycli

#endif  // KYSTORE_TOOLS_STORAGE_UTIL_H_
