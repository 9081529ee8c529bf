// kystore put FILE PATH [SRC]: stores a file (or standard input) as a
// stream's data.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "commands.h"
#include "kystore.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kPutSynopsis[] = "kystore put FILE PATH [SRC]";

struct PutOptions {
  std::string file;
  std::string path;
  std::string source;  // empty or "-": standard input
};

struct InputCloser {
  void operator()(FILE* f) const {
    if (f != stdin) fclose(f);
  }
};
typedef std::unique_ptr<FILE, InputCloser> Input;

// Writes all of `in` into `stm` from its start.  Every chunk is written
// with bEraseOld, so the stream (its length and its last block) ends where
// the data written so far end, and old bytes past them are not counted.
int CopyFromInput(FILE* in, kyStream* stm, const std::string& subject,
                  const std::string& inputName) {
  if (stm->GetLength() > 0 && !stm->Erase()) {
    Complain(subject, "cannot empty the stream");
    return kExitFailure;
  }
  std::vector<char> buf(1 << 20);
  for (;;) {
    size_t n = fread(buf.data(), 1, buf.size(), in);
    if (n > 0) {
      int64_t written = stm->Write(buf.data(), static_cast<int64_t>(n), true);
      if (written < 0) {
        Complain(subject, "write failed");
        return kExitFailure;
      }
      if (written != static_cast<int64_t>(n)) {
        Complain(subject, "the data do not fit (a stream holds at most " +
                              std::to_string(kyStorage::g_iMaxCompStmSize) + " bytes)");
        return kExitFailure;
      }
    }
    if (n < buf.size()) break;
  }
  if (ferror(in)) {
    Complain(inputName, "read error");
    return kExitFailure;
  }
  return kExitOk;
}

int RunPut(PutOptions opt) {
  if (opt.source == "-") opt.source.clear();
  StreamPath path;
  if (!ParsePathArgument(opt.path, kPutSynopsis, path)) return kExitUsage;
  std::string inputName = opt.source.empty() ? "standard input" : opt.source;
  // The stream is emptied before the data are read, so a source that
  // cannot be read at all is refused first.
  struct stat st;
  if (!opt.source.empty() && stat(opt.source.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    Complain(opt.source, "is a directory");
    return kExitFailure;
  }
  Input in(opt.source.empty() ? stdin : fopen(opt.source.c_str(), "rb"));
  if (!in) {
    Complain(opt.source, strerror(errno));
    return kExitFailure;
  }
  OpenedStorage storage(opt.file, true);
  if (!storage) return kExitFailure;
  StreamChain chain;
  if (!OpenOrCreatePath(storage.get(), opt.file, path, false, chain)) return kExitFailure;
  return CopyFromInput(in.get(), chain.Leaf(), opt.file + ": " + JoinPath(path), inputName);
}

}  // namespace

Command RegisterPut(CLI::App& app, int& status) {
  auto opt = std::make_shared<PutOptions>();
  CLI::App* sub = app.add_subcommand(
      "put", "Store a file (or standard input) as a stream's data, creating what is missing");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The stream, e.g. Top/Mid/Leaf")->required();
  sub->add_option("SRC", opt->source, "The file to store (default, or '-': standard input)");
  sub->callback([opt, &status] { status = RunPut(*opt); });
  return {sub, kPutSynopsis};
}

}  // namespace kycli
