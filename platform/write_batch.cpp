#include "write_batch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <unistd.h>

namespace {

int64_t EndOf(const std::pair<const int64_t, std::string>& extent) {
  return extent.first + static_cast<int64_t>(extent.second.size());
}

}  // namespace

bool WriteBatch::Write(int64_t offset, const void* data, size_t count) {
  if (count == 0) return true;
  const int64_t end = offset + static_cast<int64_t>(count);
  // The extents the write joins, [first, last): those it overlaps, and the
  // one it continues (ending at `offset`), so that appends grow one extent.
  // An extent that merely starts at `end` stays apart: joining it would
  // copy it, and it is most often the large one appends go to.
  auto first = m_extents.upper_bound(offset);
  if (first != m_extents.begin() && EndOf(*std::prev(first)) >= offset) --first;
  auto last = first;
  size_t before = 0;
  for (; last != m_extents.end() && last->first < end; ++last) before += last->second.size();

  try {
    if (first == last) {
      std::string bytes;
      // An extent that starts at the file's end is where appends will go:
      // it gets room for the whole batch at once (the buffer of the last
      // flush when there is one), so that it never moves while it grows.
      if (offset >= Size()) {
        if (m_spare.capacity() >= m_limit) {
          bytes.swap(m_spare);
        } else {
          bytes.reserve(m_limit);
        }
      }
      bytes.assign(static_cast<const char*>(data), count);
      m_extents.emplace_hint(first, offset, std::move(bytes));
      m_gathered += count;
      return true;
    }
    if (std::next(first) == last && offset == EndOf(*first)) {
      // Appending to one extent, the commonest write of all.
      first->second.append(static_cast<const char*>(data), count);
      m_gathered += count;
      return true;
    }
    const int64_t start = std::min(first->first, offset);
    const size_t size = static_cast<size_t>(std::max(end, EndOf(*std::prev(last))) - start);
    if (first->first == start) {
      // Most writes land inside or right after one extent: it grows in
      // place (a failed resize leaves it as it was).
      std::string& merged = first->second;
      merged.resize(size);
      for (auto it = std::next(first); it != last; ++it)
        memcpy(&merged[static_cast<size_t>(it->first - start)], it->second.data(),
               it->second.size());
      memcpy(&merged[static_cast<size_t>(offset - start)], data, count);
      m_extents.erase(std::next(first), last);
    } else {
      std::string merged(size, '\0');
      for (auto it = first; it != last; ++it)
        memcpy(&merged[static_cast<size_t>(it->first - start)], it->second.data(),
               it->second.size());
      memcpy(&merged[static_cast<size_t>(offset - start)], data, count);
      m_extents.emplace_hint(first, start, std::move(merged));
      m_extents.erase(first, last);
    }
    m_gathered = m_gathered - before + size;
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

int64_t WriteBatch::Size() const {
  if (m_extents.empty()) return m_diskSize;
  return std::max(m_diskSize, EndOf(*m_extents.rbegin()));
}

// Disk bytes of [offset, offset + count), zeros where the disk ends.
int64_t WriteBatch::ReadDisk(int fd, int64_t offset, char* out, size_t count) const {
  size_t done = 0;
  while (done < count && offset + static_cast<int64_t>(done) < m_diskSize) {
    const ssize_t n = pread(fd, out + done, count - done, offset + static_cast<int64_t>(done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  memset(out + done, 0, count - done);
  return static_cast<int64_t>(count);
}

int64_t WriteBatch::Read(int fd, int64_t offset, void* out, size_t count) const {
  const int64_t size = Size();
  if (offset >= size) return 0;
  count = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(count), size - offset));
  const int64_t end = offset + static_cast<int64_t>(count);
  char* bytes = static_cast<char*>(out);
  auto it = m_extents.upper_bound(offset);
  if (it != m_extents.begin() && EndOf(*std::prev(it)) > offset) --it;
  // Wholly gathered: no disk read at all.
  if (it != m_extents.end() && it->first <= offset && EndOf(*it) >= end) {
    memcpy(bytes, it->second.data() + (offset - it->first), count);
    return static_cast<int64_t>(count);
  }
  if (ReadDisk(fd, offset, bytes, count) < 0) return -1;
  for (; it != m_extents.end() && it->first < end; ++it) {
    const int64_t from = std::max(offset, it->first);
    const int64_t to = std::min(end, EndOf(*it));
    if (from < to)
      memcpy(bytes + (from - offset), it->second.data() + (from - it->first),
             static_cast<size_t>(to - from));
  }
  return static_cast<int64_t>(count);
}

bool WriteBatch::Flush(int fd) {
  while (!m_extents.empty()) {
    auto extent = m_extents.begin();
    const std::string& bytes = extent->second;
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = pwrite(fd, bytes.data() + done, bytes.size() - done,
                               extent->first + static_cast<int64_t>(done));
      if (n < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      done += static_cast<size_t>(n);
    }
    DiskReached(EndOf(*extent));
    m_gathered -= bytes.size();
    if (bytes.capacity() > m_spare.capacity()) {
      m_spare.swap(extent->second);
      m_spare.clear();
    }
    m_extents.erase(extent);
  }
  return true;
}
