// Following slash-separated paths through a storage's folders.
#ifndef KYSTORE_TOOLS_STREAM_PATH_H_
#define KYSTORE_TOOLS_STREAM_PATH_H_

#include <string>

#include "kystore.h"
#include "path_util.h"
#include "storage_util.h"

namespace kycli {

// Splits a PATH argument into `path`.  An empty path, or one with a name
// that cannot name a stream, is a usage error: it is reported with
// `synopsis` and false is returned.
bool ParsePathArgument(const std::string& text, const std::string& synopsis, StreamPath& path);

// Prints "kystore: <file>: <path>: <message>" on stderr, a message about
// the stream `path` names in the storage `file`.
void ComplainAbout(const std::string& file, const StreamPath& path, const std::string& message);

// Opens the root stream (parent null) or the child `name` of `parent`.
kyStream* OpenChild(kyStorage* storage, kyStream* parent, const std::string& name, DWORD mode);

// Creates the root stream or child `name` (a folder or a data stream, with
// a duration of `minutes`), opened with mode 0x16.
kyStream* CreateChild(kyStorage* storage, kyStream* parent, const std::string& name, bool folder,
                      WORD minutes = 0);

// What a path names: nothing, a data stream, or a folder (the root is a
// folder).
enum class PathKind { kMissing, kData, kFolder };

// What `path` names in `storage`, found without a message.
PathKind ProbePath(kyStorage* storage, const StreamPath& path);

// Opens every stream along `path` with `mode`, outermost first, onto
// `chain`.  A name that is missing or that follows a data stream is
// reported against `file` ("Top/Mid: no such stream", "Top: not a
// folder") and false is returned, with `chain` holding the streams opened
// before it.
bool OpenPath(kyStorage* storage, const std::string& file, const StreamPath& path, DWORD mode,
              StreamChain& chain);

// Like OpenPath with mode 0x16, but creates missing folders on the way and
// a missing last stream as a folder or a data stream (`leafFolder`).  An
// existing last stream of the other kind is refused too ("is a folder",
// "not a folder").
bool OpenOrCreatePath(kyStorage* storage, const std::string& file, const StreamPath& path,
                      bool leafFolder, StreamChain& chain);

// A storage opened for one command with the streams along one path: read
// only (mode 0x12) or writable (mode 0x16).  Failures are reported as by
// OpenedStorage and OpenPath.  An empty path opens the storage alone.
class OpenedPath {
 public:
  OpenedPath(const std::string& file, const StreamPath& path, bool writable);

  explicit operator bool() const { return m_opened; }
  kyStorage* Storage() const { return m_storage.get(); }
  StreamChain& Chain() { return m_chain; }
  kyStream* Leaf() const { return m_chain.Leaf(); }

 private:
  OpenedStorage m_storage;
  StreamChain m_chain;  // after m_storage, so that it is released first
  bool m_opened;
};

}  // namespace kycli

#endif  // KYSTORE_TOOLS_STREAM_PATH_H_
