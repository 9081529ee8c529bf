// Writes gathered in memory and put into the file later, in offset order.
//
// A storage that creates many small streams writes a handful of small
// pieces per stream: a slot, a block header, the data, a length.  Gathered
// here, those pieces cost a copy each instead of a system call each, and
// reach the file as a few large writes.  The file ends up holding exactly
// the bytes the same writes would have put there one by one.
//
// The batch keeps non-overlapping extents keyed by offset; a write merges
// with every extent it overlaps and with the one it continues, its own
// bytes winning.  Reads see the file as it will be: the bytes on disk, zeros for
// any gap between the end on disk and a gathered extent (as a write past
// the end leaves), and the gathered bytes over both.
//
// Used by one handle, on one thread, with nothing else writing the file.
#ifndef KYSTORE_PLATFORM_WRITE_BATCH_H_
#define KYSTORE_PLATFORM_WRITE_BATCH_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

class WriteBatch {
 public:
  // `diskSize`: the file's size when gathering starts.  `limit`: the
  // gathered bytes after which the holder flushes.
  WriteBatch(int64_t diskSize, size_t limit) : m_diskSize(diskSize), m_limit(limit) {}

  // True when `count` more bytes would take the batch past its limit: the
  // holder flushes first, or writes directly when `count` alone is larger.
  bool WouldOverflow(size_t count) const { return m_gathered + count > m_limit; }
  bool FitsAlone(size_t count) const { return count <= m_limit; }

  // Gathers `count` bytes for `offset`.  False when memory runs out; the
  // batch is then as it was.
  bool Write(int64_t offset, const void* data, size_t count);

  // Reads up to `count` bytes at `offset` of the file as it will be, taking
  // what is not gathered from `fd`.  Returns the number of bytes read (short
  // only at the end), or -1 when the disk read fails.
  int64_t Read(int fd, int64_t offset, void* out, size_t count) const;

  // The size the file will have.
  int64_t Size() const;

  // Writes every extent to `fd` in offset order and forgets it.  False when
  // a write fails: the extents not yet written stay gathered.
  bool Flush(int fd);

  // The file's size on disk as far as the batch knows; after a direct write
  // the holder tells it how far the file now reaches.
  void DiskReached(int64_t end) {
    if (end > m_diskSize) m_diskSize = end;
  }

 private:
  int64_t ReadDisk(int fd, int64_t offset, char* out, size_t count) const;

  std::map<int64_t, std::string> m_extents;
  int64_t m_diskSize;
  size_t m_limit;
  size_t m_gathered = 0;
  std::string m_spare;  // the largest buffer flushed so far, empty
};

#endif  // KYSTORE_PLATFORM_WRITE_BATCH_H_
