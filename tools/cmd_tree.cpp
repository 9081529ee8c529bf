// kystore tree FILE [PATH]: prints the streams below the root (or below
// PATH) as an indented tree with lengths, folder marks and durations, and
// reports the damage it meets.
#include <cstdio>
#include <memory>
#include <vector>

#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "storage_scan.h"
#include "storage_util.h"
#include "stream_path.h"
#include "tree_walk.h"

namespace kycli {

namespace {

const char kTreeSynopsis[] = "kystore tree FILE [PATH]";

struct TreeOptions {
  std::string file;
  std::string path;
};

void PrintLines(const std::vector<TreeLine>& lines) {
  size_t width = 0;
  for (const TreeLine& l : lines) {
    size_t w = 2 * l.depth + l.name.size() + (l.folder ? 1 : 0);
    if (w > width) width = w;
  }
  for (const TreeLine& l : lines) {
    std::string label = std::string(2 * l.depth, ' ') + l.name + (l.folder ? "/" : "");
    printf("%-*s %12lld", static_cast<int>(width), label.c_str(), static_cast<long long>(l.length));
    if (l.seconds != 0) printf("  %lus", static_cast<unsigned long>(l.seconds));
    printf("\n");
  }
}

int PrintTree(const TreeOptions& opt, const StreamPath& path) {
  OpenedPath opened(opt.file, path, false);
  if (!opened) return kExitFailure;
  StorageScan scan;
  std::string error;
  if (!ScanStorage(opt.file, scan, error)) {
    Complain(opt.file, error);
    return kExitFailure;
  }
  TreeWalk walk(scan, path.empty() ? path : StreamPath(path.begin(), path.end() - 1));
  if (path.empty())
    walk.Roots(opened.Storage());
  else
    walk.Add(opened.Leaf(), 0);
  PrintLines(walk.Lines());
  if (walk.Problems().empty()) return kExitOk;
  fflush(stdout);
  for (const TreeProblem& p : walk.Problems()) ComplainAbout(opt.file, p.path, p.message);
  return kExitFailure;
}

int RunTree(const TreeOptions& opt) {
  StreamPath path = SplitPath(opt.path);
  std::string problem;
  if (!CheckPath(path, problem)) return UsageError(kTreeSynopsis, problem);
  return RunReading({opt.file}, [&] { return PrintTree(opt, path); });
}

}  // namespace

Command RegisterTree(CLI::App& app, int& status) {
  auto opt = std::make_shared<TreeOptions>();
  CLI::App* sub = app.add_subcommand(
      "tree", "Print the streams as a tree: folders end in '/', then length and duration");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "Print only this stream or folder (default: everything)");
  sub->callback([opt, &status] { status = RunTree(*opt); });
  return {sub, kTreeSynopsis};
}

}  // namespace kycli
