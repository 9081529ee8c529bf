// kystore mv FILE SRC DST: moves a stream or folder, as the shell's mv
// does: into DST when DST is a folder (keeping its name), else to the name
// DST.  Within one folder it is a rename; between folders a copy made by
// the library followed by the removal of the source, under the change
// session, so that a failure half-way changes nothing.
#include <algorithm>
#include <memory>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "hierarchy/child_slots.h"
#include "kystore.h"
#include "name_text.h"
#include "storage_scan.h"
#include "storage_util.h"
#include "stream_path.h"
#include "tree_walk.h"

namespace kycli {

namespace {

const char kMvSynopsis[] = "kystore mv FILE SRC DST";

struct MvOptions {
  std::string file;
  std::string src;
  std::string dst;
};

bool IsInside(const StreamPath& path, const StreamPath& outer) {
  return path.size() >= outer.size() && std::equal(outer.begin(), outer.end(), path.begin());
}

bool HasChildren(kyStream* folder) {
  __int64 cursor = 0;
  kyStream* child = folder->OpenStreamFirst(&cursor, kModeReadShared);
  if (child == nullptr) return false;
  child->Release();
  return true;
}

// Why `src` may not go to `target`, or "": the refusals of the shell's mv,
// and what the storage cannot hold (damage in the source, nesting deeper
// than the library opens).
std::string Refusal(kyStorage* storage, const MvOptions& opt, const StreamPath& src,
                    const StreamPath& target) {
  if (target == src) return "source and destination are the same";
  if (IsInside(target, src)) return "cannot move a folder into itself";
  StreamChain chain;
  if (!OpenPath(storage, opt.file, src, kModeReadShared, chain)) return "no such stream";
  kyStream* stm = chain.Leaf();
  const bool folder = stm->IsFolder() != 0;
  const PathKind there = ProbePath(storage, target);
  if (there == PathKind::kData && folder) return "cannot overwrite a data stream with a folder";
  if (there == PathKind::kFolder && !folder) return "cannot overwrite a folder with a data stream";
  if (there == PathKind::kFolder) {
    StreamChain old;
    if (OpenPath(storage, opt.file, target, kModeReadShared, old) && HasChildren(old.Leaf()))
      return "folder not empty";
  }
  StorageScan scan;
  std::string error;
  if (!ScanStorage(opt.file, scan, error)) return error;
  TreeWalk walk(scan, StreamPath(src.begin(), src.end() - 1));
  walk.Add(stm, 0);
  if (!walk.Problems().empty())
    return PrintableName(JoinPath(walk.Problems().front().path)) + ": " +
           walk.Problems().front().message;
  if (target.size() + walk.Height() > static_cast<size_t>(kMaxFolderDepth))
    return "the move would nest deeper than " + std::to_string(kMaxFolderDepth) + " levels";
  return "";
}

// Removes the stream `name` of `parent` (null: a root stream).
bool RemoveChild(kyStorage* storage, kyStream* parent, const std::string& name) {
  kyStream* stm = OpenChild(storage, parent, name, kModeReadWriteShared);
  if (stm == nullptr) return false;
  if (stm->Remove()) return true;
  stm->Release();
  return false;
}

// Copies the opened `src` into `copy`, a new stream of the same kind.
// CopyStream and CopyFolder count an empty data stream as a failed copy,
// so an empty source is a success here.
bool CopyInto(kyStream* src, kyStream* copy) {
  if (src->IsFolder()) return src->CopyFolder(copy) || !HasChildren(src);
  return src->CopyStream(copy) || src->GetLength() == 0;
}

// Records the move: the replaced target removed, the tree `moved` under
// its new name, then the old name removed (a replay has no rename).
bool Record(ChangeRecording& rec, kyStorage* storage, const MvOptions& opt, const StreamPath& src,
            const StreamPath& target, StreamChain& parents, bool replaced, kyStream* moved) {
  rec.EnterChain(parents);
  if (replaced) rec.Remove(target.back(), parents.Leaf());
  rec.Enter(moved);
  const bool ok = rec.WriteTree(moved);
  rec.Leave(moved);
  rec.LeaveChain(parents);
  StreamChain srcParents;
  if (!OpenPath(storage, opt.file, StreamPath(src.begin(), src.end() - 1), kModeReadWriteShared,
                srcParents))
    return false;
  rec.EnterChain(srcParents);
  rec.Remove(src.back(), srcParents.Leaf());
  rec.LeaveChain(srcParents);
  return ok;
}

int Move(const MvOptions& opt, const StreamPath& src, const StreamPath& dst) {
  OpenedStorage storage(opt.file, true);
  if (!storage) return kExitFailure;
  StreamPath target = dst;
  if (dst.empty() || ProbePath(storage.get(), dst) == PathKind::kFolder)
    target.push_back(src.back());
  const std::string refusal = Refusal(storage.get(), opt, src, target);
  if (!refusal.empty()) {
    if (refusal != "no such stream") ComplainAbout(opt.file, src, refusal);
    return kExitFailure;
  }
  const StreamPath from(src.begin(), src.end() - 1), to(target.begin(), target.end() - 1);
  StreamChain parents;  // the folder the stream goes into
  if (!OpenPath(storage.get(), opt.file, to, kModeReadWriteShared, parents)) return kExitFailure;
  if (!parents.LeafIsFolder()) {
    ComplainAbout(opt.file, to, "not a folder");
    return kExitFailure;
  }
  const bool replaced = ProbePath(storage.get(), target) != PathKind::kMissing;
  if (replaced && !RemoveChild(storage.get(), parents.Leaf(), target.back())) {
    ComplainAbout(opt.file, target, WithWriteError("cannot remove"));
    return kExitFailure;
  }
  // The stream under its new name: the renamed source itself (the root's
  // name map does not know a renamed root stream yet), or the copy.
  StreamChain chain;
  if (!OpenPath(storage.get(), opt.file, src, kModeReadWriteShared, chain)) return kExitFailure;
  kyStream* moved = chain.Leaf();
  StreamPtr copy;
  if (from != to) {
    copy.reset(CreateChild(storage.get(), parents.Leaf(), target.back(), moved->IsFolder() != 0,
                           moved->GetDuration()));
    moved = copy.get();
  }
  const bool done = from == to ? moved->Rename(target.back().c_str())
                               : moved != nullptr && CopyInto(chain.Leaf(), moved);
  if (!done) {
    ComplainAbout(opt.file, target, WithWriteError("cannot move there"));
    return kExitFailure;
  }
  CPathLoader loader;
  if (from != to) {
    chain.ReleaseAll();  // the removal opens the source's children itself
    if (!loader.DeleteStreamByPath(storage.get(), CString(JoinPath(src).c_str()))) {
      ComplainAbout(opt.file, src, WithWriteError("cannot remove"));
      return kExitFailure;
    }
  }
  ChangeRecording* rec = ActiveRecording();
  if (rec != nullptr && !Record(*rec, storage.get(), opt, src, target, parents, replaced, moved)) {
    ComplainAbout(opt.file, target, "cannot read the stream to record it");
    return kExitFailure;
  }
  return kExitOk;
}

int RunMv(const MvOptions& opt) {
  StreamPath src;
  if (!ParsePathArgument(opt.src, kMvSynopsis, src)) return kExitUsage;
  const StreamPath dst = SplitPath(opt.dst);  // empty: the root
  std::string problem;
  if (!CheckPath(dst, problem)) return UsageError(kMvSynopsis, problem);
  return RunChanging(
      opt.file, {}, [&] { return Move(opt, src, dst); }, true);
}

}  // namespace

Command RegisterMv(CLI::App& app, int& status) {
  auto opt = std::make_shared<MvOptions>();
  CLI::App* sub = app.add_subcommand(
      "mv", "Move or rename a stream or folder: into DST when it is a folder, else to DST");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("SRC", opt->src, "The stream or folder to move")->required();
  sub->add_option("DST", opt->dst, "A folder to move it into ('/': the root), or its new path")
      ->required();
  sub->callback([opt, &status] { status = RunMv(*opt); });
  return {sub, kMvSynopsis};
}

}  // namespace kycli
