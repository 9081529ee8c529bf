// kystore rm [-r] [-f] FILE PATH...: removes streams, and folders with -r
// when they are not empty; with -f a missing name is no error.  All of them
// go or, when one cannot, none does.
#include <memory>
#include <vector>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kRmSynopsis[] = "kystore rm [-r] [-f] FILE PATH...";

struct RmOptions {
  std::string file;
  std::vector<std::string> paths;
  bool recursive = false;
  bool force = false;
};

bool HasChildren(kyStream* folder) {
  long long cursor = 0;
  kyStream* child = folder->OpenStreamFirst(&cursor, kModeReadShared);
  if (child == nullptr) return false;
  child->Release();
  return true;
}

// Checks the stream before it goes: it must exist and, like the shell's
// rm, a folder with something in it goes only with -r.
bool MayRemove(kyStorage* storage, const RmOptions& opt, const StreamPath& path) {
  StreamChain chain;
  if (!OpenPath(storage, opt.file, path, kModeReadShared, chain)) return false;
  kyStream* stm = chain.Leaf();
  if (!opt.recursive && stm->IsFolder() && HasChildren(stm)) {
    ComplainAbout(opt.file, path, "folder not empty (use -r)");
    return false;
  }
  return true;
}

int RemoveOne(kyStorage* storage, const RmOptions& opt, const StreamPath& path) {
  if (opt.force && ProbePath(storage, path) == PathKind::kMissing) return kExitOk;
  if (!MayRemove(storage, opt, path)) return kExitFailure;
  // The folders above stay open for the recording; they do not keep the
  // stream from going.
  StreamChain parents;
  if (!OpenPath(storage, opt.file, StreamPath(path.begin(), path.end() - 1), kModeReadWriteShared,
                parents))
    return kExitFailure;
  CPathLoader loader;
  if (!loader.DeleteStreamByPath(storage, CString(JoinPath(path).c_str()))) {
    ComplainAbout(opt.file, path, WithWriteError("cannot remove"));
    return kExitFailure;
  }
  if (ChangeRecording* rec = ActiveRecording()) {
    rec->EnterChain(parents);
    rec->Remove(path.back(), parents.Leaf());
    rec->LeaveChain(parents);
  }
  return kExitOk;
}

// One storage object removes every path in turn; the first failure ends
// the command and the session puts the file back as it was.
int Remove(const RmOptions& opt, const std::vector<StreamPath>& paths) {
  OpenedStorage storage(opt.file, true);
  if (!storage) return kExitFailure;
  for (const StreamPath& path : paths)
    if (RemoveOne(storage.get(), opt, path) != kExitOk) return kExitFailure;
  return kExitOk;
}

int RunRm(const RmOptions& opt) {
  std::vector<StreamPath> paths(opt.paths.size());
  for (size_t i = 0; i < paths.size(); ++i)
    if (!ParsePathArgument(opt.paths[i], kRmSynopsis, paths[i])) return kExitUsage;
  return RunChanging(
      opt.file, {}, [&] { return Remove(opt, paths); }, true);
}

}  // namespace

Command RegisterRm(CLI::App& app, int& status) {
  auto opt = std::make_shared<RmOptions>();
  CLI::App* sub = app.add_subcommand("rm", "Remove a stream or a folder");
  sub->add_flag("-r,--recursive", opt->recursive, "Remove a folder with everything in it");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_flag("-f,--force", opt->force, "A missing name is no error");
  sub->add_option("PATH", opt->paths, "The streams or folders to remove")->required();
  sub->callback([opt, &status] { status = RunRm(*opt); });
  return {sub, kRmSynopsis};
}

}  // namespace kycli
