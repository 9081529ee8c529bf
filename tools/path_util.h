// Slash-separated paths of streams inside a storage ("Top/Mid/Leaf").
//
// A path is a list of stream names from a root stream downward.  Empty
// components are dropped, as a shell does with doubled slashes, so
// "/Top//Mid/" names Top then Mid; an empty list stands for the storage's
// root directory.
#ifndef KYSTORE_TOOLS_PATH_UTIL_H_
#define KYSTORE_TOOLS_PATH_UTIL_H_

#include <cstddef>
#include <string>
#include <vector>

namespace kycli {

typedef std::vector<std::string> StreamPath;

// Splits `text` at '/' into stream names.
StreamPath SplitPath(const std::string& text);

// The first `count` names of `path` joined with '/' (all of them when count
// is larger than the path).
std::string JoinPath(const StreamPath& path, size_t count = static_cast<size_t>(-1));

// True when `name` can name a stream: 1 to 60 bytes, no '/' and no NUL.
bool IsValidName(const std::string& name);

// Checks the depth of `path` (at most as many names as the library opens
// levels) and every name; on the first fault returns false with a message
// in `problem`.
bool CheckPath(const StreamPath& path, std::string& problem);

}  // namespace kycli

#endif  // KYSTORE_TOOLS_PATH_UTIL_H_
