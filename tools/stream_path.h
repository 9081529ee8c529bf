// Following slash-separated paths through a storage's folders.
#ifndef KYSTORE_TOOLS_STREAM_PATH_H_
#define KYSTORE_TOOLS_STREAM_PATH_H_

#include <string>

#include "kystore.h"
#include "path_util.h"
#include "storage_util.h"

namespace kycli {

enum class PathResult {
  kOpened,     // every name was found and opened
  kMissing,    // a name was not found
  kNotFolder,  // a name before the last one is a data stream
  kFailed,     // a stream could not be created
};

// Splits a PATH argument into `path`.  An empty path, or one with a name
// that cannot name a stream, is a usage error: it is reported with
// `synopsis` and false is returned.
bool ParsePathArgument(const std::string& text, const std::string& synopsis, StreamPath& path);

// What a failed walk tells the user: "Top/Mid: no such stream", ...
std::string DescribePathFailure(PathResult result, const StreamPath& path, size_t failedAt);

// Opens the root stream (parent null) or the child `name` of `parent`.
kyStream* OpenChild(kyStorage* storage, kyStream* parent, const std::string& name, DWORD mode);

// Creates the root stream or child `name` (a folder or a data stream),
// opened with mode 0x16.
kyStream* CreateChild(kyStorage* storage, kyStream* parent, const std::string& name, bool folder);

// Opens every stream along `path` with `mode`, outermost first, onto
// `chain`.  On failure `chain` holds the streams opened before it and
// `failedAt` the index of the name that could not be followed.
PathResult OpenPath(kyStorage* storage, const StreamPath& path, DWORD mode, StreamChain& chain,
                    size_t& failedAt);

// Like OpenPath with mode 0x16, but creates missing folders on the way and
// a missing last stream as a folder or a data stream (`leafFolder`).  An
// existing last stream is opened whatever its kind; the caller checks it.
PathResult OpenOrCreatePath(kyStorage* storage, const StreamPath& path, bool leafFolder,
                            StreamChain& chain, size_t& failedAt);

}  // namespace kycli

#endif  // KYSTORE_TOOLS_STREAM_PATH_H_
