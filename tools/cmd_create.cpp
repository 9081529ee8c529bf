// kystore create [--32] [-f] FILE: makes a new, empty storage file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "change_session.h"
#include "commands.h"
#include "file_lock.h"
#include "kystore.h"
#include "platform/write_journal.h"

namespace kycli {

namespace {

struct CreateOptions {
  std::string file;
  bool offsets32 = false;
  bool force = false;
};

// Makes a storage at `path` through the library, with the offset width
// asked for.
kyStorage* CreateStorage(const std::string& path, bool offsets32) {
  int saved = kyStorage::g_bUse64BitOffsets;
  kyStorage::g_bUse64BitOffsets = offsets32 ? 0 : 1;
  kyStorage* storage = kyStorage::Create(path.c_str(), kModeReadWriteShared, 4096);
  kyStorage::g_bUse64BitOffsets = saved;
  return storage;
}

bool ReadWholeFile(int fd, std::vector<char>& bytes) {
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  bytes.resize(static_cast<size_t>(st.st_size));
  return pread(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
}

// The bytes of an empty storage, made by the library in a temporary file
// (under $TMPDIR, else /tmp): the library creates storages only at a path,
// and a failed creation removes the file it was given.
bool EmptyStorageImage(bool offsets32, std::vector<char>& image, std::string& error) {
  const char* dir = getenv("TMPDIR");
  std::string name =
      std::string(dir != nullptr && dir[0] != '\0' ? dir : "/tmp") + "/kystore-create-XXXXXX";
  int fd = mkstemp(&name[0]);
  if (fd < 0) {
    error = strerror(errno);
    return false;
  }
  errno = 0;
  kyStorage* storage = CreateStorage(name, offsets32);
  bool ok = storage != nullptr;
  if (ok) storage->Release();
  if (!ok) error = errno != 0 ? strerror(errno) : "cannot create the storage";
  if (ok && !ReadWholeFile(fd, image)) {
    ok = false;
    error = strerror(errno);
  }
  close(fd);
  unlink(name.c_str());
  return ok;
}

bool WriteAt(int fd, const std::vector<char>& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Writes the new storage over the old file in place (the file keeps its
// inode, owner, mode and links).  The bytes overwritten are saved in the
// journal first; the old tail goes last, by a truncation after which
// nothing can fail, so it need not be saved.
int ReplaceContents(const std::string& file, const std::vector<char>& image) {
  int fd = open(file.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
  bool ok = fd >= 0 && WriteJournal::Current() != nullptr &&
            WriteJournal::Current()->Save(0, static_cast<int64_t>(image.size())) &&
            WriteAt(fd, image) && ftruncate(fd, static_cast<off_t>(image.size())) == 0;
  int err = errno;
  if (fd >= 0) close(fd);
  if (ok) return kExitOk;
  Complain(file, std::string("cannot create the storage: ") + strerror(err));
  return kExitFailure;
}

int Replace(const CreateOptions& opt) {
  if (!CheckRegularFile(opt.file)) return kExitFailure;
  std::vector<char> image;
  std::string error;
  if (!EmptyStorageImage(opt.offsets32, image, error)) {
    Complain(opt.file, "cannot create the storage: " + error);
    return kExitFailure;
  }
  return RunChanging(opt.file, {}, [&] { return ReplaceContents(opt.file, image); });
}

// A new file is made first, exclusively, so that it is locked like any
// storage while the library fills it; when that fails it is removed again.
int CreateNew(const CreateOptions& opt) {
  int fd = open(opt.file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666);
  if (fd < 0 && errno == EEXIST && opt.force) return Replace(opt);
  if (fd < 0) {
    Complain(opt.file,
             errno == EEXIST ? "file exists (use --force to replace it)" : strerror(errno));
    return kExitFailure;
  }
  struct stat made;
  fstat(fd, &made);
  close(fd);
  int status = RunChanging(opt.file, {}, [&] {
    kyStorage* storage = CreateStorage(opt.file, opt.offsets32);
    if (storage == nullptr) {
      Complain(opt.file, WithWriteError("cannot create the storage"));
      return kExitFailure;
    }
    storage->Release();
    return kExitOk;
  });
  struct stat now;
  if (status != kExitOk && stat(opt.file.c_str(), &now) == 0 && now.st_dev == made.st_dev &&
      now.st_ino == made.st_ino)
    unlink(opt.file.c_str());
  return status;
}

int RunCreate(const CreateOptions& opt) {
  if (opt.file.size() >= MAX_PATH) {
    Complain(opt.file, "path too long (at most 259 bytes)");
    return kExitFailure;
  }
  // Creating a storage empties whatever file has the name; without --force
  // an existing file is left alone, so a typo cannot wipe out a storage.
  struct stat st;
  if (stat(opt.file.c_str(), &st) != 0) return CreateNew(opt);
  if (!opt.force) {
    Complain(opt.file, "file exists (use --force to replace it)");
    return kExitFailure;
  }
  return Replace(opt);
}

}  // namespace

Command RegisterCreate(CLI::App& app, int& status) {
  auto opt = std::make_shared<CreateOptions>();
  CLI::App* sub = app.add_subcommand("create", "Create a new, empty storage file");
  sub->add_flag("--32", opt->offsets32, "Use 32-bit file offsets (the default is 64-bit)");
  sub->add_flag("-f,--force", opt->force, "Replace an existing file");
  sub->add_option("FILE", opt->file, "The storage file to create")->required();
  sub->callback([opt, &status] { status = RunCreate(*opt); });
  return {sub, "kystore create [--32] [-f] FILE"};
}

}  // namespace kycli
