#include "file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "commands.h"

namespace kycli {

namespace {

struct OpenedFile {
  std::string file;
  int fd;
  dev_t device;
  ino_t inode;
  bool exclusive;
};

double SecondsSince(const timespec& start) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec - start.tv_sec) +
         static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9;
}

// Tries the lock again every few milliseconds rather than blocking, so that
// the wait has an end; false with errno EWOULDBLOCK when the time is up.
bool WaitForLock(int fd, bool exclusive) {
  const int operation = (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
  const timespec pause = {0, 10 * 1000 * 1000};
  timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (;;) {
    if (flock(fd, operation) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    if (SecondsSince(start) >= kLockWaitSeconds) {
      errno = EWOULDBLOCK;
      return false;
    }
    nanosleep(&pause, nullptr);
  }
}

void CloseAll(std::vector<OpenedFile>& files) {
  for (const OpenedFile& f : files) close(f.fd);
  files.clear();
}

// Opens `use.file` for the lock; O_NONBLOCK so that a file swapped for a
// FIFO after the check cannot make the open wait.
bool OpenForLock(const FileUse& use, OpenedFile& opened) {
  if (!CheckRegularFile(use.file)) return false;
  int fd = open(use.file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    Complain(use.file, strerror(errno));
    return false;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    Complain(use.file, "not a regular file");
    return false;
  }
  opened = {use.file, fd, st.st_dev, st.st_ino, use.exclusive};
  return true;
}

}  // namespace

bool CheckRegularFile(const std::string& file) {
  struct stat st;
  if (stat(file.c_str(), &st) != 0) {
    Complain(file, strerror(errno));
    return false;
  }
  if (S_ISREG(st.st_mode)) return true;
  Complain(file, S_ISDIR(st.st_mode) ? "is a directory" : "not a regular file");
  return false;
}

FileLocks::~FileLocks() {
  for (int fd : m_fds) close(fd);
}

bool FileLocks::Take(const std::vector<FileUse>& uses) {
  std::vector<OpenedFile> files;
  for (const FileUse& use : uses) {
    OpenedFile opened;
    if (!OpenForLock(use, opened)) {
      CloseAll(files);
      return false;
    }
    // Two locks on one file would wait for each other.
    auto same = std::find_if(files.begin(), files.end(), [&opened](const OpenedFile& f) {
      return f.device == opened.device && f.inode == opened.inode;
    });
    if (same == files.end()) {
      files.push_back(opened);
      continue;
    }
    same->exclusive = same->exclusive || opened.exclusive;
    close(opened.fd);
  }
  std::sort(files.begin(), files.end(), [](const OpenedFile& a, const OpenedFile& b) {
    return a.device != b.device ? a.device < b.device : a.inode < b.inode;
  });
  for (const OpenedFile& f : files) {
    if (WaitForLock(f.fd, f.exclusive)) continue;
    Complain(f.file, errno == EWOULDBLOCK ? "locked by another process (gave up after " +
                                                std::to_string(kLockWaitSeconds) + " seconds)"
                                          : std::string(strerror(errno)));
    CloseAll(files);
    return false;
  }
  for (const OpenedFile& f : files) m_fds.push_back(f.fd);
  return true;
}

}  // namespace kycli
