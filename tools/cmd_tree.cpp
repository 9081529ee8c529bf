// kystore tree [--json] FILE [PATH]: prints the streams below the root (or
// below PATH) as an indented tree with lengths, folder marks and durations,
// and reports the damage it meets.
#include <cstdio>
#include <iostream>
#include <memory>
#include <vector>

#include "change_session.h"
#include "commands.h"
#include "json_writer.h"
#include "kystore.h"
#include "name_text.h"
#include "storage_scan.h"
#include "storage_util.h"
#include "stream_path.h"
#include "tree_walk.h"

namespace kycli {

namespace {

const char kTreeSynopsis[] = "kystore tree [--json] FILE [PATH]";

struct TreeOptions {
  std::string file;
  std::string path;
  bool json = false;
};

void PrintLines(const std::vector<TreeLine>& lines) {
  std::vector<std::string> labels;
  size_t width = 0;
  for (const TreeLine& l : lines) {
    labels.push_back(std::string(2 * l.depth, ' ') + PrintableName(l.name) + (l.folder ? "/" : ""));
    if (labels.back().size() > width) width = labels.back().size();
  }
  for (size_t i = 0; i < lines.size(); ++i) {
    const TreeLine& l = lines[i];
    const std::string& label = labels[i];
    printf("%-*s %12lld", static_cast<int>(width), label.c_str(), static_cast<long long>(l.length));
    if (l.seconds != 0) printf("  %lus", static_cast<unsigned long>(l.seconds));
    printf("\n");
  }
}

// The lines in the order of the text, each with its whole path from the
// storage's root, and the damage met.
void PrintJson(const TreeWalk& walk, const StreamPath& path) {
  StreamPath at(path.begin(), path.empty() ? path.end() : path.end() - 1);
  const size_t base = at.size();
  JsonWriter json(std::cout);
  json.BeginObject();
  json.NameField("path", JoinPath(path));
  json.Key("streams");
  json.BeginArray();
  for (const TreeLine& l : walk.Lines()) {
    at.resize(base + l.depth);
    at.push_back(l.name);
    json.BeginObject();
    json.NameField("path", JoinPath(at));
    json.NameField("name", l.name);
    json.Key("depth");
    json.Int(l.depth);
    json.Key("folder");
    json.Bool(l.folder);
    json.Key("length");
    json.Int(l.length);
    json.Key("seconds");
    json.Uint(l.seconds);
    json.EndObject();
  }
  json.EndArray();
  json.Key("problems");
  json.BeginArray();
  for (const TreeProblem& p : walk.Problems()) {
    json.BeginObject();
    json.NameField("path", JoinPath(p.path));
    json.Key("message");
    json.String(p.message);
    json.EndObject();
  }
  json.EndArray();
  json.EndObject();
  json.EndDocument();
  std::cout.flush();
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
  if (opt.json)
    PrintJson(walk, path);
  else
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
  sub->add_flag("--json", opt->json, "One JSON document on standard output");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "Print only this stream or folder (default: everything)");
  sub->callback([opt, &status] { status = RunTree(*opt); });
  return {sub, kTreeSynopsis};
}

}  // namespace kycli
