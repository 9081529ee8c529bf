// kystore mkdir [-p] FILE PATH: creates a folder.
#include <memory>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kMkdirSynopsis[] = "kystore mkdir [-p] FILE PATH";

struct MkdirOptions {
  std::string file;
  std::string path;
  bool parents = false;
};

// -p: every missing folder along the path is made, and an existing folder
// is not an error, as with the shell's mkdir -p.
int MakeWithParents(kyStorage* storage, const StreamPath& path, const std::string& file) {
  StreamChain chain;
  if (!OpenOrCreatePath(storage, file, path, true, chain)) return kExitFailure;
  if (ChangeRecording* rec = ActiveRecording()) {
    rec->EnterChain(chain);
    rec->LeaveChain(chain);
  }
  return kExitOk;
}

int MakeOne(kyStorage* storage, const StreamPath& path, const std::string& file) {
  StreamPath parentPath(path.begin(), path.end() - 1);
  StreamChain chain;
  if (!OpenPath(storage, file, parentPath, kModeReadWriteShared, chain)) return kExitFailure;
  if (!chain.LeafIsFolder()) {
    ComplainAbout(file, parentPath, "not a folder");
    return kExitFailure;
  }
  if (kyStream* existing = OpenChild(storage, chain.Leaf(), path.back(), kModeReadShared)) {
    existing->Release();
    ComplainAbout(file, path, "exists");
    return kExitFailure;
  }
  kyStream* folder = CreateChild(storage, chain.Leaf(), path.back(), true);
  if (folder == nullptr) {
    ComplainAbout(file, path, WithWriteError("cannot create the folder"));
    return kExitFailure;
  }
  if (ChangeRecording* rec = ActiveRecording()) {
    rec->EnterChain(chain);
    rec->Enter(folder);
    rec->Leave(folder);
    rec->LeaveChain(chain);
  }
  folder->Release();
  return kExitOk;
}

int Make(const MkdirOptions& opt, const StreamPath& path) {
  OpenedStorage storage(opt.file, true);
  if (!storage) return kExitFailure;
  if (opt.parents) return MakeWithParents(storage.get(), path, opt.file);
  return MakeOne(storage.get(), path, opt.file);
}

int RunMkdir(const MkdirOptions& opt) {
  StreamPath path;
  if (!ParsePathArgument(opt.path, kMkdirSynopsis, path)) return kExitUsage;
  return RunChanging(
      opt.file, {}, [&] { return Make(opt, path); }, true);
}

}  // namespace

Command RegisterMkdir(CLI::App& app, int& status) {
  auto opt = std::make_shared<MkdirOptions>();
  CLI::App* sub = app.add_subcommand("mkdir", "Create a folder");
  sub->add_flag("-p,--parents", opt->parents,
                "Create missing folders on the way; an existing folder is no error");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The folder to create, e.g. Top/Mid")->required();
  sub->callback([opt, &status] { status = RunMkdir(*opt); });
  return {sub, kMkdirSynopsis};
}

}  // namespace kycli
