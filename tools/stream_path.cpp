#include "stream_path.h"

#include "commands.h"

namespace kycli {

bool ParsePathArgument(const std::string& text, const std::string& synopsis, StreamPath& path) {
  path = SplitPath(text);
  std::string problem;
  if (path.empty()) problem = "'" + text + "': a stream path is required";
  if (problem.empty()) CheckPath(path, problem);
  if (problem.empty()) return true;
  UsageError(synopsis, problem);
  return false;
}

std::string DescribePathFailure(PathResult result, const StreamPath& path, size_t failedAt) {
  std::string where = JoinPath(path, failedAt + 1);
  switch (result) {
    case PathResult::kMissing:
      return where + ": no such stream";
    case PathResult::kNotFolder:
      return where + ": not a folder";
    case PathResult::kFailed:
      return where + ": cannot create the stream";
    case PathResult::kOpened:
      break;
  }
  return where;
}

kyStream* OpenChild(kyStorage* storage, kyStream* parent, const std::string& name, DWORD mode) {
  if (parent == nullptr) return storage->OpenStream(name.c_str(), mode);
  return parent->OpenStream(name.c_str(), mode);
}

kyStream* CreateChild(kyStorage* storage, kyStream* parent, const std::string& name, bool folder) {
  DWORD type = folder ? 1 : 0;
  if (parent == nullptr) return storage->CreateStream(name.c_str(), type, kModeReadWriteShared);
  return parent->CreateStream(name.c_str(), type, kModeReadWriteShared, 1);
}

PathResult OpenPath(kyStorage* storage, const StreamPath& path, DWORD mode, StreamChain& chain,
                    size_t& failedAt) {
  for (size_t i = 0; i < path.size(); ++i) {
    failedAt = i;
    if (chain.Leaf() != nullptr && !chain.Leaf()->IsFolder()) {
      failedAt = i - 1;
      return PathResult::kNotFolder;
    }
    kyStream* stm = OpenChild(storage, chain.Leaf(), path[i], mode);
    if (stm == nullptr) return PathResult::kMissing;
    chain.Push(stm);
  }
  return PathResult::kOpened;
}

PathResult OpenOrCreatePath(kyStorage* storage, const StreamPath& path, bool leafFolder,
                            StreamChain& chain, size_t& failedAt) {
  for (size_t i = 0; i < path.size(); ++i) {
    failedAt = i;
    if (chain.Leaf() != nullptr && !chain.Leaf()->IsFolder()) {
      failedAt = i - 1;
      return PathResult::kNotFolder;
    }
    kyStream* stm = OpenChild(storage, chain.Leaf(), path[i], kModeReadWriteShared);
    if (stm == nullptr) {
      bool folder = i + 1 < path.size() || leafFolder;
      stm = CreateChild(storage, chain.Leaf(), path[i], folder);
      if (stm == nullptr) return PathResult::kFailed;
    }
    chain.Push(stm);
  }
  return PathResult::kOpened;
}

}  // namespace kycli
