#include "stream_path.h"

#include "change_session.h"
#include "commands.h"
#include "name_text.h"

namespace kycli {

namespace {

enum class PathResult {
  kOpened,     // every name was found (or made) and opened
  kMissing,    // a name was not found
  kNotFolder,  // a name before the last one is a data stream
  kFailed,     // a stream could not be created
};

// What a walk does with a name it does not find.
enum class IfMissing {
  kFail,
  kMakeDataStream,  // folders on the way, the last name a data stream
  kMakeFolder,      // folders all the way
};

// Opens the names of `path` in turn onto `chain`; `failedAt` ends as the
// index of the name that could not be followed.
PathResult WalkPath(kyStorage* storage, const StreamPath& path, DWORD mode, IfMissing ifMissing,
                    StreamChain& chain, size_t& failedAt) {
  for (size_t i = 0; i < path.size(); ++i) {
    failedAt = i;
    if (!chain.LeafIsFolder()) {
      failedAt = i - 1;
      return PathResult::kNotFolder;
    }
    if (chain.OpenBelow(storage, path[i], mode == kModeReadWriteShared)) continue;
    if (ifMissing == IfMissing::kFail) return PathResult::kMissing;
    bool folder = i + 1 < path.size() || ifMissing == IfMissing::kMakeFolder;
    kyStream* stm = CreateChild(storage, chain.Leaf(), path[i], folder);
    if (stm == nullptr) return PathResult::kFailed;
    chain.Push(stm);
  }
  return PathResult::kOpened;
}

const char* DescribeFailure(PathResult result) {
  switch (result) {
    case PathResult::kMissing:
      return "no such stream";
    case PathResult::kNotFolder:
      return "not a folder";
    case PathResult::kFailed:
      return "cannot create the stream";
    case PathResult::kOpened:
      break;
  }
  return "";
}

bool WalkAndReport(kyStorage* storage, const std::string& file, const StreamPath& path, DWORD mode,
                   IfMissing ifMissing, StreamChain& chain) {
  size_t failedAt = 0;
  PathResult result = WalkPath(storage, path, mode, ifMissing, chain, failedAt);
  if (result == PathResult::kOpened) return true;
  StreamPath where(path.begin(), path.begin() + failedAt + 1);
  ComplainAbout(file, where, WithWriteError(DescribeFailure(result)));
  return false;
}

}  // namespace

bool ParsePathArgument(const std::string& text, const std::string& synopsis, StreamPath& path) {
  path = SplitPath(text);
  std::string problem;
  if (path.empty()) problem = "'" + PrintableName(text) + "': a stream path is required";
  if (problem.empty()) CheckPath(path, problem);
  if (problem.empty()) return true;
  UsageError(synopsis, problem);
  return false;
}

void ComplainAbout(const std::string& file, const StreamPath& path, const std::string& message) {
  Complain(file, PrintableName(JoinPath(path)) + ": " + message);
}

kyStream* OpenChild(kyStorage* storage, kyStream* parent, const std::string& name, DWORD mode) {
  if (parent == nullptr) return storage->OpenStream(name.c_str(), mode);
  return parent->OpenStream(name.c_str(), mode);
}

kyStream* CreateChild(kyStorage* storage, kyStream* parent, const std::string& name, bool folder,
                      WORD minutes) {
  DWORD type = (static_cast<DWORD>(minutes) << 16) | (folder ? 1 : 0);
  if (parent == nullptr) return storage->CreateStream(name.c_str(), type, kModeReadWriteShared);
  return parent->CreateStream(name.c_str(), type, kModeReadWriteShared, 1);
}

PathKind ProbePath(kyStorage* storage, const StreamPath& path) {
  StreamChain chain;
  for (const std::string& name : path)
    if (!chain.LeafIsFolder() || !chain.OpenBelow(storage, name, false)) return PathKind::kMissing;
  return chain.LeafIsFolder() ? PathKind::kFolder : PathKind::kData;
}

bool OpenPath(kyStorage* storage, const std::string& file, const StreamPath& path, DWORD mode,
              StreamChain& chain) {
  return WalkAndReport(storage, file, path, mode, IfMissing::kFail, chain);
}

bool OpenOrCreatePath(kyStorage* storage, const std::string& file, const StreamPath& path,
                      bool leafFolder, StreamChain& chain) {
  IfMissing ifMissing = leafFolder ? IfMissing::kMakeFolder : IfMissing::kMakeDataStream;
  if (!WalkAndReport(storage, file, path, kModeReadWriteShared, ifMissing, chain)) return false;
  if (chain.LeafIsFolder() == leafFolder) return true;
  ComplainAbout(file, path, leafFolder ? "not a folder" : "is a folder");
  return false;
}

OpenedPath::OpenedPath(const std::string& file, const StreamPath& path, bool writable)
    : m_storage(file, writable), m_opened(false) {
  DWORD mode = writable ? kModeReadWriteShared : kModeReadShared;
  m_opened = m_storage && OpenPath(m_storage.get(), file, path, mode, m_chain);
}

}  // namespace kycli
