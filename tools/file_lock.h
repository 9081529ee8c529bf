// Refusing what is not a regular file, and advisory locks between kystore
// processes that work on the same storage at the same time.
#ifndef KYSTORE_TOOLS_FILE_LOCK_H_
#define KYSTORE_TOOLS_FILE_LOCK_H_

#include <string>
#include <vector>

namespace kycli {

// How long a command waits for another process's lock before it gives up.
const int kLockWaitSeconds = 5;

// Whether `file` is a regular file, found without opening it (opening a
// FIFO would block, a device could act).  Otherwise reports "is a
// directory", "not a regular file" or the system's error on stderr and
// returns false.
bool CheckRegularFile(const std::string& file);

struct FileUse {
  std::string file;
  bool exclusive;  // to change it; otherwise only to read it
};

// flock locks held on descriptors of the command's own, for its whole run;
// they go when the object goes.  Readers share a lock, a writer has its
// file to itself.  The library takes no locks: only kystore processes
// respect these.
class FileLocks {
 public:
  FileLocks() = default;
  ~FileLocks();
  FileLocks(const FileLocks&) = delete;
  FileLocks& operator=(const FileLocks&) = delete;

  // Refuses any of `uses` that is not a regular file, then locks them all,
  // in one fixed order (so that two commands locking the same two files
  // cannot wait for each other) and once per file (the strongest use
  // wins).  Waits up to kLockWaitSeconds for each.  On failure reports on
  // stderr, releases what it took and returns false.
  bool Take(const std::vector<FileUse>& uses);

 private:
  std::vector<int> m_fds;
};

}  // namespace kycli

#endif  // KYSTORE_TOOLS_FILE_LOCK_H_
