// An undo journal for one file, kept by the process that changes it.
//
// While a journal is active, WriteFile first saves the bytes that a write
// on a handle of the journalled file is about to overwrite: only bytes
// below the size the file had when the journal began, and each byte once.
// RollBack puts them back and cuts the file to its old size, so that a
// change that failed half-way leaves the file byte for byte as it was;
// Commit keeps the change and forgets the saved bytes.  Saved bytes stay
// in memory up to a limit and go to an unlinked temporary file beyond it,
// so that overwriting a large stream does not need its size in memory.
//
// One journal at a time per process, used on one thread with the writes it
// watches.  The journal lives in the process: a crash or a kill in the
// middle of a change is not undone.
#ifndef KYSTORE_PLATFORM_WRITE_JOURNAL_H_
#define KYSTORE_PLATFORM_WRITE_JOURNAL_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <vector>

class WriteJournal {
 public:
  static const int64_t kDefaultMemoryLimit = int64_t(4) << 20;

  WriteJournal() = default;
  // A journal still active is rolled back: a change that was never
  // declared good is not kept.
  ~WriteJournal();
  WriteJournal(const WriteJournal&) = delete;
  WriteJournal& operator=(const WriteJournal&) = delete;

  // Starts journalling the regular file at `path`, remembering its size.
  // Saved bytes beyond `memoryLimit` spill into a file under $TMPDIR (or
  // /tmp).  False with errno set when the file cannot be opened for reading
  // and writing, is not a regular file (EINVAL), or another journal is
  // active (EBUSY).
  bool Begin(const char* path, int64_t memoryLimit = kDefaultMemoryLimit);

  // Saves the bytes of [offset, offset + count) that lie below the starting
  // size and are not saved yet.  WriteFile calls this itself; a caller that
  // changes the file by other means (pwrite, ftruncate) calls it first.
  // False with errno set when they cannot be read or kept.
  bool Save(int64_t offset, int64_t count);

  // Cuts the file to its starting size, writes every saved region back
  // (newest first) and flushes the file to disk; the journal then ends.
  // False with errno set when any step fails: the file may then differ.
  bool RollBack();

  // Keeps the changes and ends the journal.
  void Commit();

  bool IsActive() const { return m_fd >= 0; }
  int64_t StartSize() const { return m_startSize; }
  // errno of the first write on the file that failed (or that was refused
  // because its bytes could not be saved) while the journal was active; 0
  // when none failed.
  int WriteError() const { return m_writeError; }
  // Bytes saved so far, and how many of them went to the temporary file.
  int64_t SavedBytes() const { return m_savedBytes; }
  int64_t SpilledBytes() const { return m_spillSize; }

  // The active journal, or null.
  static WriteJournal* Current() { return s_current; }

 private:
  friend class WriteJournalHook;

  struct Region {
    int64_t offset;  // where the bytes lay in the file
    int64_t length;
    int64_t where;  // index in m_memory, or offset in the spill file
    bool spilled;
  };

  // Whether the descriptor is open on the journalled file.
  bool Watches(int fd) const;
  bool SavePiece(int64_t offset, int64_t length);
  bool OpenSpillFile();
  bool WriteBack(const Region& region);
  void End();

  static WriteJournal* s_current;

  int m_fd = -1;  // our own descriptor on the file, read and write
  dev_t m_device = 0;
  ino_t m_inode = 0;
  int64_t m_startSize = 0;
  int64_t m_memoryLimit = 0;
  std::vector<Region> m_regions;         // in the order they were saved
  std::map<int64_t, int64_t> m_covered;  // saved ranges: start -> end
  std::vector<char> m_memory;
  int m_spillFd = -1;
  int64_t m_spillSize = 0;
  int64_t m_savedBytes = 0;
  int m_writeError = 0;
};

// Stands at the top of WriteFile for the length of one call: saves what
// the write is about to overwrite, refuses the write (Allowed false) when
// that fails, and notes the errno of a write that comes short.  With no
// journal active it costs one pointer test.
class WriteJournalHook {
 public:
  // `position` is where the write starts; it advances as bytes go out.
  WriteJournalHook(int fd, const int64_t* position, uint32_t count)
      : m_position(position), m_count(count) {
    if (WriteJournal::s_current != nullptr && position != nullptr) Enter(fd);
  }
  ~WriteJournalHook() {
    if (m_journal != nullptr) Leave();
  }
  WriteJournalHook(const WriteJournalHook&) = delete;
  WriteJournalHook& operator=(const WriteJournalHook&) = delete;

  bool Allowed() const { return m_allowed; }

 private:
  void Enter(int fd);
  void Leave();

  WriteJournal* m_journal = nullptr;  // set while this write is watched
  const int64_t* m_position;
  int64_t m_start = 0;
  uint32_t m_count;
  bool m_allowed = true;
};

#endif  // KYSTORE_PLATFORM_WRITE_JOURNAL_H_
