// kystore set FILE PATH VALUE --type T: stores an entry through the
// library's typed setters, creating the folders on the way.
#include <memory>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "entry_value.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kSetSynopsis[] = "kystore set FILE PATH VALUE --type TYPE";

struct SetOptions {
  std::string file;
  std::string path;
  std::string text;
  std::string type;
};

// Calls the setter of the value's type on `folder`, or on the storage's
// root for a null folder.  Hex replaces the whole entry with its bytes.
int CallSetter(kyStorage* storage, kyStream* folder, const char* key, const EntryValue& v) {
  const std::string& t = v.type;
  const int32_t n = static_cast<int32_t>(v.numbers[0]);
  if (folder == nullptr) {
    if (t == "int") return storage->SetEntry(key, static_cast<int>(n));
    if (t == "uint") return storage->SetEntry(key, static_cast<DWORD>(v.numbers[0]));
    if (t == "int64") return storage->SetEntry(key, static_cast<__int64>(v.numbers[0]));
    if (t == "double") return storage->SetEntry(key, v.real);
    if (t == "string") return storage->SetEntry(key, v.bytes.c_str());
    return storage->SetEntryEraseOld(key, v.bytes.data(), static_cast<DWORD>(v.bytes.size()), 0);
  }
  if (t == "int") return folder->SetEntry(key, static_cast<int>(n));
  if (t == "uint") return folder->SetEntry(key, static_cast<DWORD>(v.numbers[0]));
  if (t == "int64") return folder->SetEntry(key, static_cast<__int64>(v.numbers[0]));
  if (t == "double") return folder->SetEntry(key, v.real);
  if (t == "string") return folder->SetEntry(key, v.bytes.c_str());
  if (t == "rect") {
    RECT r = {static_cast<LONG>(v.numbers[0]), static_cast<LONG>(v.numbers[1]),
              static_cast<LONG>(v.numbers[2]), static_cast<LONG>(v.numbers[3])};
    return folder->SetEntry(key, &r);
  }
  if (t == "size") {
    SIZE s = {static_cast<LONG>(v.numbers[0]), static_cast<LONG>(v.numbers[1])};
    return folder->SetEntry(key, &s);
  }
  return folder->SetEntryEraseOld(key, v.bytes.data(), static_cast<DWORD>(v.bytes.size()), 0);
}

// Records what the setter recorded: its writes on the entry stream, inside
// the chain of folders.  A string is written as its length word (and long
// length), then its characters; hex as one erase-old write.
void RecordSet(ChangeRecording& rec, const StreamChain& chain, kyStream* entry,
               const EntryValue& v) {
  rec.EnterChain(chain);
  rec.Enter(entry);
  const std::string bytes = EntryBytes(v);
  if (v.type == "hex") {
    rec.Write(entry, bytes.data(), static_cast<DWORD>(bytes.size()), true, false);
  } else if (v.type == "string") {
    const size_t head = bytes.size() - v.bytes.size();
    rec.Write(entry, bytes.data(), 2, false, true);
    if (head == 6) rec.Write(entry, bytes.data() + 2, 4, false, true);
    if (!v.bytes.empty())
      rec.Write(entry, v.bytes.data(), static_cast<DWORD>(v.bytes.size()), false, true);
  } else {
    rec.Write(entry, bytes.data(), static_cast<DWORD>(bytes.size()), false, true);
  }
  rec.Leave(entry);
  rec.LeaveChain(chain);
}

int Store(const SetOptions& opt, const StreamPath& path, const EntryValue& value) {
  OpenedStorage storage(opt.file, true);
  if (!storage) return kExitFailure;
  StreamChain chain;
  const StreamPath folder(path.begin(), path.end() - 1);
  if (!OpenOrCreatePath(storage.get(), opt.file, folder, true, chain)) return kExitFailure;
  const std::string& key = path.back();
  // The setters refuse a folder too, but say only that they failed.
  if (kyStream* old = OpenChild(storage.get(), chain.Leaf(), key, kModeReadShared)) {
    const bool isFolder = old->IsFolder();
    old->Release();
    if (isFolder) {
      ComplainAbout(opt.file, path, "is a folder");
      return kExitFailure;
    }
  }
  if (!CallSetter(storage.get(), chain.Leaf(), key.c_str(), value)) {
    ComplainAbout(opt.file, path, WithWriteError("cannot store the entry"));
    return kExitFailure;
  }
  if (ChangeRecording* rec = ActiveRecording()) {
    StreamPtr entry(OpenChild(storage.get(), chain.Leaf(), key, kModeReadShared));
    if (!entry) {
      ComplainAbout(opt.file, path, "cannot open the entry to record it");
      return kExitFailure;
    }
    RecordSet(*rec, chain, entry.get(), value);
  }
  return kExitOk;
}

int RunSet(const SetOptions& opt) {
  StreamPath path;
  if (!ParsePathArgument(opt.path, kSetSynopsis, path)) return kExitUsage;
  EntryValue value;
  std::string problem;
  // A value that is not of its type is refused before the file is opened.
  if (!ParseEntryValue(opt.type, opt.text, value, problem)) {
    Complain(problem);
    return kExitFailure;
  }
  if (path.size() == 1 && (opt.type == "rect" || opt.type == "size")) {
    Complain("'" + path[0] + "': a " + opt.type + " entry is kept in a folder, not at the root");
    return kExitFailure;
  }
  return RunChanging(
      opt.file, {}, [&] { return Store(opt, path, value); }, true);
}

}  // namespace

Command RegisterSet(CLI::App& app, int& status) {
  auto opt = std::make_shared<SetOptions>();
  CLI::App* sub = app.add_subcommand("set", "Store an entry of a type, creating missing folders");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The entry: Folder/Key, or Key for a root entry")->required();
  sub->add_option("VALUE", opt->text, "The value, e.g. 640, 2.5, text, '0 0 640 480', 'ff 00'")
      ->required();
  sub->add_option("-t,--type", opt->type, "Its type")
      ->required()
      ->check(CLI::IsMember(kEntryTypeNames));
  sub->callback([opt, &status] { status = RunSet(*opt); });
  return {sub, kSetSynopsis};
}

}  // namespace kycli
