#include "win_file.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "write_batch.h"
#include "write_journal.h"

namespace {

// What a HANDLE points at.  The position lives here, not in the descriptor,
// so that transfers can use pread/pwrite and never need a separate lseek.
struct FileHandle {
  int fd;
  bool writable;
  int64_t position;
  WriteBatch* batch;  // writes gathered in memory, or null
};

FileHandle* AsFile(HANDLE h) {
  if (h == nullptr || h == INVALID_HANDLE_VALUE) return nullptr;
  return static_cast<FileHandle*>(h);
}

bool PathTooLong(LPCSTR name) {
  return name == nullptr || strnlen(name, MAX_PATH) >= MAX_PATH;
}

int OpenFlags(DWORD access, DWORD disposition) {
  int flags = (access & GENERIC_WRITE) ? O_RDWR : O_RDONLY;
  switch (disposition) {
    case CREATE_NEW:
      return flags | O_CREAT | O_EXCL;
    case CREATE_ALWAYS:
      return flags | O_CREAT | O_TRUNC;
    case OPEN_EXISTING:
      return flags;
    case OPEN_ALWAYS:
      return flags | O_CREAT;
    case TRUNCATE_EXISTING:
      // Truncation needs write access, as on Windows.
      return (access & GENERIC_WRITE) ? (flags | O_TRUNC) : -1;
    default:
      return -1;
  }
}

}  // namespace

HANDLE CreateFileA(LPCSTR fileName, DWORD access, DWORD /*shareMode*/, void* /*security*/,
                   DWORD disposition, DWORD /*flags*/, HANDLE /*templateFile*/) {
  if (PathTooLong(fileName) || fileName[0] == '\0') return INVALID_HANDLE_VALUE;
  int flags = OpenFlags(access, disposition);
  if (flags < 0) return INVALID_HANDLE_VALUE;
  // A directory is never a file here; refuse it before anything is created
  // or truncated.
  struct stat st;
  if (stat(fileName, &st) == 0 && !S_ISREG(st.st_mode)) return INVALID_HANDLE_VALUE;
  int fd = open(fileName, flags | O_CLOEXEC, 0666);
  if (fd < 0) return INVALID_HANDLE_VALUE;
  FileHandle* h = new FileHandle{fd, (access & GENERIC_WRITE) != 0, 0, nullptr};
  return h;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD toRead, DWORD* read, OVERLAPPED* /*overlapped*/) {
  FileHandle* h = AsFile(file);
  if (read) *read = 0;
  if (h == nullptr || (buffer == nullptr && toRead != 0)) return FALSE;
  if (h->batch != nullptr) {
    const int64_t n = h->batch->Read(h->fd, h->position, buffer, toRead);
    if (n < 0) return FALSE;
    h->position += n;
    if (read) *read = static_cast<DWORD>(n);
    return TRUE;
  }
  DWORD done = 0;
  while (done < toRead) {
    ssize_t n = pread(h->fd, static_cast<char*>(buffer) + done, toRead - done, h->position);
    if (n < 0) {
      if (errno == EINTR) continue;
      return FALSE;
    }
    if (n == 0) break;  // end of file
    done += static_cast<DWORD>(n);
    h->position += n;
  }
  if (read) *read = done;
  return TRUE;
}

BOOL ReadFileAt(HANDLE file, int64_t offset, void* buffer, DWORD toRead, DWORD* read) {
  FileHandle* h = AsFile(file);
  if (read) *read = 0;
  if (h == nullptr || offset < 0 || (buffer == nullptr && toRead != 0)) return FALSE;
  if (h->batch != nullptr) {
    const int64_t n = h->batch->Read(h->fd, offset, buffer, toRead);
    if (n < 0) return FALSE;
    if (read) *read = static_cast<DWORD>(n);
    return TRUE;
  }
  DWORD done = 0;
  while (done < toRead) {
    int64_t at;
    if (__builtin_add_overflow(offset, static_cast<int64_t>(done), &at)) break;
    ssize_t n = pread(h->fd, static_cast<char*>(buffer) + done, toRead - done, at);
    if (n < 0) {
      if (errno == EINTR) continue;
      return FALSE;
    }
    if (n == 0) break;  // end of file
    done += static_cast<DWORD>(n);
  }
  if (read) *read = done;
  return TRUE;
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD toWrite, DWORD* written,
               OVERLAPPED* /*overlapped*/) {
  FileHandle* h = AsFile(file);
  if (written) *written = 0;
  // An active undo journal saves the bytes this write will overwrite.
  WriteJournalHook journal(h ? h->fd : -1, h ? &h->position : nullptr, toWrite);
  if (!journal.Allowed()) return FALSE;
  if (h == nullptr || !h->writable || (buffer == nullptr && toWrite != 0)) return FALSE;
  if (h->batch != nullptr) {
    int64_t end;
    if (__builtin_add_overflow(h->position, static_cast<int64_t>(toWrite), &end)) return FALSE;
    if (h->batch->WouldOverflow(toWrite) && !h->batch->Flush(h->fd)) return FALSE;
    if (h->batch->FitsAlone(toWrite)) {
      if (!h->batch->Write(h->position, buffer, toWrite)) return FALSE;
      h->position = end;
      if (written) *written = toWrite;
      return TRUE;
    }
    // Too large to gather: written directly, with the batch empty.
  }
  DWORD done = 0;
  while (done < toWrite) {
    ssize_t n = pwrite(h->fd, static_cast<const char*>(buffer) + done, toWrite - done, h->position);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (written) *written = done;
      return FALSE;
    }
    done += static_cast<DWORD>(n);
    h->position += n;
  }
  if (h->batch != nullptr) h->batch->DiskReached(h->position);
  if (written) *written = done;
  return TRUE;
}

BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* newPosition,
                      DWORD moveMethod) {
  FileHandle* h = AsFile(file);
  if (h == nullptr) return FALSE;
  int64_t base;
  switch (moveMethod) {
    case FILE_BEGIN:
      base = 0;
      break;
    case FILE_CURRENT:
      base = h->position;
      break;
    case FILE_END: {
      LARGE_INTEGER size;
      if (!GetFileSizeEx(file, &size)) return FALSE;
      base = size.QuadPart;
      break;
    }
    default:
      return FALSE;
  }
  int64_t target;
  if (__builtin_add_overflow(base, distance.QuadPart, &target) || target < 0) return FALSE;
  h->position = target;
  if (newPosition) newPosition->QuadPart = target;
  return TRUE;
}

BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) {
  FileHandle* h = AsFile(file);
  struct stat st;
  if (h == nullptr || size == nullptr) return FALSE;
  if (h->batch != nullptr) {
    size->QuadPart = h->batch->Size();
    return TRUE;
  }
  if (fstat(h->fd, &st) != 0) return FALSE;
  size->QuadPart = st.st_size;
  return TRUE;
}

BOOL GetFileIdentity(HANDLE file, FileIdentity* id) {
  FileHandle* h = AsFile(file);
  struct stat st;
  if (h == nullptr || id == nullptr || fstat(h->fd, &st) != 0) return FALSE;
  id->device = static_cast<uint64_t>(st.st_dev);
  id->inode = static_cast<uint64_t>(st.st_ino);
  return TRUE;
}

BOOL CloseHandle(HANDLE file) {
  FileHandle* h = AsFile(file);
  if (h == nullptr) return FALSE;
  const BOOL flushed = EndWriteBatch(file);
  delete h->batch;
  int rc = close(h->fd);
  delete h;
  return rc == 0 && flushed ? TRUE : FALSE;
}

BOOL BeginWriteBatch(HANDLE file, size_t limit) {
  FileHandle* h = AsFile(file);
  if (h == nullptr || !h->writable || limit == 0) return FALSE;
  if (h->batch != nullptr) return TRUE;
  struct stat st;
  if (fstat(h->fd, &st) != 0) return FALSE;
  h->batch = new (std::nothrow) WriteBatch(st.st_size, limit);
  return h->batch != nullptr ? TRUE : FALSE;
}

BOOL EndWriteBatch(HANDLE file) {
  FileHandle* h = AsFile(file);
  if (h == nullptr) return FALSE;
  if (h->batch == nullptr) return TRUE;
  // A batch whose bytes cannot be written stays, so that nothing gathered
  // is lost and reads still see it.
  if (!h->batch->Flush(h->fd)) return FALSE;
  delete h->batch;
  h->batch = nullptr;
  return TRUE;
}

BOOL WriteBatchActive(HANDLE file) {
  FileHandle* h = AsFile(file);
  return h != nullptr && h->batch != nullptr ? TRUE : FALSE;
}

BOOL CopyFileA(LPCSTR existingFile, LPCSTR newFile, BOOL failIfExists) {
  HANDLE src = CreateFileA(existingFile, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
  if (src == INVALID_HANDLE_VALUE) return FALSE;
  HANDLE dst =
      CreateFileA(newFile, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                  failIfExists ? CREATE_NEW : CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (dst == INVALID_HANDLE_VALUE) {
    CloseHandle(src);
    return FALSE;
  }
  static const DWORD kChunk = 1u << 20;
  char* buf = new char[kChunk];
  BOOL ok = TRUE;
  for (;;) {
    DWORD got = 0, put = 0;
    if (!ReadFile(src, buf, kChunk, &got, nullptr)) {
      ok = FALSE;
      break;
    }
    if (got == 0) break;
    if (!WriteFile(dst, buf, got, &put, nullptr) || put != got) {
      ok = FALSE;
      break;
    }
  }
  delete[] buf;
  CloseHandle(src);
  if (!CloseHandle(dst)) ok = FALSE;
  return ok;
}

BOOL FlushFileBuffers(HANDLE file) {
  FileHandle* h = AsFile(file);
  if (h == nullptr) return FALSE;
  if (h->batch != nullptr && !h->batch->Flush(h->fd)) return FALSE;
  return fsync(h->fd) == 0 ? TRUE : FALSE;
}

namespace {

// Flushes a file or directory given by name.  File systems that cannot
// flush a directory (EINVAL) have nothing to flush.
bool FlushPath(const char* path, int flags) {
  int fd = open(path, flags | O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fsync(fd) == 0 || ((flags & O_DIRECTORY) && errno == EINVAL);
  close(fd);
  return ok;
}

std::string DirectoryOf(const char* path) {
  const char* slash = strrchr(path, '/');
  if (slash == nullptr) return ".";
  if (slash == path) return "/";
  return std::string(path, static_cast<size_t>(slash - path));
}

}  // namespace

BOOL MoveFileExA(LPCSTR existingFile, LPCSTR newFile, DWORD flags) {
  if (PathTooLong(existingFile) || PathTooLong(newFile)) return FALSE;
  struct stat st;
  // rename(2) always replaces; the check before it is as good as Windows'
  // own for a caller that does not race itself.
  if (!(flags & MOVEFILE_REPLACE_EXISTING) && lstat(newFile, &st) == 0) return FALSE;
  const bool writeThrough = (flags & MOVEFILE_WRITE_THROUGH) != 0;
  if (writeThrough && !FlushPath(existingFile, 0)) return FALSE;
  if (rename(existingFile, newFile) != 0) return FALSE;
  if (writeThrough && !FlushPath(DirectoryOf(newFile).c_str(), O_DIRECTORY)) return FALSE;
  return TRUE;
}

BOOL CopyFilePermissions(LPCSTR source, LPCSTR target) {
  struct stat st;
  if (PathTooLong(source) || PathTooLong(target) || stat(source, &st) != 0) return FALSE;
  // Owner first: changing it may clear the set-id bits that chmod then sets.
  if (chown(target, st.st_uid, st.st_gid) != 0) {
    // Only a privileged process may give a file away; keep our own.
  }
  return chmod(target, st.st_mode & 07777) == 0 ? TRUE : FALSE;
}

BOOL ResolveFilePath(LPCSTR path, char* out) {
  if (PathTooLong(path) || out == nullptr) return FALSE;
  char* resolved = realpath(path, nullptr);
  if (resolved == nullptr) return FALSE;
  const size_t length = strlen(resolved);
  const bool fits = length < MAX_PATH;
  if (fits) memcpy(out, resolved, length + 1);
  free(resolved);
  return fits ? TRUE : FALSE;
}

BOOL DeleteFileA(LPCSTR fileName) {
  if (PathTooLong(fileName)) return FALSE;
  return unlink(fileName) == 0 ? TRUE : FALSE;
}

DWORD GetFileAttributesA(LPCSTR fileName) {
  struct stat st;
  if (PathTooLong(fileName) || stat(fileName, &st) != 0) return INVALID_FILE_ATTRIBUTES;
  return S_ISDIR(st.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
}

int _unlink(const char* fileName) {
  return fileName ? unlink(fileName) : -1;
}
