// kystore export FILE [PATH] DIR: writes the storage's streams (or those
// of the folder PATH) under DIR, folders as directories and data streams
// as files holding their exact bytes, as `tar x` does with an archive.
//
// The whole tree is walked and every name checked before the first
// directory is made, so a storage that cannot be written out here leaves
// no trace; a write that fails later (a full disk) removes what the export
// made.  The storage is only read.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "name_text.h"
#include "storage_scan.h"
#include "storage_util.h"
#include "stream_path.h"
#include "tree_walk.h"

namespace kycli {

namespace {

const char kExportSynopsis[] = "kystore export FILE [PATH] DIR";

struct ExportOptions {
  std::vector<std::string> args;  // FILE [PATH] DIR
  std::string file, dir;
  StreamPath path;  // empty: the whole storage
};

// One stream to write out, in the order of the walk (a folder before what
// it holds).
struct Exported {
  StreamPath path;  // from the storage's root
  size_t skip;      // leading names that are not part of the output path
  bool folder;
  std::string OutputPath(const std::string& dir) const {
    std::string out = dir;
    for (size_t i = skip; i < path.size(); ++i) out += "/" + path[i];
    return out;
  }
};

// Why `name` cannot name a file or directory here, or "".
std::string FileNameProblem(const std::string& name) {
  if (name.empty()) return "an empty name cannot be a file name";
  if (name == "." || name == "..") return "'" + name + "' cannot be a file name";
  if (name.find('/') != std::string::npos) return "a file name cannot hold '/'";
  return "";
}

// Walks the tree below `top` (or every root stream when `top` is null) and
// lists what to write, checking every name.  Damage and names that cannot
// be written out are reported; false then.
bool PlanExport(kyStorage* storage, kyStream* top, const ExportOptions& opt,
                std::vector<Exported>& plan) {
  StorageScan scan;
  std::string error;
  if (!ScanStorage(opt.file, scan, error)) {
    Complain(opt.file, error);
    return false;
  }
  TreeWalk walk(scan,
                top == nullptr ? StreamPath() : StreamPath(opt.path.begin(), opt.path.end() - 1));
  if (top == nullptr)
    walk.Roots(storage);
  else
    walk.Add(top, 0);
  for (const TreeProblem& p : walk.Problems())
    Complain(opt.file, PrintableName(JoinPath(p.path)) + ": " + p.message);
  bool ok = walk.Problems().empty();
  // Lines come in walk order with their depth; the path is rebuilt from it.
  const size_t base = top == nullptr ? 0 : opt.path.size() - 1;
  StreamPath at(opt.path.begin(), opt.path.begin() + base);
  std::set<StreamPath> seen;
  for (const TreeLine& line : walk.Lines()) {
    at.resize(base + line.depth);
    at.push_back(line.name);
    if (top != nullptr && line.depth == 0) continue;  // DIR itself stands for PATH
    const Exported e = {at, opt.path.size(), line.folder};
    std::string problem = FileNameProblem(line.name);
    if (problem.empty() && !seen.insert(at).second) problem = "the folder holds this name twice";
    if (problem.empty() && e.OutputPath(opt.dir).size() >= PATH_MAX)
      problem = "the file's path would be longer than this system allows";
    if (!problem.empty()) {
      Complain(opt.file, PrintableName(JoinPath(at)) + ": " + problem);
      ok = false;
    }
    plan.push_back(e);
  }
  return ok;
}

// Whether DIR can take the export: missing (it is made) or an empty
// directory.  Anything in it could be overwritten or mixed with the
// storage's files, so a directory that holds anything is refused.
bool CheckOutputDir(const std::string& dir, bool& exists) {
  struct stat st;
  exists = stat(dir.c_str(), &st) == 0;
  if (!exists) return errno == ENOENT || (Complain(dir, strerror(errno)), false);
  if (!S_ISDIR(st.st_mode)) {
    Complain(dir, "exists and is not a directory");
    return false;
  }
  std::unique_ptr<::DIR, int (*)(::DIR*)> d(opendir(dir.c_str()), closedir);
  if (!d) {
    Complain(dir, strerror(errno));
    return false;
  }
  errno = 0;
  for (struct dirent* e = readdir(d.get()); e != nullptr; e = readdir(d.get())) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    Complain(dir, "is not empty (export writes into a new or an empty directory)");
    return false;
  }
  return true;
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Copies the data stream `e` into the new file `out`; reports failures.
// `created` tells whether the file was made (and is the export's to remove).
bool WriteStreamFile(kyStorage* storage, const ExportOptions& opt, const Exported& e,
                     const std::string& out, bool& created) {
  StreamChain chain;
  if (!OpenPath(storage, opt.file, e.path, kModeReadShared, chain)) return false;
  kyStream* stm = chain.Leaf();
  const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) {
    Complain(PrintableName(out), strerror(errno));
    return false;
  }
  created = true;
  const int64_t length = stm->GetLength();
  std::vector<char> buf(1 << 20);
  bool ok = length == 0 || stm->Seek(0, 0, true) == 0;
  std::string problem = ok ? "" : "cannot read the stream";
  for (int64_t done = 0; ok && done < length;) {
    const int64_t want =
        length - done < static_cast<int64_t>(buf.size()) ? length - done : buf.size();
    ok = stm->Read(buf.data(), want) == want;
    if (!ok) problem = "cannot read the stream past byte " + std::to_string(done);
    ok = ok && WriteAll(fd, buf.data(), static_cast<size_t>(want));
    if (!ok && problem.empty()) problem = strerror(errno);
    done += want;
  }
  if (close(fd) != 0 && ok) problem = strerror(errno), ok = false;
  if (!ok) Complain(PrintableName(out), problem);
  return ok;
}

// Writes the plan out; on a failure removes what it made, newest first.
int WriteOut(kyStorage* storage, const ExportOptions& opt, const std::vector<Exported>& plan,
             bool dirExisted) {
  std::vector<std::pair<std::string, bool>> made;  // path, is a directory
  bool ok = dirExisted || mkdir(opt.dir.c_str(), 0777) == 0;
  if (!ok) Complain(opt.dir, strerror(errno));
  for (size_t i = 0; ok && i < plan.size(); ++i) {
    const std::string out = plan[i].OutputPath(opt.dir);
    bool created = false;
    if (plan[i].folder) {
      ok = created = mkdir(out.c_str(), 0777) == 0;
      if (!ok) Complain(PrintableName(out), strerror(errno));
    } else {
      ok = WriteStreamFile(storage, opt, plan[i], out, created);
    }
    if (created) made.push_back({out, plan[i].folder});
  }
  if (ok) return kExitOk;
  for (auto it = made.rbegin(); it != made.rend(); ++it)
    it->second ? rmdir(it->first.c_str()) : unlink(it->first.c_str());
  if (!dirExisted) rmdir(opt.dir.c_str());
  Complain(opt.dir, "export failed; what it had written was removed");
  return kExitFailure;
}

int Export(const ExportOptions& opt) {
  OpenedStorage storage(opt.file, false);
  if (!storage) return kExitFailure;
  StreamChain chain;
  if (!opt.path.empty()) {
    if (!OpenPath(storage.get(), opt.file, opt.path, kModeReadShared, chain)) return kExitFailure;
    if (!chain.Leaf()->IsFolder()) {
      ComplainAbout(opt.file, opt.path, "not a folder ('kystore cat' writes out one stream)");
      return kExitFailure;
    }
  }
  std::vector<Exported> plan;
  bool dirExists = false;
  if (!PlanExport(storage.get(), chain.Leaf(), opt, plan) || !CheckOutputDir(opt.dir, dirExists))
    return kExitFailure;
  return WriteOut(storage.get(), opt, plan, dirExists);
}

int RunExport(ExportOptions& opt) {
  if (opt.args.size() < 2 || opt.args.size() > 3)
    return UsageError(kExportSynopsis, "export takes FILE, an optional PATH and DIR");
  opt.file = opt.args.front();
  opt.dir = opt.args.back();
  if (opt.args.size() == 3 && !ParsePathArgument(opt.args[1], kExportSynopsis, opt.path))
    return kExitUsage;
  return RunReading({opt.file}, [&] { return Export(opt); });
}

}  // namespace

Command RegisterExport(CLI::App& app, int& status) {
  auto opt = std::make_shared<ExportOptions>();
  CLI::App* sub = app.add_subcommand(
      "export", "Write a storage (or a folder) out as directories and files under DIR");
  sub->add_option("FILE PATH DIR", opt->args,
                  "The storage file, optionally a folder in it, and the directory to write "
                  "(made when missing; it must be empty)")
      ->required()
      ->expected(2, 3);
  sub->callback([opt, &status] { status = RunExport(*opt); });
  return {sub, kExportSynopsis};
}

}  // namespace kycli
