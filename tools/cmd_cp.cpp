// kystore cp SRC_FILE SRC_PATH DST_FILE DST_PATH: copies a stream, or a
// whole folder, into a storage (the same one or another).  DST_PATH is where
// the copy goes: a folder merges into an existing folder there.  The root
// ('/') stands for the folder of the root streams: as a source, every root
// stream is copied into DST_PATH; as the destination, a folder's streams
// are copied into the root, and a data stream goes there under its name.
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <set>
#include <vector>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "hierarchy/child_slots.h"
#include "kystore.h"
#include "name_text.h"
#include "storage_util.h"
#include "storage_scan.h"
#include "stream_path.h"
#include "tree_walk.h"

namespace kycli {

namespace {

const char kCpSynopsis[] = "kystore cp SRC_FILE SRC_PATH DST_FILE DST_PATH";

struct CpOptions {
  std::string srcFile;
  std::string srcPath;
  std::string dstFile;
  std::string dstPath;
};

bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

// Whether `path` names `outer` or something below it.
bool IsInside(const StreamPath& path, const StreamPath& outer) {
  return path.size() >= outer.size() && std::equal(outer.begin(), outer.end(), path.begin());
}

// Whether every stream below `src` has a counterpart of the same kind and
// length below `dst`.  CopyFolder counts an empty source stream as a failed
// copy (there is nothing to copy, and the destination has been emptied),
// so its result alone cannot tell a complete copy of such a folder.
bool CopyMatches(kyStream* src, kyStream* dst, int depth) {
  if (depth > kMaxFolderDepth) return false;  // deeper than the library opens
  long long cursor = 0;
  for (kyStream* child = src->OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = src->OpenStreamNext(&cursor, kModeReadShared)) {
    kyStream* copy = dst->OpenStream(child->GetName(), kModeReadShared);
    bool same = copy != nullptr && copy->IsFolder() == child->IsFolder() &&
                (child->IsFolder() ? CopyMatches(child, copy, depth + 1)
                                   : copy->GetLength() == child->GetLength());
    if (copy != nullptr) copy->Release();
    child->Release();
    if (!same) return false;
  }
  return true;
}

// The paths (below `rel`) of the folders below `src` that will replace a
// data stream of the same name below `dst`: the recording removes those
// first, as a replay would otherwise enter the data stream.
void FoldersReplacingData(kyStream* src, kyStream* dst, const std::string& rel,
                          std::set<std::string>& out) {
  __int64 cursor = 0;
  for (kyStream* child = src->OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = src->OpenStreamNext(&cursor, kModeReadShared)) {
    kyStream* old =
        child->IsFolder() ? dst->OpenStream(child->GetName(), kModeReadShared) : nullptr;
    const std::string path = rel + child->GetName();
    if (old != nullptr && !old->IsFolder()) out.insert(path);
    if (old != nullptr && old->IsFolder()) FoldersReplacingData(child, old, path + "/", out);
    if (old != nullptr) old->Release();
    child->Release();
  }
}

// Records the copies of the children of `src` found below `dst` after the
// copy.  A data stream is recorded as removed and made again, so that the
// replay neither keeps a longer old length nor writes into a folder.
bool RecordCopied(ChangeRecording& rec, kyStream* src, kyStream* dst, const std::string& rel,
                  const std::set<std::string>& replacing) {
  __int64 cursor = 0;
  for (kyStream* child = src->OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = src->OpenStreamNext(&cursor, kModeReadShared)) {
    const std::string path = rel + child->GetName();
    StreamPtr copy(dst->OpenStream(child->GetName(), kModeReadShared));
    bool ok = copy != nullptr;
    if (ok && (!child->IsFolder() || replacing.count(path) > 0)) rec.Remove(child->GetName(), dst);
    if (ok) rec.Enter(copy.get());
    ok = ok && (child->IsFolder() ? RecordCopied(rec, child, copy.get(), path + "/", replacing)
                                  : rec.WriteData(copy.get()));
    if (copy) rec.Leave(copy.get());
    child->Release();
    if (!ok) return false;
  }
  return true;
}

bool RecordCopy(ChangeRecording& rec, kyStream* src, const StreamChain& chain,
                const std::set<std::string>& replacing) {
  kyStream* leaf = chain.Leaf();
  if (src->IsFolder()) {
    rec.EnterChain(chain);
    const bool ok = RecordCopied(rec, src, leaf, "", replacing);
    rec.LeaveChain(chain);
    return ok;
  }
  rec.EnterChain(chain, chain.Depth() - 1);
  rec.Remove(leaf->GetName(), chain.Parent());
  rec.Enter(leaf);
  const bool ok = rec.WriteData(leaf);
  rec.Leave(leaf);
  rec.LeaveChain(chain, chain.Depth() - 1);
  return ok;
}

// Copies the opened source into `dstPath` of `dst`, made like the source
// (folder or data stream) when it does not exist.  A folder merges into an
// existing folder as CopyFolder does.
int CopyInto(kyStream* src, kyStorage* dst, const StreamPath& dstPath, const std::string& dstFile) {
  bool folder = src->IsFolder() != 0;
  StreamChain chain;
  if (!OpenOrCreatePath(dst, dstFile, dstPath, folder, chain)) return kExitFailure;
  ChangeRecording* rec = ActiveRecording();
  std::set<std::string> replacing;
  if (rec != nullptr && folder) FoldersReplacingData(src, chain.Leaf(), "", replacing);
  if (folder) {
    // CopyFolder refuses a destination inside the source itself.
    if (!src->CopyFolder(chain.Leaf()) && !CopyMatches(src, chain.Leaf(), 0)) {
      ComplainAbout(dstFile, dstPath, WithWriteError("the folder was not copied completely"));
      return kExitFailure;
    }
  } else if (!src->CopyStream(chain.Leaf()) && src->GetLength() > 0) {
    // CopyStream reports an empty source as a failure after emptying the
    // destination, which is what copying an empty stream means.
    ComplainAbout(dstFile, dstPath, WithWriteError("the stream was not copied completely"));
    return kExitFailure;
  }
  if (rec != nullptr && !RecordCopy(*rec, src, chain, replacing)) {
    ComplainAbout(dstFile, dstPath, "cannot read the copy back to record it");
    return kExitFailure;
  }
  return kExitOk;
}

// Walks the whole source before anything is written: damage in it is
// reported (with the path where it lies) and refused, and so is a tree
// that would nest deeper at the destination than the library opens.
bool CheckSource(kyStream* src, const CpOptions& opt, const StreamPath& srcPath,
                 const StreamPath& dstPath) {
  StorageScan scan;
  std::string error;
  if (!ScanStorage(opt.srcFile, scan, error)) {
    Complain(opt.srcFile, error);
    return false;
  }
  TreeWalk walk(scan, StreamPath(srcPath.begin(), srcPath.end() - 1));
  walk.Add(src, 0);
  for (const TreeProblem& p : walk.Problems()) ComplainAbout(opt.srcFile, p.path, p.message);
  if (!walk.Problems().empty()) return false;
  if (dstPath.size() + walk.Height() > static_cast<size_t>(kMaxFolderDepth)) {
    ComplainAbout(opt.dstFile, dstPath,
                  "the copy would nest deeper than " + std::to_string(kMaxFolderDepth) + " levels");
    return false;
  }
  return true;
}

// One copy: the stream at `src` in the source storage to `dst`.
struct CopyPair {
  StreamPath src, dst;
};

StreamPath Below(StreamPath path, const std::string& name) {
  path.push_back(name);
  return path;
}

// Turns the command's two paths into copies of single streams: one, or one
// per stream of the root or of a folder copied into the root.  False after
// a message when the source cannot be opened or listed whole.
bool PlanCopies(kyStorage* src, const CpOptions& opt, const StreamPath& srcPath,
                const StreamPath& dstPath, std::vector<CopyPair>& pairs) {
  if (srcPath.empty()) {
    ForEachRootStream(src, [&](kyStream* stm, int) {
      if (stm == nullptr) return true;
      pairs.push_back({{stm->GetName()}, Below(dstPath, stm->GetName())});
      stm->Release();
      return true;
    });
    return true;
  }
  if (!dstPath.empty()) {
    pairs.push_back({srcPath, dstPath});
    return true;
  }
  StreamChain chain;
  if (!OpenPath(src, opt.srcFile, srcPath, kModeReadShared, chain)) return false;
  kyStream* folder = chain.Leaf();
  if (!folder->IsFolder()) {
    pairs.push_back({srcPath, {srcPath.back()}});
    return true;
  }
  __int64 cursor = 0;
  for (kyStream* child = folder->OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = folder->OpenStreamNext(&cursor, kModeReadShared)) {
    pairs.push_back({Below(srcPath, child->GetName()), {child->GetName()}});
    child->Release();
  }
  if (cursor >= folder->GetLength()) return true;
  ComplainAbout(opt.srcFile, srcPath, "damaged folder: its slots break off");
  return false;
}

// Refuses, before anything is written, a copy onto itself or into itself
// (it would never end) and a source that is damaged or nests too deep.
bool CheckPair(kyStorage* src, const CpOptions& opt, const CopyPair& pair, bool sameFile) {
  if (sameFile && pair.src == pair.dst) {
    ComplainAbout(opt.srcFile, pair.src, "source and destination are the same");
    return false;
  }
  if (sameFile && IsInside(pair.dst, pair.src)) {
    ComplainAbout(opt.dstFile, pair.dst, "lies inside " + PrintableName(JoinPath(pair.src)));
    return false;
  }
  // The check moves the source's cursor; the copy gets objects of its own,
  // which start from the beginning.
  StreamChain checked;
  return OpenPath(src, opt.srcFile, pair.src, kModeReadShared, checked) &&
         CheckSource(checked.Leaf(), opt, pair.src, pair.dst);
}

int Copy(const CpOptions& opt, const StreamPath& srcPath, const StreamPath& dstPath,
         bool sameFile) {
  OpenedStorage dst(opt.dstFile, true);
  if (!dst) return kExitFailure;
  std::unique_ptr<OpenedStorage> ownSrc;
  kyStorage* src = dst.get();
  if (!sameFile) {
    ownSrc.reset(new OpenedStorage(opt.srcFile, false));
    if (!*ownSrc) return kExitFailure;
    src = ownSrc->get();
  }
  if (sameFile && srcPath.empty() && dstPath.empty()) {
    Complain(opt.srcFile, "source and destination are the same");
    return kExitFailure;
  }
  std::vector<CopyPair> pairs;
  if (!PlanCopies(src, opt, srcPath, dstPath, pairs)) return kExitFailure;
  for (const CopyPair& pair : pairs)
    if (!CheckPair(src, opt, pair, sameFile)) return kExitFailure;
  if (srcPath.empty() && !dstPath.empty()) {  // the root's copy is a folder, even when empty
    StreamChain made;
    if (!OpenOrCreatePath(dst.get(), opt.dstFile, dstPath, true, made)) return kExitFailure;
  }
  for (const CopyPair& pair : pairs) {
    StreamChain srcChain;
    if (!OpenPath(src, opt.srcFile, pair.src, kModeReadShared, srcChain) ||
        CopyInto(srcChain.Leaf(), dst.get(), pair.dst, opt.dstFile) != kExitOk)
      return kExitFailure;
  }
  return kExitOk;
}

int RunCp(const CpOptions& opt) {
  // An empty path, or "/", is the root.
  const StreamPath srcPath = SplitPath(opt.srcPath), dstPath = SplitPath(opt.dstPath);
  std::string problem;
  if (!CheckPath(srcPath, problem) || !CheckPath(dstPath, problem))
    return UsageError(kCpSynopsis, problem);
  // Within one file, a single storage object serves both sides, so that
  // the library sees where the destination lies relative to the source.
  bool sameFile = SameFile(opt.srcFile, opt.dstFile);
  const std::vector<std::string> reads =
      sameFile ? std::vector<std::string>() : std::vector<std::string>{opt.srcFile};
  return RunChanging(
      opt.dstFile, reads, [&] { return Copy(opt, srcPath, dstPath, sameFile); }, true);
}

}  // namespace

Command RegisterCp(CLI::App& app, int& status) {
  auto opt = std::make_shared<CpOptions>();
  CLI::App* sub =
      app.add_subcommand("cp", "Copy a stream or a folder tree, merging into an existing folder");
  sub->add_option("SRC_FILE", opt->srcFile, "The storage to copy from")->required();
  sub->add_option("SRC_PATH", opt->srcPath, "The stream or folder to copy ('/': the root)")
      ->required();
  sub->add_option("DST_FILE", opt->dstFile, "The storage to copy into (may be the same)")
      ->required();
  sub->add_option("DST_PATH", opt->dstPath,
                  "Where the copy goes (created when missing; '/': the root)")
      ->required();
  sub->callback([opt, &status] { status = RunCp(*opt); });
  return {sub, kCpSynopsis};
}

}  // namespace kycli
