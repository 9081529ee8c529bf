// Handle-based file calls in the shape of the Win32 ones, over POSIX.
//
// A HANDLE is an object that owns a descriptor and one file position.  Every
// read and write goes through that position (pread/pwrite at it, then it
// advances), so everything that uses one handle shares one position, as a
// Win32 file handle does, and a positioned transfer costs one system call.
#ifndef KYSTORE_PLATFORM_WIN_FILE_H_
#define KYSTORE_PLATFORM_WIN_FILE_H_

#include <cstddef>

#include "win_types.h"

#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u

#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u

#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u

#define FILE_ATTRIBUTE_DIRECTORY 0x00000010u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u
#define FILE_FLAG_RANDOM_ACCESS 0x10000000u
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFu

#define MOVEFILE_REPLACE_EXISTING 0x00000001u
#define MOVEFILE_WRITE_THROUGH 0x00000008u

#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u

// Opens or creates a regular file.  Returns INVALID_HANDLE_VALUE on failure:
// a missing file for OPEN_EXISTING/TRUNCATE_EXISTING, a directory, a path of
// MAX_PATH characters or more, or a POSIX error.  Share modes, security
// attributes, flags and templates are accepted and ignored.
HANDLE CreateFileA(LPCSTR fileName, DWORD access, DWORD shareMode, void* securityAttributes,
                   DWORD disposition, DWORD flags, HANDLE templateFile);

// Reads up to `toRead` bytes at the handle's position and advances it by the
// count read.  Returns TRUE also when the end of the file cuts the read short
// (then *read < toRead), FALSE on an error or a handle without read access.
BOOL ReadFile(HANDLE file, void* buffer, DWORD toRead, DWORD* read, OVERLAPPED* overlapped);

// Not a Win32 call: reads up to `toRead` bytes at file offset `offset`
// without using or moving the handle's position, for reads the library
// makes on its own behalf while streams rely on that position.  TRUE also
// when the end of the file cuts the read short; FALSE on an error, a
// negative offset or an invalid handle.
BOOL ReadFileAt(HANDLE file, int64_t offset, void* buffer, DWORD toRead, DWORD* read);

// Writes `toWrite` bytes at the handle's position and advances it.  FALSE on
// an error or a handle opened without GENERIC_WRITE.
BOOL WriteFile(HANDLE file, const void* buffer, DWORD toWrite, DWORD* written,
               OVERLAPPED* overlapped);

// Moves the handle's position.  A resulting negative position is refused
// (FALSE, position unchanged); positions past the end of the file are allowed.
BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* newPosition,
                      DWORD moveMethod);

BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size);

// Not a Win32 call: what makes a file the same file under any of its names
// (symbolic links, hard links, relative paths).
struct FileIdentity {
  uint64_t device;
  uint64_t inode;
};
// Fills `id` for the file the handle is open on.  FALSE for an invalid
// handle or when the system cannot tell.
BOOL GetFileIdentity(HANDLE file, FileIdentity* id);
BOOL CloseHandle(HANDLE file);

// Not Win32 calls: gathering writes in memory.  While a handle gathers,
// its writes are kept in memory (up to `limit` bytes, then flushed in offset
// order) and its reads, sizes and FILE_END positions see them; the file
// holds exactly what the same writes would have put there one by one once
// EndWriteBatch, FlushFileBuffers or CloseHandle has flushed them.  Nothing
// else may write the file meanwhile, and other handles over it read what
// is on disk.  Begin on a handle that already gathers keeps its batch.
// FALSE for a handle not open for writing, a zero limit, or no memory.
BOOL BeginWriteBatch(HANDLE file, size_t limit);
// Flushes what is gathered and stops gathering.  FALSE when a write
// failed: the handle then keeps gathering what could not be written.
BOOL EndWriteBatch(HANDLE file);
BOOL WriteBatchActive(HANDLE file);

// Flushes the file's data and metadata to the disk (fsync).  FALSE when the
// system reports that they could not all be written.
BOOL FlushFileBuffers(HANDLE file);

// Gives `existingFile` the name `newFile` in one step (rename(2)): whatever
// happens, `newFile` names either what it named before or the whole moved
// file.  Without MOVEFILE_REPLACE_EXISTING an existing `newFile` is refused.
// With MOVEFILE_WRITE_THROUGH the file is flushed to the disk before the
// rename and its directory after it, so that the move outlives a crash once
// the call returns.  Both names must lie on one file system.  FALSE when the
// file was not moved, or when the flush after the move failed.
BOOL MoveFileExA(LPCSTR existingFile, LPCSTR newFile, DWORD flags);

// Not a Win32 call: gives `target` the permission bits of `source` and, where
// the system allows it, its owner and group.  FALSE when the permission bits
// could not be set.
BOOL CopyFilePermissions(LPCSTR source, LPCSTR target);

// Not a Win32 call: the path of the file itself that `path` reaches through
// symbolic links and relative parts, into `out` (MAX_PATH bytes).  FALSE
// when the file does not exist or its path does not fit.
BOOL ResolveFilePath(LPCSTR path, char* out);

// Copies a regular file; with failIfExists the target must not exist.
BOOL CopyFileA(LPCSTR existingFile, LPCSTR newFile, BOOL failIfExists);
BOOL DeleteFileA(LPCSTR fileName);

// FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_NORMAL, or INVALID_FILE_ATTRIBUTES
// when nothing exists at the path.
DWORD GetFileAttributesA(LPCSTR fileName);

int _unlink(const char* fileName);

#endif  // KYSTORE_PLATFORM_WIN_FILE_H_
