// kystore compact [--progress] FILE: rebuilds a storage into a compact
// copy of itself (kyStorage::Recreate) and reports the sizes.
//
// The rebuild writes a fresh file beside the storage and renames it over
// the storage in one step only when the copy is whole, so the storage is
// either the old file or the new one at every moment, even when the
// command is killed; no journal is needed.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "commands.h"
#include "file_lock.h"
#include "hierarchy/child_slots.h"
#include "kystore.h"
#include "storage_util.h"

namespace kycli {

namespace {

const char kCompactSynopsis[] = "kystore compact [--progress] FILE";

struct CompactOptions {
  std::string file;
  bool progress = false;
};

// The progress line, rewritten in place.
void ShowProgress(int done, int total, void*) {
  fprintf(stderr, "\rcompact: %d of %d streams done", done, total);
  fflush(stderr);
}

int64_t SizeOf(const std::string& file) {
  struct stat st;
  return stat(file.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

// Streams at and below `stm`, bounded by the depth the library opens.
int64_t CountBelow(kyStream* stm, int depth) {
  int64_t count = 1;
  if (!stm->IsFolder() || depth >= kMaxFolderDepth) return count;
  __int64 cursor = 0;
  for (kyStream* child = stm->OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = stm->OpenStreamNext(&cursor, kModeReadShared)) {
    count += CountBelow(child, depth + 1);
    child->Release();
  }
  return count;
}

int Compact(const CompactOptions& opt) {
  {
    OpenedStorage check(opt.file, false);  // says why a file will not open
    if (!check) return kExitFailure;
  }
  const int64_t before = SizeOf(opt.file);
  const bool show = opt.progress || isatty(STDERR_FILENO);
  const int rebuilt = kyStorage::Recreate(opt.file.c_str(), show ? ShowProgress : nullptr, nullptr);
  if (show) fprintf(stderr, "\n");
  if (!rebuilt) {
    Complain(opt.file,
             "cannot rebuild the storage (damaged, or no room for the copy); it is unchanged");
    return kExitFailure;
  }
  OpenedStorage storage(opt.file, false);
  if (!storage) return kExitFailure;
  int64_t streams = 0;
  ForEachRootStream(storage.get(), [&](kyStream* stm, int) {
    if (stm != nullptr) streams += CountBelow(stm, 1), stm->Release();
    return true;
  });
  printf("size before: %lld bytes\nsize after:  %lld bytes\nstreams:     %lld\n",
         static_cast<long long>(before), static_cast<long long>(SizeOf(opt.file)),
         static_cast<long long>(streams));
  return kExitOk;
}

int RunCompact(const CompactOptions& opt) {
  FileLocks locks;
  if (!locks.Take({{opt.file, true}})) return kExitFailure;
  return Compact(opt);
}

}  // namespace

Command RegisterCompact(CLI::App& app, int& status) {
  auto opt = std::make_shared<CompactOptions>();
  CLI::App* sub =
      app.add_subcommand("compact", "Rebuild a storage compactly, dropping what was freed");
  sub->add_flag("--progress", opt->progress,
                "Show the progress line also when stderr is not a terminal");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->callback([opt, &status] { status = RunCompact(*opt); });
  return {sub, kCompactSynopsis};
}

}  // namespace kycli
