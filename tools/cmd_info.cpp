// kystore info [--json] FILE: describes a storage file's header and root
// directory.
#include <cstdio>
#include <iostream>
#include <memory>

#include "change_session.h"
#include "commands.h"
#include "json_writer.h"
#include "kystore.h"
#include "storage_scan.h"

namespace kycli {

namespace {

std::string DescribeMark(unsigned char mark) {
  char text[32];
  if (mark >= 0x20 && mark < 0x7F)
    snprintf(text, sizeof(text), "'%c' (0x%02X)", mark, mark);
  else
    snprintf(text, sizeof(text), "0x%02X", mark);
  return text;
}

// Whether the library itself accepts the file (read-only open).
bool LibraryOpens(const std::string& file) {
  kyStorage* storage = kyStorage::Open(file.c_str(), kModeReadShared, 4096, 0);
  if (storage == nullptr) return false;
  storage->Release();
  return true;
}

void PrintScan(const StorageScan& scan, bool opens) {
  printf("header:           %s\n",
         scan.olderHeader ? "26 bytes (older form)" : "32 bytes (current form)");
  printf("format mark:      %s\n", DescribeMark(scan.formatMark).c_str());
  printf("offset width:     %d-bit\n", scan.offsets64 ? 64 : 32);
  printf("slots per block:  %u\n", scan.slotsPerBlock);
  printf("fast slots:       %u\n", scan.fastSlots);
  printf("directory blocks: %d\n", scan.directoryBlocks);
  printf("root streams:     %d\n", scan.RootStreamCount());
  printf("file size:        %lld bytes\n", static_cast<long long>(scan.fileSize));
  printf("opens:            %s\n", opens ? "yes" : "no (the library refuses this file)");
}

void PrintJson(const StorageScan& scan, bool opens) {
  JsonWriter json(std::cout);
  json.BeginObject();
  json.Key("header_bytes");
  json.Int(scan.olderHeader ? 26 : 32);
  json.Key("format_mark");
  json.Int(scan.formatMark);
  json.Key("offset_bits");
  json.Int(scan.offsets64 ? 64 : 32);
  json.Key("slots_per_block");
  json.Uint(scan.slotsPerBlock);
  json.Key("fast_slots");
  json.Uint(scan.fastSlots);
  json.Key("directory_blocks");
  json.Int(scan.directoryBlocks);
  json.Key("root_streams");
  json.Int(scan.RootStreamCount());
  json.Key("file_size");
  json.Int(scan.fileSize);
  json.Key("opens");
  json.Bool(opens);
  json.Key("problem");
  if (scan.chainProblem.empty())
    json.Null();
  else
    json.String(scan.chainProblem);
  json.EndObject();
  json.EndDocument();
  std::cout.flush();
}

int DescribeStorage(const std::string& file, bool asJson) {
  StorageScan scan;
  std::string error;
  if (!ScanStorage(file, scan, error)) {
    Complain(file, error);
    return kExitFailure;
  }
  if (asJson)
    PrintJson(scan, LibraryOpens(file));
  else
    PrintScan(scan, LibraryOpens(file));
  fflush(stdout);
  if (!scan.chainProblem.empty()) {
    Complain(file, scan.chainProblem);
    return kExitFailure;
  }
  return kExitOk;
}

struct InfoOptions {
  std::string file;
  bool json = false;
};

int RunInfo(const InfoOptions& opt) {
  return RunReading({opt.file}, [&] { return DescribeStorage(opt.file, opt.json); });
}

}  // namespace

Command RegisterInfo(CLI::App& app, int& status) {
  auto opt = std::make_shared<InfoOptions>();
  CLI::App* sub = app.add_subcommand("info", "Describe a storage file's header and directory");
  sub->add_flag("--json", opt->json, "One JSON document on standard output");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->callback([opt, &status] { status = RunInfo(*opt); });
  return {sub, "kystore info [--json] FILE"};
}

}  // namespace kycli
