// kystore generic [--json] FILE: lists the generic streams of a storage (root
// streams named by eight hexadecimal digits) as CTolvarFile walks them:
// name, the name's value as a number and, when it looks like a time stamp,
// as a UTC time, the size and, for a folder, the number of children.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <memory>
#include <vector>

#include "change_session.h"
#include "commands.h"
#include "json_writer.h"
#include "kystore.h"
#include "kystore/tolvar_file.h"
#include "name_text.h"
#include "storage_util.h"

namespace kycli {

namespace {

const char kGenericSynopsis[] = "kystore generic [--json] FILE";

struct GenericOptions {
  std::string file;
  bool json = false;
};

struct GenericRow {
  std::string name;
  unsigned long value;
  long long size;
  long long children;  // -1: not a folder
};

// Names whose value lies between 1980 and 2100 read as Unix times; the
// generic names below and above are taken as plain numbers.
const unsigned long kFirstTime = 315532800UL;  // 1980-01-01T00:00:00Z
const unsigned long kLastTime = 4102444800UL;  // 2100-01-01T00:00:00Z

std::string TimeText(unsigned long value) {
  if (value < kFirstTime || value >= kLastTime) return "-";
  const time_t t = static_cast<time_t>(value);
  struct tm utc;
  char text[32];
  if (gmtime_r(&t, &utc) == nullptr ||
      strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc) == 0)
    return "-";
  return text;
}

// Children of the current folder, counted by the object's own child walk;
// -1 when it is not a folder.
long long ChildCount(CTolvarFile& tolvar) {
  kyStream* child = nullptr;
  if (tolvar.GetNextChildStreamName(child) == nullptr) return -1;
  long long count = 0;
  while (child != nullptr) {
    ++count;
    tolvar.GetNextChildStreamName(child);
  }
  return count;
}

void PrintText(const std::vector<GenericRow>& rows) {
  printf("%-8s  %10s  %-20s  %12s  %s\n", "name", "value", "time (UTC)", "size", "children");
  for (const GenericRow& row : rows)
    printf("%-8s  %10lu  %-20s  %12lld  %s\n", PrintableName(row.name).c_str(), row.value,
           TimeText(row.value).c_str(), row.size,
           row.children < 0 ? "-" : std::to_string(row.children).c_str());
}

void PrintJson(const std::vector<GenericRow>& rows) {
  JsonWriter json(std::cout);
  json.BeginObject();
  json.Key("streams");
  json.BeginArray();
  for (const GenericRow& row : rows) {
    json.BeginObject();
    json.NameField("name", row.name);
    json.Key("value");
    json.Uint(row.value);
    json.Key("time");
    const std::string time = TimeText(row.value);
    if (time == "-")
      json.Null();
    else
      json.String(time);
    json.Key("size");
    json.Int(row.size);
    json.Key("children");
    if (row.children < 0)
      json.Null();
    else
      json.Int(row.children);
    json.EndObject();
  }
  json.EndArray();
  json.EndObject();
  json.EndDocument();
  std::cout.flush();
}

int List(const GenericOptions& opt) {
  {
    OpenedStorage check(opt.file, false);  // says why a file will not open
    if (!check) return kExitFailure;
  }
  CTolvarFile tolvar;
  if (!tolvar.Open(opt.file.c_str(), 1)) {
    Complain(opt.file, "cannot open the storage");
    return kExitFailure;
  }
  std::vector<GenericRow> rows;
  while (tolvar.OpenNextStream()) {
    // The object hands names out in one buffer, which the child walk reuses.
    GenericRow row;
    row.name = tolvar.GetStreamName();
    row.value = strtoul(row.name.c_str(), nullptr, 16);
    row.children = ChildCount(tolvar);
    row.size = static_cast<long long>(tolvar.GetStreamSize());
    rows.push_back(row);
  }
  if (opt.json)
    PrintJson(rows);
  else
    PrintText(rows);
  return kExitOk;
}

}  // namespace

Command RegisterGeneric(CLI::App& app, int& status) {
  auto opt = std::make_shared<GenericOptions>();
  CLI::App* sub = app.add_subcommand(
      "generic", "List the generic streams (hexadecimal names): value, time, size, children");
  sub->add_flag("--json", opt->json, "One JSON document on standard output");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->callback([opt, &status] { status = RunReading({opt->file}, [&] { return List(*opt); }); });
  return {sub, kGenericSynopsis};
}

}  // namespace kycli
