// kystore info FILE: describes a storage file's header and root directory.
#include <cstdio>
#include <memory>

#include "change_session.h"
#include "commands.h"
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

int DescribeStorage(const std::string& file) {
  StorageScan scan;
  std::string error;
  if (!ScanStorage(file, scan, error)) {
    Complain(file, error);
    return kExitFailure;
  }
  PrintScan(scan, LibraryOpens(file));
  fflush(stdout);
  if (!scan.chainProblem.empty()) {
    Complain(file, scan.chainProblem);
    return kExitFailure;
  }
  return kExitOk;
}

int RunInfo(const std::string& file) {
  return RunReading({file}, [&] { return DescribeStorage(file); });
}

}  // namespace

Command RegisterInfo(CLI::App& app, int& status) {
  auto file = std::make_shared<std::string>();
  CLI::App* sub = app.add_subcommand("info", "Describe a storage file's header and directory");
  sub->add_option("FILE", *file, "The storage file")->required();
  sub->callback([file, &status] { status = RunInfo(*file); });
  return {sub, "kystore info FILE"};
}

}  // namespace kycli
