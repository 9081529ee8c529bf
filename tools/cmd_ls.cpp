// kystore ls [-l] [--sort] [--desc] [--durations] [--json] FILE [PATH]:
// lists the root streams, or the streams of the folder PATH, in slot order
// or in name order.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <vector>

#include "change_session.h"
#include "commands.h"
#include "json_writer.h"
#include "kystore.h"
#include "kystore/format.h"
#include "name_text.h"
#include "storage_scan.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kLsSynopsis[] = "kystore ls [-l] [--sort] [--desc] [--durations] [--json] FILE [PATH]";

// Bytes of a folder's data before its first slot: the child count.
const int64_t kCountBytes = 4;

struct LsOptions {
  std::string file;
  std::string path;
  bool longFormat = false;
  bool sort = false;
  bool desc = false;
  bool durations = false;
  bool json = false;
};

struct Row {
  std::string name;
  bool folder = false;
  int64_t length = 0;
  DWORD seconds = 0;
  std::string slot = "?";  // root: block:index along the directory; child: index
};

std::string DurationText(DWORD seconds) {
  return seconds == 0 ? "-" : std::to_string(seconds) + "s";
}

std::string RootSlotText(const StorageScan& scan, const std::string& name) {
  const NamedSlot* slot = scan.FindMapped(name);
  if (slot == nullptr) return "?";
  return std::to_string(slot->block) + ":" + std::to_string(slot->slot);
}

// Makes the row of an opened stream and gives the stream back.
Row RowOf(kyStream* stm) {
  Row row;
  row.name = stm->GetName();
  row.folder = stm->IsFolder() != 0;
  row.length = stm->GetLength();
  row.seconds = static_cast<DWORD>(stm->GetDuration()) * 60;
  stm->Release();
  return row;
}

// Root streams in directory order: slot by slot along the chain.  A slot
// that carries a stream the storage could not open is reported by its name.
bool RootsInSlotOrder(kyStorage* storage, const LsOptions& opt, const StorageScan& scan,
                      std::vector<Row>& rows) {
  bool ok = true;
  ForEachRootStream(storage, [&](kyStream* stm, int cursor) {
    if (stm != nullptr) {
      rows.push_back(RowOf(stm));
      rows.back().slot = RootSlotText(scan, rows.back().name);
    } else if (cursor >= 0 && cursor < static_cast<int>(scan.namedSlots.size()) &&
               scan.namedSlots[cursor].hasMagic) {
      Complain(opt.file,
               "cannot open root stream '" + PrintableName(scan.namedSlots[cursor].name) + "'");
      ok = false;
    }
    return true;
  });
  return ok;
}

// Root streams in name order through the storage's sorted map walk.  The
// cursor holds the index of the next entry, -1 after the last, so a null
// stream while entries remain is one that could not be opened.
bool RootsInNameOrder(kyStorage* storage, const LsOptions& opt, const StorageScan& scan,
                      std::vector<Row>& rows) {
  storage->EnableSorting(1, opt.desc ? 1 : 0);
  bool ok = true;
  void* cursor = nullptr;
  kyStream* stm = storage->OpenStreamFirst(cursor, kModeReadShared);
  for (;;) {
    bool more = reinterpret_cast<intptr_t>(cursor) != -1;
    if (stm != nullptr) {
      rows.push_back(RowOf(stm));
      rows.back().slot = RootSlotText(scan, rows.back().name);
    } else if (more) {
      Complain(opt.file, "cannot open a root stream");
      ok = false;
    }
    if (!more) return ok;
    void* before = cursor;
    stm = storage->OpenStreamNext(cursor, kModeReadShared);
    if (stm == nullptr && cursor == before) return ok;  // the view went away
  }
}

// Root streams in name order without opening anything, with the durations
// the storage works out for time-stamped names.
bool RootDurations(kyStorage* storage, const LsOptions& opt, const StorageScan& scan,
                   std::vector<Row>& rows) {
  CIterateSortedStreams it;
  it.iOrder = opt.desc ? 1 : 0;
  while (storage->IterateSortedStreamsNoOPENS(&it)) {
    Row row;
    row.name = it.strName.GetString();
    row.seconds = it.offset.dwDuration;
    if (const NamedSlot* slot = scan.FindMapped(row.name)) {
      row.folder = slot->folder;
      row.length = slot->length;
    }
    row.slot = RootSlotText(scan, row.name);
    rows.push_back(row);
  }
  return true;
}

// The children of `folder` in slot order, then sorted by name (bytes) when
// asked for.  A walk that stops short of the folder's length met damage.
bool Children(kyStream* folder, const LsOptions& opt, const StreamPath& path, bool offsets64,
              std::vector<Row>& rows) {
  const int64_t width = StreamHeaderSize(offsets64);
  __int64 cursor = 0;
  for (kyStream* stm = folder->OpenStreamFirst(&cursor, kModeReadShared); stm != nullptr;
       stm = folder->OpenStreamNext(&cursor, kModeReadShared)) {
    rows.push_back(RowOf(stm));
    rows.back().slot = std::to_string((cursor - kCountBytes) / width - 1);
  }
  if (opt.sort || opt.desc || opt.durations) {
    std::stable_sort(rows.begin(), rows.end(), [&opt](const Row& a, const Row& b) {
      return opt.desc ? b.name < a.name : a.name < b.name;
    });
  }
  if (cursor >= folder->GetLength()) return true;
  ComplainAbout(opt.file, path, "damaged folder: the listing stops early");
  return false;
}

void PrintText(const std::vector<Row>& rows, const LsOptions& opt) {
  if (opt.longFormat)
    printf("%-6s %12s %8s %7s  %s\n", "kind", "length", "duration", "slot", "name");
  for (const Row& row : rows) {
    const std::string name = PrintableName(row.name);
    if (opt.longFormat) {
      printf("%-6s %12lld %8s %7s  %s\n", row.folder ? "folder" : "stream",
             static_cast<long long>(row.length), DurationText(row.seconds).c_str(),
             row.slot.c_str(), name.c_str());
    } else if (opt.durations) {
      printf("%8s  %s\n", DurationText(row.seconds).c_str(), name.c_str());
    } else {
      printf("%s\n", name.c_str());
    }
  }
}

void PrintJson(const std::vector<Row>& rows, const StreamPath& path) {
  fflush(stdout);
  JsonWriter json(std::cout);
  json.BeginObject();
  json.NameField("path", JoinPath(path));
  json.Key("streams");
  json.BeginArray();
  for (const Row& row : rows) {
    json.BeginObject();
    json.NameField("name", row.name);
    json.Key("folder");
    json.Bool(row.folder);
    json.Key("length");
    json.Int(row.length);
    json.Key("seconds");
    json.Uint(row.seconds);
    json.Key("slot");
    json.String(row.slot);
    json.EndObject();
  }
  json.EndArray();
  json.EndObject();
  json.EndDocument();
  std::cout.flush();
}

int List(const LsOptions& opt, const StreamPath& path) {
  OpenedPath opened(opt.file, path, false);
  if (!opened) return kExitFailure;
  StorageScan scan;
  std::string error;
  ScanStorage(opt.file, scan, error);  // for the slot column, the width and the chain
  std::vector<Row> rows;
  bool ok = true;
  if (!path.empty() && !opened.Leaf()->IsFolder()) {
    ComplainAbout(opt.file, path, "not a folder");
    return kExitFailure;
  }
  if (!path.empty())
    ok = Children(opened.Leaf(), opt, path, scan.offsets64, rows);
  else if (opt.durations)
    ok = RootDurations(opened.Storage(), opt, scan, rows);
  else if (opt.sort || opt.desc)
    ok = RootsInNameOrder(opened.Storage(), opt, scan, rows);
  else
    ok = RootsInSlotOrder(opened.Storage(), opt, scan, rows);
  if (opt.json)
    PrintJson(rows, path);
  else
    PrintText(rows, opt);
  // A directory chain that breaks off hides the streams behind the break.
  if (path.empty() && !scan.chainProblem.empty()) {
    fflush(stdout);
    Complain(opt.file, scan.chainProblem);
    ok = false;
  }
  return ok ? kExitOk : kExitFailure;
}

int RunLs(const LsOptions& opt) {
  const StreamPath path = SplitPath(opt.path);
  std::string problem;
  if (!CheckPath(path, problem)) return UsageError(kLsSynopsis, problem);
  return RunReading({opt.file}, [&] { return List(opt, path); });
}

}  // namespace

Command RegisterLs(CLI::App& app, int& status) {
  auto opt = std::make_shared<LsOptions>();
  CLI::App* sub = app.add_subcommand("ls", "List the root streams, or the streams of a folder");
  sub->add_flag("-l", opt->longFormat,
                "Long format under a header line: kind, length, duration, slot, name");
  sub->add_flag("--sort", opt->sort,
                "Name order (bytes, case-sensitive) instead of directory order");
  sub->add_flag("--desc", opt->desc, "Descending name order (implies --sort)");
  sub->add_flag("--durations", opt->durations,
                "Name order with the durations worked out from time-stamped names");
  sub->add_flag("--json", opt->json, "One JSON document on standard output");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The folder to list (default: the root)");
  sub->callback([opt, &status] { status = RunLs(*opt); });
  return {sub, kLsSynopsis};
}

}  // namespace kycli
