// kystore get [--json] FILE PATH [--type T]: prints one entry, the data stream
// named by PATH's last name in the folder the rest names (a root stream
// when there is no rest).
#include <cstdio>
#include <iostream>
#include <memory>

#include "change_session.h"
#include "commands.h"
#include "entry_value.h"
#include "json_writer.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kGetSynopsis[] = "kystore get [--json] FILE PATH [--type TYPE]";

struct GetOptions {
  std::string file;
  std::string path;
  std::string type;  // empty: decode by length
  bool json = false;
};

// The entry as the text shows it, with its length and all its bytes.
void PrintJson(const GetOptions& opt, const StreamPath& path, int64_t length,
               const std::string& raw, const std::string& text) {
  JsonWriter json(std::cout);
  json.BeginObject();
  json.NameField("path", JoinPath(path));
  json.Key("length");
  json.Int(length);
  json.Key("type");
  if (opt.type.empty())
    json.Null();
  else
    json.String(opt.type);
  json.Key("value");
  json.String(text);
  json.Key("hex");
  json.String(HexOf(raw));
  json.EndObject();
  json.EndDocument();
  std::cout.flush();
}

int Print(const GetOptions& opt, const StreamPath& path) {
  OpenedStorage storage(opt.file, false);
  if (!storage) return kExitFailure;
  StreamChain chain;
  const StreamPath folder(path.begin(), path.end() - 1);
  if (!OpenPath(storage.get(), opt.file, folder, kModeReadShared, chain)) return kExitFailure;
  if (!chain.LeafIsFolder()) {
    ComplainAbout(opt.file, folder, "not a folder");
    return kExitFailure;
  }
  if (!chain.OpenBelow(storage.get(), path.back(), false)) {
    ComplainAbout(opt.file, path, "no such entry");
    return kExitFailure;
  }
  kyStream* entry = chain.Leaf();
  std::string raw, text, problem;
  if (entry->IsFolder())
    problem = "is a folder";
  else if (!ReadEntryData(entry, kyStorage::g_iMaxCompStmSize, raw))
    problem = "cannot read the stream";
  else if (opt.type.empty())
    text = DescribeByLength(raw, entry->GetLength(), raw.size());
  else
    ShowTyped(opt.type, raw, text, problem);
  if (!problem.empty()) {
    ComplainAbout(opt.file, path, problem);
    return kExitFailure;
  }
  if (opt.json)
    PrintJson(opt, path, entry->GetLength(), raw, text);
  else
    printf("%s\n", text.c_str());
  return kExitOk;
}

int RunGet(const GetOptions& opt) {
  StreamPath path;
  if (!ParsePathArgument(opt.path, kGetSynopsis, path)) return kExitUsage;
  return RunReading({opt.file}, [&] { return Print(opt, path); });
}

}  // namespace

Command RegisterGet(CLI::App& app, int& status) {
  auto opt = std::make_shared<GetOptions>();
  CLI::App* sub = app.add_subcommand("get", "Print an entry, decoded by its type or its length");
  sub->add_flag("--json", opt->json, "One JSON document on standard output");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The entry: Folder/Key, or Key for a root entry")->required();
  sub->add_option("-t,--type", opt->type, "Read it as this type")
      ->check(CLI::IsMember(kEntryTypeNames));
  sub->callback([opt, &status] { status = RunGet(*opt); });
  return {sub, kGetSynopsis};
}

}  // namespace kycli
