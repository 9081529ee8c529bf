// kystore generic FILE: lists the generic streams of a storage (root
// streams named by eight hexadecimal digits) as CTolvarFile walks them:
// name, the name's value as a number and, when it looks like a time stamp,
// as a UTC time, the size and, for a folder, the number of children.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "kystore/tolvar_file.h"
#include "storage_util.h"

namespace kycli {

namespace {

const char kGenericSynopsis[] = "kystore generic FILE";

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

// Children of the current folder, counted by the object's own child walk.
std::string ChildCount(CTolvarFile& tolvar) {
  kyStream* child = nullptr;
  if (tolvar.GetNextChildStreamName(child) == nullptr) return "-";
  long long count = 0;
  while (child != nullptr) {
    ++count;
    tolvar.GetNextChildStreamName(child);
  }
  return std::to_string(count);
}

int List(const std::string& file) {
  {
    OpenedStorage check(file, false);  // says why a file will not open
    if (!check) return kExitFailure;
  }
  CTolvarFile tolvar;
  if (!tolvar.Open(file.c_str(), 1)) {
    Complain(file, "cannot open the storage");
    return kExitFailure;
  }
  printf("%-8s  %10s  %-20s  %12s  %s\n", "name", "value", "time (UTC)", "size", "children");
  while (tolvar.OpenNextStream()) {
    // The object hands names out in one buffer, which the child walk reuses.
    const std::string name = tolvar.GetStreamName();
    const unsigned long value = strtoul(name.c_str(), nullptr, 16);
    const std::string children = ChildCount(tolvar);
    printf("%-8s  %10lu  %-20s  %12lld  %s\n", name.c_str(), value, TimeText(value).c_str(),
           static_cast<long long>(tolvar.GetStreamSize()), children.c_str());
  }
  return kExitOk;
}

}  // namespace

Command RegisterGeneric(CLI::App& app, int& status) {
  auto file = std::make_shared<std::string>();
  CLI::App* sub = app.add_subcommand(
      "generic", "List the generic streams (hexadecimal names): value, time, size, children");
  sub->add_option("FILE", *file, "The storage file")->required();
  sub->callback([file, &status] { status = RunReading({*file}, [&] { return List(*file); }); });
  return {sub, kGenericSynopsis};
}

}  // namespace kycli
