// kystore recording FILE: prints a recording buffer kept in a plain file,
// one record a line.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "kystore.h"

namespace kycli {

namespace {

// Data bytes shown per record; longer data end in "...".
const DWORD kShownBytes = 16;

const char* KindName(RecOpEnum op) {
  switch (op) {
    case RecOpEnter:
      return "enter";
    case RecOpEnterFast:
      return "enter-fast";
    case RecOpLeave:
      return "leave";
    case RecOpRemove:
      return "remove";
    case RecOpWrite:
      return "write";
    case RecOpAppend:
      return "append";
  }
  return "?";
}

std::string HexBytes(const unsigned char* data, DWORD n) {
  std::string text;
  char byte[4];
  for (DWORD i = 0; i < n && i < kShownBytes; ++i) {
    snprintf(byte, sizeof(byte), i == 0 ? "%02x" : " %02x", data[i]);
    text += byte;
  }
  if (n > kShownBytes) text += " ...";
  return text;
}

// One line: kind, name, flags, data length, first data bytes.  Fields a
// kind does not have are shown as "-".
void PrintRecord(RecOpEnum op, const char* name, const unsigned char* data, DWORD n) {
  std::string nameText = "-", flags = "-", length = "-", bytes = "-";
  switch (op) {
    case RecOpEnter:
    case RecOpEnterFast:
      nameText = name;
      flags = std::to_string(n);
      break;
    case RecOpRemove:
      nameText = name;
      break;
    case RecOpWrite:
    case RecOpAppend:
      flags = name;  // the flag text, "10" or "1"
      length = std::to_string(n);
      if (n > 0) bytes = HexBytes(data, n);
      break;
    case RecOpLeave:
      break;
  }
  printf("%-10s %-20s %-5s %10s  %s\n", KindName(op), nameText.c_str(), flags.c_str(),
         length.c_str(), bytes.c_str());
}

int PrintRecording(const std::string& file) {
  unsigned int size = 0;
  std::string error;
  unsigned char* buf = LoadRecordingFile(file, size, error);
  if (buf == nullptr) {
    Complain(file, error);
    return kExitFailure;
  }
  CCompRecorder recorder;
  recorder.Attach(buf, size, 1);  // the recorder frees it
  RecOpEnum op;
  char name[64];
  unsigned char* data = nullptr;
  DWORD n = 0;
  for (;;) {
    unsigned int start = recorder.GetBufferPos();
    if (start >= recorder.GetDataLength()) return kExitOk;
    if (!recorder.PopOp(&op, name, &data, &n)) {
      fflush(stdout);
      Complain(file, "malformed record at byte " + std::to_string(start));
      return kExitFailure;
    }
    PrintRecord(op, name, data, n);
  }
}

// The buffer is a plain file, not a storage; it is still refused unless it
// is a regular file, and read under a shared lock like a storage.
int RunRecording(const std::string& file) {
  return RunReading({file}, [&] { return PrintRecording(file); });
}

}  // namespace

Command RegisterRecording(CLI::App& app, int& status) {
  auto file = std::make_shared<std::string>();
  CLI::App* sub = app.add_subcommand(
      "recording", "Print a recording buffer kept in a file: kind, name, flags, length, data");
  sub->add_option("FILE", *file, "A file holding a recording buffer")->required();
  sub->callback([file, &status] { status = RunRecording(*file); });
  return {sub, "kystore recording FILE"};
}

}  // namespace kycli
