// kystore entries [--json] FILE PATH: lists the data streams of a folder ("/": the
// root) with their values decoded by length.
#include <cstdio>
#include <iostream>
#include <memory>
#include <vector>

#include "change_session.h"
#include "commands.h"
#include "entry_value.h"
#include "json_writer.h"
#include "kystore.h"
#include "name_text.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kEntriesSynopsis[] = "kystore entries [--json] FILE PATH";

// Bytes read of each entry: enough to show it on one line and to tell a
// string form that fills a longer entry.
const int64_t kShownRead = 4096;
const size_t kShownHex = 16;

struct EntriesOptions {
  std::string file;
  std::string path;
  bool json = false;
};

struct EntryRow {
  std::string name;
  int64_t length;
  std::string raw;  // its first bytes, at most kShownRead
};

// Adds the row of one data stream; false when its data cannot be read.
bool AddEntry(const std::string& file, const StreamPath& folder, kyStream* stm,
              std::vector<EntryRow>& rows) {
  if (stm->IsFolder()) return true;
  EntryRow row{stm->GetName(), stm->GetLength(), std::string()};
  if (!ReadEntryData(stm, kShownRead, row.raw)) {
    StreamPath path = folder;
    path.push_back(row.name);
    ComplainAbout(file, path, "cannot read the stream");
    return false;
  }
  rows.push_back(row);
  return true;
}

void PrintText(const std::vector<EntryRow>& rows) {
  for (const EntryRow& row : rows)
    printf("%-20s %s\n", PrintableName(row.name).c_str(),
           DescribeByLength(row.raw, row.length, kShownHex).c_str());
}

void PrintJson(const std::vector<EntryRow>& rows, const StreamPath& folder) {
  fflush(stdout);
  JsonWriter json(std::cout);
  json.BeginObject();
  json.NameField("path", JoinPath(folder));
  json.Key("entries");
  json.BeginArray();
  for (const EntryRow& row : rows) {
    json.BeginObject();
    json.NameField("name", row.name);
    json.Key("length");
    json.Int(row.length);
    json.Key("value");
    json.String(DescribeByLength(row.raw, row.length, kShownHex));
    json.Key("hex");
    json.String(HexOf(row.raw));
    json.EndObject();
  }
  json.EndArray();
  json.EndObject();
  json.EndDocument();
  std::cout.flush();
}

// Adds the rows of the data streams of the root (`folder` empty) or of the
// opened folder; false on damage or when `folder` is not a folder.
bool Collect(const EntriesOptions& opt, const StreamPath& folder, OpenedPath& opened,
             std::vector<EntryRow>& rows) {
  bool ok = true;
  if (folder.empty()) {
    ForEachRootStream(opened.Storage(), [&](kyStream* stm, int) {
      if (stm == nullptr) return true;
      ok = AddEntry(opt.file, folder, stm, rows) && ok;
      stm->Release();
      return true;
    });
    return ok;
  }
  kyStream* parent = opened.Leaf();
  if (!parent->IsFolder()) {
    ComplainAbout(opt.file, folder, "not a folder");
    return false;
  }
  __int64 cursor = 0;
  for (kyStream* stm = parent->OpenStreamFirst(&cursor, kModeReadShared); stm != nullptr;
       stm = parent->OpenStreamNext(&cursor, kModeReadShared)) {
    ok = AddEntry(opt.file, folder, stm, rows) && ok;
    stm->Release();
  }
  if (cursor < parent->GetLength()) {
    ComplainAbout(opt.file, folder, "damaged folder: the listing stops early");
    ok = false;
  }
  return ok;
}

int List(const EntriesOptions& opt, const StreamPath& folder) {
  OpenedPath opened(opt.file, folder, false);
  if (!opened) return kExitFailure;
  std::vector<EntryRow> rows;
  const bool ok = Collect(opt, folder, opened, rows);
  if (opt.json)
    PrintJson(rows, folder);
  else
    PrintText(rows);
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
  sub->add_flag("--json", opt->json, "One JSON document on standard output");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The folder; '/' for the root")->required();
  sub->callback([opt, &status] { status = RunEntries(*opt); });
  return {sub, kEntriesSynopsis};
}

}  // namespace kycli
