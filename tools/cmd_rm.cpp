// kystore rm [-r] FILE PATH: removes a stream, or a folder with -r when it
// is not empty.
#include <memory>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kRmSynopsis[] = "kystore rm [-r] FILE PATH";

struct RmOptions {
  std::string file;
  std::string path;
  bool recursive = false;
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

int Remove(const RmOptions& opt, const StreamPath& path) {
  OpenedStorage storage(opt.file, true);
  if (!storage || !MayRemove(storage.get(), opt, path)) return kExitFailure;
  // The folders above stay open for the recording; they do not keep the
  // stream from going.
  StreamChain parents;
  if (!OpenPath(storage.get(), opt.file, StreamPath(path.begin(), path.end() - 1),
                kModeReadWriteShared, parents))
    return kExitFailure;
  CPathLoader loader;
  if (!loader.DeleteStreamByPath(storage.get(), CString(JoinPath(path).c_str()))) {
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

int RunRm(const RmOptions& opt) {
  StreamPath path;
  if (!ParsePathArgument(opt.path, kRmSynopsis, path)) return kExitUsage;
  return RunChanging(
      opt.file, {}, [&] { return Remove(opt, path); }, true);
}

}  // namespace

Command RegisterRm(CLI::App& app, int& status) {
  auto opt = std::make_shared<RmOptions>();
  CLI::App* sub = app.add_subcommand("rm", "Remove a stream or a folder");
  sub->add_flag("-r,--recursive", opt->recursive, "Remove a folder with everything in it");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The stream or folder to remove")->required();
  sub->callback([opt, &status] { status = RunRm(*opt); });
  return {sub, kRmSynopsis};
}

}  // namespace kycli
