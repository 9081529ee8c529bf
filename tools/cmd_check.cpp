// kystore check FILE [--json]: the library's integrity check of a whole
// storage (kyCheckStorage), one line per fault and then the space figures.
//
// Exit status: 0 no fault, 1 faults found, 2 the file was not checked (not
// a storage, missing, not a regular file, unreadable, or locked).  The
// check reads only; the file is never opened for writing.
#include <cinttypes>
#include <cstdio>
#include <iostream>
#include <memory>

#include "change_session.h"
#include "commands.h"
#include "file_lock.h"
#include "json_writer.h"
#include "kystore.h"

namespace kycli {

namespace {

const int kExitFaults = 1;
const int kExitNotChecked = 2;

struct CheckOptions {
  std::string file;
  bool json = false;
};

unsigned long long U(ULONGLONG v) {
  return static_cast<unsigned long long>(v);
}

void PrintText(const kyCheckReport& r) {
  for (const kyCheckFault& f : r.faults)
    printf("offset 0x%08llX: %s\n", U(f.offset), f.message.c_str());
  printf("streams:      %llu (%llu folders), %llu free slots\n", U(r.streams), U(r.folders),
         U(r.freeSlots));
  printf("live:         %llu bytes in blocks of streams (%llu bytes of data)\n", U(r.liveBytes),
         U(r.dataBytes));
  printf("free slots:   %llu bytes in blocks kept by free slots\n", U(r.freeSlotBytes));
  printf("unreachable:  %llu bytes\n", U(r.unreachableBytes));
  printf("directory:    %llu bytes (header and %llu blocks)\n", U(r.directoryBytes),
         U(r.directoryBlocks));
  printf("file size:    %llu bytes, %d-bit offsets\n", U(r.fileSize), r.offsetBits);
  if (r.faults.empty())
    printf("no faults\n");
  else
    printf("%zu fault%s\n", r.faults.size(), r.faults.size() == 1 ? "" : "s");
}

void PrintJson(const kyCheckReport& r) {
  JsonWriter json(std::cout);
  json.BeginObject();
  json.Key("storage");
  json.Bool(r.isStorage);
  if (!r.isStorage) {
    json.Key("error");
    json.String(r.error);
    json.EndObject();
    json.EndDocument();
    return;
  }
  json.Key("offset_bits");
  json.Int(r.offsetBits);
  json.Key("file_size");
  json.Uint(r.fileSize);
  json.Key("faults");
  json.BeginArray();
  for (const kyCheckFault& f : r.faults) {
    json.BeginObject();
    json.Key("offset");
    json.Uint(f.offset);
    json.Key("message");
    json.String(f.message);
    json.EndObject();
  }
  json.EndArray();
  const std::pair<const char*, ULONGLONG> figures[] = {{"live_bytes", r.liveBytes},
                                                       {"free_slot_bytes", r.freeSlotBytes},
                                                       {"unreachable_bytes", r.unreachableBytes},
                                                       {"directory_bytes", r.directoryBytes},
                                                       {"data_bytes", r.dataBytes},
                                                       {"streams", r.streams},
                                                       {"folders", r.folders},
                                                       {"free_slots", r.freeSlots},
                                                       {"directory_blocks", r.directoryBlocks},
                                                       {"data_blocks", r.dataBlocks}};
  for (const auto& figure : figures) {
    json.Key(figure.first);
    json.Uint(figure.second);
  }
  json.EndObject();
  json.EndDocument();
  std::cout.flush();
}

int Check(const CheckOptions& opt) {
  kyCheckReport report;
  if (!kyCheckStorage(opt.file.c_str(), &report)) {
    Complain(opt.file, report.error);
    return kExitNotChecked;
  }
  if (opt.json)
    PrintJson(report);
  else if (report.isStorage)
    PrintText(report);
  fflush(stdout);
  if (!report.isStorage) {
    Complain(opt.file, "not a storage file (" + report.error + ")");
    return kExitNotChecked;
  }
  return report.faults.empty() ? kExitOk : kExitFaults;
}

int RunCheck(const CheckOptions& opt) {
  if (!CheckRegularFile(opt.file)) return kExitNotChecked;
  bool ran = false;
  const int status = RunReading({opt.file}, [&] {
    ran = true;
    return Check(opt);
  });
  return ran ? status : kExitNotChecked;
}

}  // namespace

Command RegisterCheck(CLI::App& app, int& status) {
  auto opt = std::make_shared<CheckOptions>();
  CLI::App* sub = app.add_subcommand("check", "Check a whole storage file for damage");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_flag("--json", opt->json, "One JSON document with the faults and the space figures");
  sub->callback([opt, &status] { status = RunCheck(*opt); });
  return {sub, "kystore check FILE [--json]"};
}

}  // namespace kycli
