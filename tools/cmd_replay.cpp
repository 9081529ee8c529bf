// kystore replay FILE REC: applies a recording kept in the plain file REC
// to a storage and reports how many records it applied.
#include <cstdio>
#include <memory>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "storage_util.h"

namespace kycli {

namespace {

const char kReplaySynopsis[] = "kystore replay FILE REC";

struct ReplayOptions {
  std::string file;
  std::string rec;
};

int Replay(const ReplayOptions& opt, unsigned char* buf, unsigned int size, int& applied) {
  OpenedStorage storage(opt.file, true);
  if (!storage) return kExitFailure;
  applied = storage->ReplayRecording(buf, size);
  return kExitOk;
}

int RunReplay(const ReplayOptions& opt) {
  unsigned int size = 0;
  std::string error;
  std::unique_ptr<unsigned char, void (*)(void*)> buf(nullptr, free);
  // The recording is read under a shared lock, like a storage.
  int status = RunReading({opt.rec}, [&] {
    buf.reset(LoadRecordingFile(opt.rec, size, error));
    if (buf) return kExitOk;
    Complain(opt.rec, error);
    return kExitFailure;
  });
  if (status != kExitOk) return status;
  unsigned int end = 0;
  const unsigned int whole = CountWholeRecords(buf.get(), size, &end);
  int applied = 0;
  // A replay that stops early keeps what it applied, as the library does;
  // the damage is reported and the exit status says so.
  status = RunChanging(opt.file, {opt.rec}, [&] { return Replay(opt, buf.get(), end, applied); });
  if (status != kExitOk) return status;
  printf("%d records applied\n", applied);
  if (end < size) {
    fflush(stdout);
    Complain(opt.rec, "not a whole recording: damaged or cut short at byte " + std::to_string(end) +
                          " after " + std::to_string(whole) + " records");
    return kExitFailure;
  }
  if (static_cast<unsigned int>(applied) < whole) {
    fflush(stdout);
    Complain(opt.file, "the replay stopped at record " + std::to_string(applied + 1) + " of " +
                           std::to_string(whole) + " (a stream could not be opened or made)");
    return kExitFailure;
  }
  return kExitOk;
}

}  // namespace

Command RegisterReplay(CLI::App& app, int& status) {
  auto opt = std::make_shared<ReplayOptions>();
  CLI::App* sub = app.add_subcommand("replay", "Apply a recording kept in a file to a storage");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("REC", opt->rec, "A file holding recordings (kystore --record)")->required();
  sub->callback([opt, &status] { status = RunReplay(*opt); });
  return {sub, kReplaySynopsis};
}

}  // namespace kycli
