#include "change_session.h"

#include <csignal>
#include <cstring>

#include "change_recording.h"
#include "commands.h"
#include "file_lock.h"
#include "platform/write_journal.h"

namespace kycli {

namespace {

volatile sig_atomic_t g_interrupted = 0;

extern "C" void NoteInterrupt(int) {
  g_interrupted = 1;
}

// For the length of a change: the signals that ask the command to stop are
// noted instead of ending it half-way, and SIGXFSZ is ignored so that a
// write past the file size limit fails (EFBIG) and is undone instead of
// killing the process.
class SignalGuard {
 public:
  SignalGuard() {
    struct sigaction note;
    memset(&note, 0, sizeof(note));
    note.sa_handler = NoteInterrupt;
    note.sa_flags = SA_RESTART;
    sigemptyset(&note.sa_mask);
    struct sigaction ignore = note;
    ignore.sa_handler = SIG_IGN;
    for (int i = 0; i < kCount; ++i)
      sigaction(kSignals[i], kSignals[i] == SIGXFSZ ? &ignore : &note, &m_old[i]);
  }
  ~SignalGuard() {
    for (int i = 0; i < kCount; ++i) sigaction(kSignals[i], &m_old[i], nullptr);
  }
  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

 private:
  static const int kCount = 4;
  static constexpr int kSignals[kCount] = {SIGINT, SIGTERM, SIGHUP, SIGXFSZ};
  struct sigaction m_old[kCount];
};

}  // namespace

int RunReading(const std::vector<std::string>& files, const std::function<int()>& work) {
  std::vector<FileUse> uses;
  for (const std::string& f : files) uses.push_back({f, false});
  FileLocks locks;
  if (!locks.Take(uses)) return kExitFailure;
  return work();
}

namespace {

// Runs `work` with a recording active when one is asked for, and appends
// what it recorded once it succeeded.
int WorkAndRecord(const std::string& file, const std::function<int()>& work, bool records) {
  if (!records || RecordFile().empty()) return work();
  ChangeRecording recording;
  SetActiveRecording(&recording);
  int status = work();
  SetActiveRecording(nullptr);
  if (status != kExitOk) return status;
  std::string error;
  if (!recording.Complete()) {
    Complain(file,
             "the change nests deeper than a recording holds (32 levels); nothing was changed");
    return kExitFailure;
  }
  if (!recording.AppendTo(RecordFile(), error)) {
    Complain(RecordFile(), error + "; nothing was changed");
    return kExitFailure;
  }
  return kExitOk;
}

}  // namespace

int RunChanging(const std::string& file, const std::vector<std::string>& readFiles,
                const std::function<int()>& work, bool records) {
  std::vector<FileUse> uses = {{file, true}};
  for (const std::string& f : readFiles) uses.push_back({f, false});
  FileLocks locks;
  if (!locks.Take(uses)) return kExitFailure;
  SignalGuard signals;
  WriteJournal journal;
  if (!journal.Begin(file.c_str())) {
    Complain(file, strerror(errno));
    return kExitFailure;
  }
  // Work that ran to its end is kept even when a signal came meanwhile:
  // the change is whole.  Long work stops early on a signal and fails.
  const int status = WorkAndRecord(file, work, records);
  if (status == kExitOk) {
    journal.Commit();
    return kExitOk;
  }
  if (Interrupted()) Complain(file, "interrupted; nothing was changed");
  if (!journal.RollBack())
    Complain(file, std::string("cannot undo the failed change (") + strerror(errno) +
                       "); the file may be damaged");
  return status;
}

std::string WriteErrorText() {
  const WriteJournal* journal = WriteJournal::Current();
  if (journal == nullptr || journal->WriteError() == 0) return "";
  return strerror(journal->WriteError());
}

std::string WithWriteError(const std::string& message) {
  const std::string cause = WriteErrorText();
  return cause.empty() ? message : message + ": " + cause;
}

bool Interrupted() {
  return g_interrupted != 0;
}

}  // namespace kycli
