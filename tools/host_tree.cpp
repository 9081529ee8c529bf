#include "host_tree.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kystore.h"
#include "kystore/format.h"
#include "name_text.h"

namespace kycli {

namespace {

class Walker {
 public:
  Walker(int maxDepth, dev_t selfDev, ino_t selfIno, HostTree& tree)
      : m_maxDepth(maxDepth), m_selfDev(selfDev), m_selfIno(selfIno), m_tree(tree) {}

  // Adds what the directory `dir` (at `path` below the top) holds.
  void Directory(const std::string& dir, StreamPath& path) {
    std::vector<std::string> names;
    if (!ReadNames(dir, names)) return Problem(dir, strerror(errno));
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      path.push_back(name);
      Entry(dir + "/" + name, path);
      path.pop_back();
    }
  }

 private:
  static bool ReadNames(const std::string& dir, std::vector<std::string>& names) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return false;
    errno = 0;
    for (struct dirent* e = readdir(d); e != nullptr; e = readdir(d))
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    const int err = errno;
    closedir(d);
    errno = err;
    return err == 0;
  }

  void Problem(const std::string& where, const std::string& why) {
    m_tree.problems.push_back(PrintableName(where) + ": " + why);
  }

  void Entry(const std::string& file, StreamPath& path) {
    struct stat st;
    if (lstat(file.c_str(), &st) != 0) return Problem(file, strerror(errno));
    if (path.back().size() > static_cast<size_t>(kMaxNameLength))
      return Problem(file, "a stream name has at most " + std::to_string(kMaxNameLength) +
                               " bytes (this one " + std::to_string(path.back().size()) + ")");
    if (path.size() > static_cast<size_t>(m_maxDepth))
      return Problem(file, "nested deeper than a storage holds (" + std::to_string(m_maxDepth) +
                               " levels here)");
    if (S_ISLNK(st.st_mode)) return Problem(file, "is a symbolic link (not imported)");
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode))
      return Problem(file, "is neither a regular file nor a directory");
    if (st.st_dev == m_selfDev && st.st_ino == m_selfIno)
      return Problem(file, "is the storage file being written");
    if (access(file.c_str(), S_ISDIR(st.st_mode) ? R_OK | X_OK : R_OK) != 0)
      return Problem(file, strerror(errno));
    if (S_ISREG(st.st_mode)) {
      if (st.st_size > kyStorage::g_iMaxCompStmSize)
        return Problem(file, "too large: a stream holds at most " +
                                 std::to_string(kyStorage::g_iMaxCompStmSize) + " bytes");
      m_tree.entries.push_back({path, false, static_cast<int64_t>(st.st_size)});
      m_tree.dataBytes += st.st_size;
      return;
    }
    m_tree.entries.push_back({path, true, 0});
    Directory(file, path);
  }

  const int m_maxDepth;
  const dev_t m_selfDev;
  const ino_t m_selfIno;
  HostTree& m_tree;
};

}  // namespace

bool WalkHostTree(const std::string& dir, int maxDepth, dev_t selfDev, ino_t selfIno,
                  HostTree& tree) {
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    tree.problems.push_back(PrintableName(dir) + ": " + strerror(errno));
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    tree.problems.push_back(PrintableName(dir) + ": not a directory");
    return false;
  }
  StreamPath path;
  Walker(maxDepth, selfDev, selfIno, tree).Directory(dir, path);
  return true;
}

}  // namespace kycli
