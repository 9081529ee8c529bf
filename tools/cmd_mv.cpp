// kystore mv FILE PATH NEWNAME: renames a stream or folder in place.
#include <memory>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kMvSynopsis[] = "kystore mv FILE PATH NEWNAME";

struct MvOptions {
  std::string file;
  std::string path;
  std::string newName;
};

// Whether the folder holding the stream (the root when `parent` is null)
// already has a stream called `name`.
bool SiblingExists(kyStorage* storage, kyStream* parent, const std::string& name) {
  if (parent == nullptr) {
    kyStream* other = storage->OpenStream(name.c_str(), kModeReadShared);
    if (other == nullptr) return false;
    other->Release();
    return true;
  }
  t_kyStreamU header;
  tag_kyStreamOffset offset = {0, 0, 0, 0};
  return parent->FindStream(name.c_str(), header, offset);
}

int Rename(const MvOptions& opt, const StreamPath& path) {
  OpenedPath opened(opt.file, path, true);
  if (!opened) return kExitFailure;
  // Renaming does not look at the siblings; two streams of one name would
  // hide one of them, so an existing name is refused here.
  if (SiblingExists(opened.Storage(), opened.Chain().Parent(), opt.newName)) {
    StreamPath target(path.begin(), path.end() - 1);
    target.push_back(opt.newName);
    ComplainAbout(opt.file, target, "exists");
    return kExitFailure;
  }
  kyStream* stm = opened.Leaf();
  if (!stm->Rename(opt.newName.c_str())) {
    ComplainAbout(opt.file, path, WithWriteError("cannot rename"));
    return kExitFailure;
  }
  // Recorded as a copy of the tree under the new name, then the removal of
  // the old name: a replay has no rename.
  if (ChangeRecording* rec = ActiveRecording()) {
    const StreamChain& chain = opened.Chain();
    rec->EnterChain(chain);
    const bool ok = rec->WriteTree(stm);
    rec->Leave(stm);
    rec->Remove(path.back(), chain.Parent());
    rec->LeaveChain(chain, chain.Depth() - 1);
    if (!ok) {
      ComplainAbout(opt.file, path, "cannot read the stream to record it");
      return kExitFailure;
    }
  }
  return kExitOk;
}

int RunMv(const MvOptions& opt) {
  StreamPath path;
  if (!ParsePathArgument(opt.path, kMvSynopsis, path)) return kExitUsage;
  if (opt.newName.find('/') != std::string::npos)
    return UsageError(kMvSynopsis, "'" + opt.newName + "': NEWNAME is a name, not a path");
  std::string problem;
  if (!CheckPath({opt.newName}, problem)) return UsageError(kMvSynopsis, problem);
  if (opt.newName == path.back()) return kExitOk;
  return RunChanging(
      opt.file, {}, [&] { return Rename(opt, path); }, true);
}

}  // namespace

Command RegisterMv(CLI::App& app, int& status) {
  auto opt = std::make_shared<MvOptions>();
  CLI::App* sub = app.add_subcommand("mv", "Rename a stream or folder within its folder");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The stream or folder to rename")->required();
  sub->add_option("NEWNAME", opt->newName, "Its new name (1 to 60 characters)")->required();
  sub->callback([opt, &status] { status = RunMv(*opt); });
  return {sub, kMvSynopsis};
}

}  // namespace kycli
