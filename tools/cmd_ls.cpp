// kystore ls [-l] [--sort] [--desc] [--durations] FILE: lists the root
// streams, in directory order or in name order.
#include <cstdint>
#include <cstdio>
#include <memory>

#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "storage_scan.h"
#include "storage_util.h"

namespace kycli {

namespace {

struct LsOptions {
  std::string file;
  bool longFormat = false;
  bool sort = false;
  bool desc = false;
  bool durations = false;
};

struct Row {
  std::string name;
  bool folder = false;
  int64_t length = 0;
  DWORD seconds = 0;
};

std::string SlotText(const StorageScan& scan, const std::string& name) {
  const NamedSlot* slot = scan.FindMapped(name);
  if (slot == nullptr) return "?";
  return std::to_string(slot->block) + ":" + std::to_string(slot->slot);
}

std::string DurationText(DWORD seconds) {
  return seconds == 0 ? "-" : std::to_string(seconds) + "s";
}

void PrintRow(const Row& row, const LsOptions& opt, const StorageScan& scan) {
  if (opt.longFormat) {
    printf("%-6s %12lld %8s %7s  %s\n", row.folder ? "folder" : "stream",
           static_cast<long long>(row.length), DurationText(row.seconds).c_str(),
           SlotText(scan, row.name).c_str(), row.name.c_str());
  } else if (opt.durations) {
    printf("%8s  %s\n", DurationText(row.seconds).c_str(), row.name.c_str());
  } else {
    printf("%s\n", row.name.c_str());
  }
}

// Prints an opened stream's row and gives the stream back.
void PrintAndRelease(kyStream* stm, const LsOptions& opt, const StorageScan& scan) {
  Row row;
  row.name = stm->GetName();
  row.folder = stm->IsFolder() != 0;
  row.length = stm->GetLength();
  row.seconds = static_cast<DWORD>(stm->GetDuration()) * 60;
  stm->Release();
  PrintRow(row, opt, scan);
}

// Directory order: slot by slot along the chain.  A slot that carries a
// stream the storage could not open is reported by its name.
int ListDirectoryOrder(kyStorage* storage, const LsOptions& opt, const StorageScan& scan) {
  int status = kExitOk;
  ForEachRootStream(storage, [&](kyStream* stm, int cursor) {
    if (stm != nullptr) {
      PrintAndRelease(stm, opt, scan);
    } else if (cursor >= 0 && cursor < static_cast<int>(scan.namedSlots.size())) {
      const NamedSlot& slot = scan.namedSlots[cursor];
      if (slot.hasMagic) {
        Complain(opt.file, "cannot open root stream '" + slot.name + "'");
        status = kExitFailure;
      }
    }
    return true;
  });
  return status;
}

// Name order through the storage's sorted map walk.  The cursor holds the
// index of the next entry, -1 after the last, so a null stream while
// entries remain is one that could not be opened.
int ListNameOrder(kyStorage* storage, const LsOptions& opt, const StorageScan& scan) {
  storage->EnableSorting(1, opt.desc ? 1 : 0);
  int status = kExitOk;
  void* cursor = nullptr;
  kyStream* stm = storage->OpenStreamFirst(cursor, kModeReadShared);
  for (;;) {
    bool more = reinterpret_cast<intptr_t>(cursor) != -1;
    if (stm != nullptr) {
      PrintAndRelease(stm, opt, scan);
    } else if (more) {
      Complain(opt.file, "cannot open a root stream");
      status = kExitFailure;
    }
    if (!more) return status;
    void* before = cursor;
    stm = storage->OpenStreamNext(cursor, kModeReadShared);
    if (stm == nullptr && cursor == before) return status;  // the view went away
  }
}

// Name order without opening anything, with the durations the storage
// works out for time-stamped names.
int ListDurations(kyStorage* storage, const LsOptions& opt, const StorageScan& scan) {
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
    PrintRow(row, opt, scan);
  }
  return kExitOk;
}

int ListRoots(const LsOptions& opt) {
  OpenedStorage storage(opt.file, false);
  if (!storage) return kExitFailure;
  StorageScan scan;
  std::string error;
  ScanStorage(opt.file, scan, error);  // for the slot column and the chain
  int status = opt.durations          ? ListDurations(storage.get(), opt, scan)
               : opt.sort || opt.desc ? ListNameOrder(storage.get(), opt, scan)
                                      : ListDirectoryOrder(storage.get(), opt, scan);
  // A directory chain that breaks off hides the streams behind the break.
  if (!scan.chainProblem.empty()) {
    fflush(stdout);
    Complain(opt.file, scan.chainProblem);
    status = kExitFailure;
  }
  return status;
}

int RunLs(const LsOptions& opt) {
  return RunReading({opt.file}, [&] { return ListRoots(opt); });
}

}  // namespace

Command RegisterLs(CLI::App& app, int& status) {
  auto opt = std::make_shared<LsOptions>();
  CLI::App* sub = app.add_subcommand("ls", "List the root streams of a storage");
  sub->add_flag("-l", opt->longFormat,
                "Long format: kind, length, duration, slot (block:index) and name");
  sub->add_flag("--sort", opt->sort,
                "Name order (bytes, case-sensitive) instead of directory order");
  sub->add_flag("--desc", opt->desc, "Descending name order (implies --sort)");
  sub->add_flag("--durations", opt->durations,
                "Name order with the durations worked out from time-stamped names");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->callback([opt, &status] { status = RunLs(*opt); });
  return {sub, "kystore ls [-l] [--sort] [--desc] [--durations] FILE"};
}

}  // namespace kycli
