// kystore import [--width 32|64] DIR FILE [PATH]: makes the directories
// and files under DIR folders and data streams of a storage, as `tar c`
// packs them; the storage is made when FILE is missing.
//
// DIR is walked, and everything in it that cannot become a stream refused,
// before the storage is touched.  A new storage is filled under a
// temporary name beside FILE and linked into place only when it is whole
// and on disk; an existing one is changed under the journal of a changing
// command, so a failure half-way leaves it as it was.
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "file_lock.h"
#include "hierarchy/child_slots.h"
#include "host_tree.h"
#include "kystore.h"
#include "name_text.h"
#include "storage_scan.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kImportSynopsis[] = "kystore import [--width 32|64] DIR FILE [PATH]";

struct ImportOptions {
  std::string dir, file, path;
  int width = 0;  // 0: not given (a new storage gets 64-bit offsets)
  StreamPath target;
};

std::string Subject(const ImportOptions& opt, const StreamPath& below) {
  StreamPath full = opt.target;
  full.insert(full.end(), below.begin(), below.end());
  return opt.file + ": " + PrintableName(JoinPath(full));
}

// Copies the host file `source`, `size` bytes when it was walked, into the
// new data stream `stm`.  A file that has shrunk since is refused; one that
// has grown is taken as it was.
bool CopyFileIn(const std::string& source, int64_t size, kyStream* stm,
                const std::string& subject) {
  const int fd = open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    Complain(PrintableName(source), fd < 0 ? strerror(errno) : "is no longer a regular file");
    if (fd >= 0) close(fd);
    return false;
  }
  std::vector<char> buf(1 << 20);
  std::string problem;
  for (int64_t done = 0; problem.empty() && done < size;) {
    const size_t want = size - done < static_cast<int64_t>(buf.size())
                            ? static_cast<size_t>(size - done)
                            : buf.size();
    const ssize_t got = read(fd, buf.data(), want);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      Complain(PrintableName(source),
               got < 0 ? strerror(errno) : "has shrunk since it was checked");
      problem = "-";
    } else if (stm->Write(buf.data(), got, true) != got) {
      problem = WithWriteError("cannot write the data");
    } else if (Interrupted()) {
      problem = "-";
    }
    done += got;
  }
  close(fd);
  if (!problem.empty() && problem != "-") Complain(subject, problem);
  return problem.empty();
}

// Releases the innermost folder first, as a child points at its parent.
class FolderStack {
 public:
  ~FolderStack() {
    while (!m_folders.empty()) Pop();
  }
  size_t Size() const { return m_folders.size(); }
  kyStream* Top() const { return m_folders.back(); }
  void Push(kyStream* stm) { m_folders.push_back(stm); }
  void Pop() {
    m_folders.back()->Release();
    m_folders.pop_back();
  }

 private:
  std::vector<kyStream*> m_folders;
};

// Makes the walked entries below `top` (null: the storage's root).
bool MakeEntries(kyStorage* storage, kyStream* top, const ImportOptions& opt,
                 const HostTree& tree) {
  FolderStack folders;  // folders.Top() holds entries one level below it
  for (const HostEntry& e : tree.entries) {
    while (folders.Size() >= e.path.size()) folders.Pop();
    kyStream* parent = folders.Size() == 0 ? top : folders.Top();
    kyStream* stm = CreateChild(storage, parent, e.path.back(), e.folder);
    if (stm == nullptr) {
      Complain(Subject(opt, e.path), WithWriteError("cannot create the stream"));
      return false;
    }
    if (e.folder) {
      folders.Push(stm);
      continue;
    }
    StreamPtr data(stm);
    if (!CopyFileIn(opt.dir + "/" + JoinPath(e.path), e.size, stm, Subject(opt, e.path)))
      return false;
  }
  return true;
}

// Whether the storage can grow by the data of `tree`.
bool CheckRoom(const ImportOptions& opt, bool offsets64, int64_t fileSize, const HostTree& tree) {
  const int64_t limit = offsets64 ? kyStorage::g_iMaxTolvarSize : 0xFFFFFFFFLL;
  if (tree.dataBytes <= limit - fileSize) return true;
  Complain(opt.file, "the files hold " + std::to_string(tree.dataBytes) +
                         " bytes, more than the storage can grow by (its largest size is " +
                         std::to_string(limit) + " bytes)");
  return false;
}

// In an existing storage the import goes into a new folder PATH (its
// missing parents are made) or, without PATH, beside the root streams: a
// name that is there already is refused, as nothing is merged into or
// written over.
bool CheckTarget(kyStorage* storage, const ImportOptions& opt, const HostTree& tree) {
  if (opt.target.empty()) {
    bool ok = true;
    for (const HostEntry& e : tree.entries) {
      if (e.path.size() != 1) continue;
      StreamPtr there(OpenChild(storage, nullptr, e.path[0], kModeReadShared));
      if (!there) continue;
      Complain(Subject(opt, e.path), "exists (import does not write over streams)");
      ok = false;
    }
    return ok;
  }
  StreamChain chain;
  for (size_t i = 0; i < opt.target.size(); ++i) {
    if (!chain.LeafIsFolder()) {
      ComplainAbout(opt.file, StreamPath(opt.target.begin(), opt.target.begin() + i),
                    "not a folder");
      return false;
    }
    if (!chain.OpenBelow(storage, opt.target[i], false)) return true;
  }
  ComplainAbout(opt.file, opt.target,
                "exists (import makes a new folder: name one that is not there)");
  return false;
}

// Makes PATH (when given) and the entries in the open `storage`.
bool Fill(kyStorage* storage, const ImportOptions& opt, const HostTree& tree) {
  StreamChain chain;
  if (!opt.target.empty() && !OpenOrCreatePath(storage, opt.file, opt.target, true, chain))
    return false;
  return MakeEntries(storage, chain.Leaf(), opt, tree);
}

int ImportIntoExisting(const ImportOptions& opt, const HostTree& tree) {
  StorageScan scan;
  std::string error;
  if (!ScanStorage(opt.file, scan, error)) {
    Complain(opt.file, error);
    return kExitFailure;
  }
  if (opt.width != 0 && opt.width != (scan.offsets64 ? 64 : 32)) {
    Complain(opt.file, "has " + std::string(scan.offsets64 ? "64" : "32") +
                           "-bit offsets; --width chooses the width of a new storage only");
    return kExitFailure;
  }
  if (!CheckRoom(opt, scan.offsets64, scan.fileSize, tree)) return kExitFailure;
  return RunChanging(opt.file, {}, [&] {
    OpenedStorage storage(opt.file, true);
    if (!storage || !CheckTarget(storage.get(), opt, tree)) return kExitFailure;
    return Fill(storage.get(), opt, tree) ? kExitOk : kExitFailure;
  });
}

struct StorageCloser {
  void operator()(kyStorage* s) const {
    if (s != nullptr) s->Release();
  }
};

// Makes the new storage in the empty file `temp` and fills it.
int FillNew(const ImportOptions& opt, const std::string& temp, const HostTree& tree) {
  const int saved = kyStorage::g_bUse64BitOffsets;
  kyStorage::g_bUse64BitOffsets = opt.width == 32 ? 0 : 1;
  std::unique_ptr<kyStorage, StorageCloser> storage(
      kyStorage::Create(temp.c_str(), kModeReadWriteShared, 4096));
  kyStorage::g_bUse64BitOffsets = saved;
  if (!storage) {
    Complain(opt.file, WithWriteError("cannot create the storage"));
    return kExitFailure;
  }
  return Fill(storage.get(), opt, tree) ? kExitOk : kExitFailure;
}

// Flushes the whole `temp` to disk and gives it the name `file`, which
// must still be free: a file that appeared there meanwhile is left alone.
bool PutInPlace(const std::string& temp, const std::string& file) {
  const int fd = open(temp.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || fsync(fd) != 0) {
    Complain(file, std::string("cannot flush the new storage: ") + strerror(errno));
    if (fd >= 0) close(fd);
    return false;
  }
  close(fd);
  // link() never replaces a file; where links are not supported, a rename
  // after a last look is the next best.
  bool placed = link(temp.c_str(), file.c_str()) == 0;
  if (placed) {
    unlink(temp.c_str());
  } else if (errno != EEXIST) {
    struct stat st;
    placed =
        lstat(file.c_str(), &st) != 0 && errno == ENOENT && rename(temp.c_str(), file.c_str()) == 0;
    if (!placed && errno != ENOENT) errno = EEXIST;
  }
  if (!placed) {
    Complain(file, errno == EEXIST ? "a file of this name appeared meanwhile; it was left alone"
                                   : strerror(errno));
    return false;
  }
  std::string dir = file;
  const int dfd = open(dirname(&dir[0]), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) fsync(dfd), close(dfd);  // the new name on disk too, where it can be
  return true;
}

int ImportIntoNew(const ImportOptions& opt, const HostTree& tree) {
  if (!CheckRoom(opt, opt.width != 32, 0, tree)) return kExitFailure;
  std::string temp;
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < 100; ++attempt) {
    temp = opt.file + ".import-" + std::to_string(getpid()) + "-" + std::to_string(attempt);
    if (temp.size() >= MAX_PATH) {
      Complain(opt.file, "path too long (with a temporary suffix, at most " +
                             std::to_string(MAX_PATH - 1) + " characters)");
      return kExitFailure;
    }
    fd = open(temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0 && errno != EEXIST) break;
  }
  struct stat made;
  if (fd < 0 || fstat(fd, &made) != 0) {
    Complain(opt.file, std::string("cannot create the storage: ") + strerror(errno));
    if (fd >= 0) close(fd), unlink(temp.c_str());
    return kExitFailure;
  }
  close(fd);
  int status = RunChanging(temp, {}, [&] { return FillNew(opt, temp, tree); });
  if (status == kExitOk && !PutInPlace(temp, opt.file)) status = kExitFailure;
  struct stat now;
  if (status != kExitOk && stat(temp.c_str(), &now) == 0 && now.st_dev == made.st_dev &&
      now.st_ino == made.st_ino)
    unlink(temp.c_str());
  return status;
}

int RunImport(ImportOptions& opt) {
  // A replay of the recording would miss the import: refuse rather than
  // leave a recording that looks complete and is not.
  if (!RecordFile().empty())
    return UsageError(kImportSynopsis, "import is not recorded; run it without --record");
  if (!opt.path.empty() && !ParsePathArgument(opt.path, kImportSynopsis, opt.target))
    return kExitUsage;
  struct stat st;
  const bool exists = stat(opt.file.c_str(), &st) == 0;
  if (exists ? !CheckRegularFile(opt.file) : errno != ENOENT) {
    if (!exists) Complain(opt.file, strerror(errno));
    return kExitFailure;
  }
  HostTree tree;
  WalkHostTree(opt.dir, kMaxFolderDepth - static_cast<int>(opt.target.size()),
               exists ? st.st_dev : 0, exists ? st.st_ino : 0, tree);
  for (const std::string& p : tree.problems) Complain(p);
  if (!tree.problems.empty()) {
    Complain(opt.dir, "nothing was imported");
    return kExitFailure;
  }
  return exists ? ImportIntoExisting(opt, tree) : ImportIntoNew(opt, tree);
}

}  // namespace

Command RegisterImport(CLI::App& app, int& status) {
  auto opt = std::make_shared<ImportOptions>();
  CLI::App* sub = app.add_subcommand(
      "import", "Store a directory tree as folders and streams, making the storage when missing");
  sub->add_option("--width", opt->width, "Offset width of a new storage: 32 or 64 (default 64)")
      ->check(CLI::IsMember({32, 64}));
  sub->add_option("DIR", opt->dir, "The directory to import")->required();
  sub->add_option("FILE", opt->file, "The storage file (made when missing)")->required();
  sub->add_option("PATH", opt->path,
                  "A new folder to import into (default: beside the root streams)");
  sub->callback([opt, &status] { status = RunImport(*opt); });
  return {sub, kImportSynopsis};
}

}  // namespace kycli
