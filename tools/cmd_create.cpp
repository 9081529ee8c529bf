// kystore create [--32] [-f] FILE: makes a new, empty storage file.
#include <sys/stat.h>

#include <memory>

#include "commands.h"
#include "kystore.h"

namespace kycli {

namespace {

struct CreateOptions {
  std::string file;
  bool offsets32 = false;
  bool force = false;
};

int RunCreate(const CreateOptions& opt) {
  struct stat st;
  // Creating a storage empties whatever file has the name; without --force
  // an existing file is left alone, so a typo cannot wipe out a storage.
  if (!opt.force && stat(opt.file.c_str(), &st) == 0) {
    Complain(opt.file, "file exists (use --force to replace it)");
    return kExitFailure;
  }
  if (opt.file.size() >= MAX_PATH) {
    Complain(opt.file, "path too long (at most 259 characters)");
    return kExitFailure;
  }
  int saved = kyStorage::g_bUse64BitOffsets;
  kyStorage::g_bUse64BitOffsets = opt.offsets32 ? 0 : 1;
  kyStorage* storage = kyStorage::Create(opt.file.c_str(), kModeReadWriteShared, 4096);
  kyStorage::g_bUse64BitOffsets = saved;
  if (storage == nullptr) {
    Complain(opt.file, "cannot create the storage");
    return kExitFailure;
  }
  storage->Release();
  return kExitOk;
}

}  // namespace

Command RegisterCreate(CLI::App& app, int& status) {
  auto opt = std::make_shared<CreateOptions>();
  CLI::App* sub = app.add_subcommand("create", "Create a new, empty storage file");
  sub->add_flag("--32", opt->offsets32, "Use 32-bit file offsets (the default is 64-bit)");
  sub->add_flag("-f,--force", opt->force, "Replace an existing file");
  sub->add_option("FILE", opt->file, "The storage file to create")->required();
  sub->callback([opt, &status] { status = RunCreate(*opt); });
  return {sub, "kystore create [--32] [-f] FILE"};
}

}  // namespace kycli
