// kystore dump FILE PATH [--offset N] [--length N]: a stream's data as hex
// and text, sixteen bytes a line, laid out as xxd lays them out.
#include <cstdio>
#include <memory>
#include <vector>

#include "change_session.h"
#include "commands.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"
#include "tree_walk.h"

namespace kycli {

namespace {

const char kDumpSynopsis[] = "kystore dump FILE PATH [--offset N] [--length N]";
const int kBytesPerLine = 16;

struct DumpOptions {
  std::string file;
  std::string path;
  int64_t offset = 0;
  int64_t length = -1;  // -1: up to the end of the stream
};

// --offset and --length take a count of bytes: digits only, so that a
// negative or malformed count is a usage error with a plain message.
const CLI::Validator kByteCount(
    [](std::string& text) {
      if (text.empty() || text.size() > 18 ||
          text.find_first_not_of("0123456789") != std::string::npos)
        return std::string("'" + text + "' is not a byte count (0 or more)");
      return std::string();
    },
    "N");

// One line: the offset within the stream, the bytes in hex in pairs, and
// the printable ASCII ones as text ('.' for the others).
void PrintLine(int64_t at, const unsigned char* bytes, int count) {
  char line[128];
  int n = snprintf(line, sizeof(line), "%08llx:", static_cast<unsigned long long>(at));
  for (int i = 0; i < kBytesPerLine; ++i) {
    if (i % 2 == 0) line[n++] = ' ';
    n += i < count ? snprintf(line + n, sizeof(line) - n, "%02x", bytes[i])
                   : snprintf(line + n, sizeof(line) - n, "  ");
  }
  line[n++] = ' ';
  line[n++] = ' ';
  for (int i = 0; i < count; ++i) line[n++] = bytes[i] >= 0x20 && bytes[i] < 0x7F ? bytes[i] : '.';
  line[n++] = '\n';
  fwrite(line, 1, static_cast<size_t>(n), stdout);
}

// Dumps `count` bytes from data position `start`.
int DumpRange(kyStream* stm, int64_t start, int64_t count, const std::string& subject) {
  if (count == 0) return kExitOk;
  if (stm->Seek(start, 0, true) != 0) {
    Complain(subject, "cannot read the stream: damaged");
    return kExitFailure;
  }
  // Whole lines per read, so that only the last line is short.
  std::vector<unsigned char> buf(4096 * kBytesPerLine);
  for (int64_t done = 0; done < count;) {
    const int64_t want =
        count - done < static_cast<int64_t>(buf.size()) ? count - done : buf.size();
    const int64_t got = stm->Read(buf.data(), want);
    if (got != want) {
      Complain(subject,
               "cannot read the stream past byte " + std::to_string(start + done) + ": damaged");
      return kExitFailure;
    }
    for (int64_t i = 0; i < got; i += kBytesPerLine) {
      const int64_t rest = got - i;
      PrintLine(start + done + i, buf.data() + i,
                rest < kBytesPerLine ? static_cast<int>(rest) : kBytesPerLine);
    }
    if (ferror(stdout)) {
      Complain("write error on standard output");
      return kExitFailure;
    }
    done += got;
  }
  return kExitOk;
}

int DumpStream(const DumpOptions& opt, const StreamPath& path) {
  OpenedPath opened(opt.file, path, false);
  if (!opened) return kExitFailure;
  kyStream* stm = opened.Leaf();
  const std::string subject = opt.file + ": " + JoinPath(path);
  // A folder's data are its slot table, not data of the user's.
  if (stm->IsFolder()) {
    ComplainAbout(opt.file, path, "is a folder");
    return kExitFailure;
  }
  const std::string problem = LengthProblem(stm);
  if (!problem.empty()) {
    Complain(subject, "cannot read the stream: " + problem);
    return kExitFailure;
  }
  // An offset at or past the end shows nothing, as xxd -s does past the
  // end of a file: there is nothing there to show, which is no failure.
  const int64_t length = stm->GetLength();
  if (opt.offset >= length) return kExitOk;
  const int64_t rest = length - opt.offset;
  const int64_t count = opt.length >= 0 && opt.length < rest ? opt.length : rest;
  return DumpRange(stm, opt.offset, count, subject);
}

int RunDump(const DumpOptions& opt) {
  StreamPath path;
  if (!ParsePathArgument(opt.path, kDumpSynopsis, path)) return kExitUsage;
  return RunReading({opt.file}, [&] { return DumpStream(opt, path); });
}

}  // namespace

Command RegisterDump(CLI::App& app, int& status) {
  auto opt = std::make_shared<DumpOptions>();
  CLI::App* sub = app.add_subcommand("dump", "Show a stream's data as hex and text, as xxd does");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The stream, e.g. Top/Mid/Leaf")->required();
  sub->add_option("--offset", opt->offset, "Start at this byte of the stream (default 0)")
      ->check(kByteCount);
  sub->add_option("--length", opt->length, "Show at most this many bytes (default: all)")
      ->check(kByteCount);
  sub->callback([opt, &status] { status = RunDump(*opt); });
  return {sub, kDumpSynopsis};
}

}  // namespace kycli
