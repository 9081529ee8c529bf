// kystore tree FILE [PATH]: prints the streams below the root (or below
// PATH) as an indented tree with lengths, folder marks and durations.
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "commands.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kTreeSynopsis[] = "kystore tree FILE [PATH]";

// Deeper nesting than this is taken for a folder that contains itself.
const int kMaxDepth = 1000;

struct TreeOptions {
  std::string file;
  std::string path;
};

struct TreeLine {
  int depth;
  std::string name;
  bool folder;
  int64_t length;
  DWORD seconds;
};

// Collects the lines of a tree.  A damaged file can make a folder hold
// itself; the walk is therefore bounded both in depth and in the number of
// streams, which cannot exceed what the file has room for (one header
// slot, at least 80 bytes, per stream).
class TreeWalk {
 public:
  explicit TreeWalk(int64_t budget) : m_budget(budget) {}

  bool Add(kyStream* stm, int depth) {
    if (--m_budget < 0) {
      m_problem = "more streams than the file can hold (a folder contains itself?)";
      return false;
    }
    m_lines.push_back({depth, stm->GetName(), stm->IsFolder() != 0, stm->GetLength(),
                       static_cast<DWORD>(stm->GetDuration()) * 60});
    return !stm->IsFolder() || Children(stm, depth + 1);
  }

  // Walks the children of `folder` in slot order.
  bool Children(kyStream* folder, int depth) {
    if (depth > kMaxDepth) {
      m_problem = "folders nested deeper than " + std::to_string(kMaxDepth) + " levels";
      return false;
    }
    int64_t cursor = 0;
    for (kyStream* child = folder->OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
         child = folder->OpenStreamNext(&cursor, kModeReadShared)) {
      bool ok = Add(child, depth);
      child->Release();
      if (!ok) return false;
    }
    return true;
  }

  // The root streams in directory order.
  bool Roots(kyStorage* storage) {
    return ForEachRootStream(storage, [this](kyStream* stm, int) {
      if (stm == nullptr) return true;
      bool ok = Add(stm, 0);
      stm->Release();
      return ok;
    });
  }

  const std::vector<TreeLine>& lines() const { return m_lines; }
  const std::string& problem() const { return m_problem; }

 private:
  int64_t m_budget;
  std::vector<TreeLine> m_lines;
  std::string m_problem;
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

int64_t StreamBudget(const std::string& file) {
  struct stat st;
  if (stat(file.c_str(), &st) != 0) return 0;
  return static_cast<int64_t>(st.st_size) / 80 + 1;
}

int RunTree(const TreeOptions& opt) {
  StreamPath path = SplitPath(opt.path);
  std::string problem;
  if (!CheckPath(path, problem)) return UsageError(kTreeSynopsis, problem);
  OpenedPath opened(opt.file, path, false);
  if (!opened) return kExitFailure;
  TreeWalk walk(StreamBudget(opt.file));
  bool ok = path.empty() ? walk.Roots(opened.Storage()) : walk.Add(opened.Leaf(), 0);
  PrintLines(walk.lines());
  if (ok) return kExitOk;
  fflush(stdout);
  Complain(opt.file, walk.problem());
  return kExitFailure;
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
