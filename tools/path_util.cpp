#include "path_util.h"

#include "hierarchy/child_slots.h"
#include "kystore/format.h"
#include "name_text.h"

namespace kycli {

StreamPath SplitPath(const std::string& text) {
  StreamPath path;
  size_t start = 0;
  while (start <= text.size()) {
    size_t slash = text.find('/', start);
    if (slash == std::string::npos) slash = text.size();
    if (slash > start) path.push_back(text.substr(start, slash - start));
    start = slash + 1;
  }
  return path;
}

std::string JoinPath(const StreamPath& path, size_t count) {
  std::string text;
  for (size_t i = 0; i < path.size() && i < count; ++i) {
    if (i > 0) text += '/';
    text += path[i];
  }
  return text;
}

bool IsValidName(const std::string& name) {
  return !name.empty() && name.size() <= static_cast<size_t>(kMaxNameLength) &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

bool CheckPath(const StreamPath& path, std::string& problem) {
  // The library opens no deeper; a longer path would fail half-way through.
  if (path.size() > static_cast<size_t>(kMaxFolderDepth)) {
    problem = "a path has at most " + std::to_string(kMaxFolderDepth) + " names";
    return false;
  }
  for (const std::string& name : path) {
    if (IsValidName(name)) continue;
    if (name.find('\0') != std::string::npos)
      problem = "stream names cannot hold NUL bytes";
    else
      problem = "'" + PrintableName(name) + "': stream names have 1 to " +
                std::to_string(kMaxNameLength) + " bytes";
    return false;
  }
  return true;
}

}  // namespace kycli
