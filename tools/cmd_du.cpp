// kystore du [-s] FILE [PATH]: the bytes of the data below each folder, as
// du shows a directory's usage: subfolders first, the folder itself after
// them.  A folder's own length is its table of child slots, which no user
// reads as its size, so only data streams count.
#include <cstdio>
#include <memory>
#include <vector>

#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "name_text.h"
#include "storage_scan.h"
#include "stream_path.h"
#include "tree_walk.h"

namespace kycli {

namespace {

const char kDuSynopsis[] = "kystore du [-s] FILE [PATH]";

struct DuOptions {
  std::string file;
  std::string path;
  bool summary = false;
};

struct OpenFolder {
  StreamPath path;
  int depth;
  int64_t bytes;
};

void PrintUsage(int64_t bytes, const StreamPath& path) {
  printf("%lld\t%s\n", static_cast<long long>(bytes),
         path.empty() ? "/" : PrintableName(JoinPath(path)).c_str());
}

// Walks the tree's lines (in pre-order, with depths, the first lines in
// the folder `base`) keeping the folders still open; a folder is done, and
// printed, when a line at its depth or above comes.  Returns the bytes of
// all the lines.
int64_t Sum(const std::vector<TreeLine>& lines, const StreamPath& base, bool print) {
  std::vector<OpenFolder> open = {{base, -1, 0}};
  auto close = [&](int depth) {
    while (open.size() > 1 && open.back().depth >= depth) {
      const OpenFolder done = open.back();
      open.pop_back();
      if (print) PrintUsage(done.bytes, done.path);
      open.back().bytes += done.bytes;
    }
  };
  for (const TreeLine& l : lines) {
    close(l.depth);
    if (!l.folder) {
      open.back().bytes += l.length > 0 ? l.length : 0;
      continue;
    }
    StreamPath path = open.size() > 1 ? open.back().path : base;
    path.push_back(l.name);
    open.push_back({path, l.depth, 0});
  }
  close(-1);
  return open.back().bytes;
}

int Show(const DuOptions& opt, const StreamPath& path) {
  OpenedPath opened(opt.file, path, false);
  if (!opened) return kExitFailure;
  StorageScan scan;
  std::string error;
  if (!ScanStorage(opt.file, scan, error)) {
    Complain(opt.file, error);
    return kExitFailure;
  }
  const StreamPath base(path.begin(), path.empty() ? path.end() : path.end() - 1);
  TreeWalk walk(scan, base);
  if (path.empty())
    walk.Roots(opened.Storage());
  else
    walk.Add(opened.Leaf(), 0);
  const int64_t total = Sum(walk.Lines(), base, !opt.summary);
  // A folder PATH is a line of the walk, printed with the others.
  const bool printed = !opt.summary && !path.empty() && opened.Leaf()->IsFolder();
  if (!printed) PrintUsage(total, path);
  if (walk.Problems().empty()) return kExitOk;
  fflush(stdout);
  for (const TreeProblem& p : walk.Problems()) ComplainAbout(opt.file, p.path, p.message);
  return kExitFailure;
}

int RunDu(const DuOptions& opt) {
  const StreamPath path = SplitPath(opt.path);
  std::string problem;
  if (!CheckPath(path, problem)) return UsageError(kDuSynopsis, problem);
  return RunReading({opt.file}, [&] { return Show(opt, path); });
}

}  // namespace

Command RegisterDu(CLI::App& app, int& status) {
  auto opt = std::make_shared<DuOptions>();
  CLI::App* sub =
      app.add_subcommand("du", "Bytes of data below each folder (data streams only), as du");
  sub->add_flag("-s,--summarize", opt->summary, "Only the total of PATH");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The folder to measure (default: the root)");
  sub->callback([opt, &status] { status = RunDu(*opt); });
  return {sub, kDuSynopsis};
}

}  // namespace kycli
