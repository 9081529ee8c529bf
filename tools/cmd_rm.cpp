// kystore rm [-r] FILE PATH: removes a stream, or a folder with -r when it
// is not empty.
#include <memory>

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

int Remove(const RmOptions& opt, const StreamPath& path) {
  OpenedPath opened(opt.file, path, true);
  if (!opened) return kExitFailure;
  kyStream* stm = opened.Leaf();
  // Like the shell's rm, a folder with something in it goes only with -r.
  if (!opt.recursive && stm->IsFolder() && HasChildren(stm)) {
    ComplainAbout(opt.file, path, "folder not empty (use -r)");
    return kExitFailure;
  }
  if (!stm->Remove()) {
    ComplainAbout(opt.file, path, WithWriteError("cannot remove"));
    return kExitFailure;
  }
  opened.Chain().DropLeaf();  // Remove has destroyed the object
  return kExitOk;
}

int RunRm(const RmOptions& opt) {
  StreamPath path;
  if (!ParsePathArgument(opt.path, kRmSynopsis, path)) return kExitUsage;
  return RunChanging(opt.file, {}, [&] { return Remove(opt, path); });
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
