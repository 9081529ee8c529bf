// kystore entries FILE PATH: lists the data streams of a folder ("/": the
// root) with their values decoded by length.
#include <cstdio>
#include <memory>

#include "change_session.h"
#include "commands.h"
#include "entry_value.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kEntriesSynopsis[] = "kystore entries FILE PATH";

// Bytes read of each entry: enough to show it on one line and to tell a
// string form that fills a longer entry.
const int64_t kShownRead = 4096;
const size_t kShownHex = 16;

struct EntriesOptions {
  std::string file;
  std::string path;
};

// Prints one data stream; false when its data cannot be read.
bool PrintEntry(const std::string& file, const StreamPath& folder, kyStream* stm) {
  if (stm->IsFolder()) return true;
  std::string raw;
  if (!ReadEntryData(stm, kShownRead, raw)) {
    StreamPath path = folder;
    path.push_back(stm->GetName());
    ComplainAbout(file, path, "cannot read the stream");
    return false;
  }
  printf("%-20s %s\n", stm->GetName(), DescribeByLength(raw, stm->GetLength(), kShownHex).c_str());
  return true;
}

int List(const EntriesOptions& opt, const StreamPath& folder) {
  OpenedPath opened(opt.file, folder, false);
  if (!opened) return kExitFailure;
  bool ok = true;
  if (folder.empty()) {
    ForEachRootStream(opened.Storage(), [&](kyStream* stm, int) {
      if (stm == nullptr) return true;
      ok = PrintEntry(opt.file, folder, stm) && ok;
      stm->Release();
      return true;
    });
    return ok ? kExitOk : kExitFailure;
  }
  kyStream* parent = opened.Leaf();
  if (!parent->IsFolder()) {
    ComplainAbout(opt.file, folder, "not a folder");
    return kExitFailure;
  }
  __int64 cursor = 0;
  for (kyStream* stm = parent->OpenStreamFirst(&cursor, kModeReadShared); stm != nullptr;
       stm = parent->OpenStreamNext(&cursor, kModeReadShared)) {
    ok = PrintEntry(opt.file, folder, stm) && ok;
    stm->Release();
  }
  if (cursor < parent->GetLength()) {
    ComplainAbout(opt.file, folder, "damaged folder: the listing stops early");
    ok = false;
  }
  return ok ? kExitOk : kExitFailure;
}

int RunEntries(const EntriesOptions& opt) {
  StreamPath folder;
  if (SplitPath(opt.path).size() > 0 && !ParsePathArgument(opt.path, kEntriesSynopsis, folder))
    return kExitUsage;
  return RunReading({opt.file}, [&] { return List(opt, folder); });
}

}  // namespace

Command RegisterEntries(CLI::App& app, int& status) {
  auto opt = std::make_shared<EntriesOptions>();
  CLI::App* sub =
      app.add_subcommand("entries", "List the entries (data streams) of a folder with values");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The folder; '/' for the root")->required();
  sub->callback([opt, &status] { status = RunEntries(*opt); });
  return {sub, kEntriesSynopsis};
}

}  // namespace kycli
