#include "write_journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

WriteJournal* WriteJournal::s_current = nullptr;

namespace {

// Saved pieces are read and written back in chunks of this size, so that a
// large region never needs its whole size in one buffer.
const int64_t kChunk = int64_t(1) << 20;

bool ReadFully(int fd, char* buf, int64_t count, int64_t offset) {
  while (count > 0) {
    ssize_t n = pread(fd, buf, static_cast<size_t>(count), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;  // the file is shorter than it was
      return false;
    }
    buf += n;
    count -= n;
    offset += n;
  }
  return true;
}

bool WriteFully(int fd, const char* buf, int64_t count, int64_t offset) {
  while (count > 0) {
    ssize_t n = pwrite(fd, buf, static_cast<size_t>(count), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    buf += n;
    count -= n;
    offset += n;
  }
  return true;
}

}  // namespace

WriteJournal::~WriteJournal() {
  if (IsActive()) RollBack();
}

bool WriteJournal::Begin(const char* path, int64_t memoryLimit) {
  if (s_current != nullptr) {
    errno = EBUSY;
    return false;
  }
  int fd = open(path, O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat st;
  const bool isFile = fstat(fd, &st) == 0;
  if (!isFile || !S_ISREG(st.st_mode)) {
    int err = isFile ? EINVAL : errno;
    close(fd);
    errno = err;
    return false;
  }
  m_fd = fd;
  m_device = st.st_dev;
  m_inode = st.st_ino;
  m_startSize = st.st_size;
  m_memoryLimit = memoryLimit < 0 ? 0 : memoryLimit;
  m_writeError = 0;
  s_current = this;
  return true;
}

bool WriteJournal::Watches(int fd) const {
  struct stat st;
  return fd >= 0 && fstat(fd, &st) == 0 && st.st_dev == m_device && st.st_ino == m_inode;
}

bool WriteJournal::Save(int64_t offset, int64_t count) {
  if (!IsActive() || count <= 0 || offset >= m_startSize) return true;
  if (offset < 0) {
    errno = EINVAL;
    return false;
  }
  int64_t end;
  if (__builtin_add_overflow(offset, count, &end) || end > m_startSize) end = m_startSize;
  // Each byte is saved once, when it is first overwritten: that copy is the
  // original; later writes over it change nothing the roll back needs.
  int64_t pos = offset;
  while (pos < end) {
    auto next = m_covered.upper_bound(pos);
    if (next != m_covered.begin()) {
      auto prev = std::prev(next);
      if (prev->second > pos) {
        pos = prev->second;
        continue;
      }
    }
    const int64_t gapEnd = next == m_covered.end() ? end : std::min(end, next->first);
    for (int64_t at = pos; at < gapEnd; at += kChunk)
      if (!SavePiece(at, std::min(kChunk, gapEnd - at))) return false;
    m_covered[pos] = gapEnd;
    pos = gapEnd;
  }
  return true;
}

bool WriteJournal::SavePiece(int64_t offset, int64_t length) {
  Region region = {offset, length, 0, false};
  if (static_cast<int64_t>(m_memory.size()) + length <= m_memoryLimit) {
    region.where = static_cast<int64_t>(m_memory.size());
    m_memory.resize(m_memory.size() + static_cast<size_t>(length));
    if (!ReadFully(m_fd, m_memory.data() + region.where, length, offset)) {
      int err = errno;
      m_memory.resize(static_cast<size_t>(region.where));
      errno = err;
      return false;
    }
  } else {
    if (m_spillFd < 0 && !OpenSpillFile()) return false;
    std::vector<char> buf(static_cast<size_t>(length));
    if (!ReadFully(m_fd, buf.data(), length, offset) ||
        !WriteFully(m_spillFd, buf.data(), length, m_spillSize))
      return false;
    region.where = m_spillSize;
    region.spilled = true;
    m_spillSize += length;
  }
  m_regions.push_back(region);
  m_savedBytes += length;
  return true;
}

// The temporary file is unlinked at once: it goes away with the process
// whatever happens to it.
bool WriteJournal::OpenSpillFile() {
  const char* dir = getenv("TMPDIR");
  std::string name =
      std::string(dir != nullptr && dir[0] != '\0' ? dir : "/tmp") + "/kystore-journal-XXXXXX";
  int fd = mkstemp(&name[0]);
  if (fd < 0) return false;
  unlink(name.c_str());
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  m_spillFd = fd;
  return true;
}

bool WriteJournal::WriteBack(const Region& region) {
  if (!region.spilled)
    return WriteFully(m_fd, m_memory.data() + region.where, region.length, region.offset);
  std::vector<char> buf(static_cast<size_t>(region.length));
  return ReadFully(m_spillFd, buf.data(), region.length, region.where) &&
         WriteFully(m_fd, buf.data(), region.length, region.offset);
}

bool WriteJournal::RollBack() {
  if (!IsActive()) return true;
  s_current = nullptr;
  // Cutting the file first gives back what the change appended, so that
  // writing the old bytes back cannot run out of room on a full disk.
  bool ok = ftruncate(m_fd, static_cast<off_t>(m_startSize)) == 0;
  int err = ok ? 0 : errno;
  for (auto it = m_regions.rbegin(); it != m_regions.rend(); ++it) {
    if (!WriteBack(*it) && err == 0) err = errno;
  }
  if (fsync(m_fd) != 0 && err == 0) err = errno;
  End();
  errno = err;
  return err == 0;
}

void WriteJournal::Commit() {
  if (!IsActive()) return;
  s_current = nullptr;
  End();
}

void WriteJournal::End() {
  if (s_current == this) s_current = nullptr;
  if (m_fd >= 0) close(m_fd);
  if (m_spillFd >= 0) close(m_spillFd);
  m_fd = m_spillFd = -1;
  m_regions.clear();
  m_covered.clear();
  std::vector<char>().swap(m_memory);
  m_spillSize = 0;
  m_savedBytes = 0;
}

void WriteJournalHook::Enter(int fd) {
  WriteJournal* journal = WriteJournal::s_current;
  if (!journal->Watches(fd)) return;
  m_start = *m_position;
  if (!journal->Save(m_start, m_count)) {
    if (journal->m_writeError == 0) journal->m_writeError = errno != 0 ? errno : EIO;
    m_allowed = false;
    return;
  }
  // Cleared so that Leave reads the errno of the write itself.
  errno = 0;
  m_journal = journal;
}

void WriteJournalHook::Leave() {
  const int err = errno;
  if (*m_position - m_start < static_cast<int64_t>(m_count) && err != 0 &&
      m_journal->m_writeError == 0)
    m_journal->m_writeError = err;
  errno = err;
}
