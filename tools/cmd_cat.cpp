// kystore cat FILE PATH: writes a stream's data to standard output.
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

const char kCatSynopsis[] = "kystore cat FILE PATH";

struct CatOptions {
  std::string file;
  std::string path;
};

// Copies exactly GetLength() bytes from the start of the stream.  A length
// the blocks cannot give is refused before anything is written.
int CopyToStdout(kyStream* stm, const std::string& subject) {
  int64_t length = stm->GetLength();
  std::string problem = LengthProblem(stm);
  // The check moved the shared file position; start from an absolute seek
  // (a stream without blocks cannot seek, and has no data).
  if (problem.empty() && length > 0 && stm->Seek(0, 0, true) != 0) problem = "damaged";
  if (!problem.empty()) {
    Complain(subject, "cannot read the stream: " + problem);
    return kExitFailure;
  }
  std::vector<char> buf(1 << 20);
  for (int64_t done = 0; done < length;) {
    int64_t want = length - done < static_cast<int64_t>(buf.size()) ? length - done : buf.size();
    int64_t got = stm->Read(buf.data(), want);
    if (got <= 0) {
      Complain(subject, "cannot read the stream past byte " + std::to_string(done) + ": damaged");
      return kExitFailure;
    }
    if (fwrite(buf.data(), 1, static_cast<size_t>(got), stdout) != static_cast<size_t>(got)) {
      Complain("write error on standard output");
      return kExitFailure;
    }
    done += got;
  }
  return kExitOk;
}

int CatStream(const CatOptions& opt, const StreamPath& path) {
  OpenedPath opened(opt.file, path, false);
  if (!opened) return kExitFailure;
  if (opened.Leaf()->IsFolder()) {
    ComplainAbout(opt.file, path, "is a folder");
    return kExitFailure;
  }
  return CopyToStdout(opened.Leaf(), opt.file + ": " + JoinPath(path));
}

int RunCat(const CatOptions& opt) {
  StreamPath path;
  if (!ParsePathArgument(opt.path, kCatSynopsis, path)) return kExitUsage;
  return RunReading({opt.file}, [&] { return CatStream(opt, path); });
}

}  // namespace

Command RegisterCat(CLI::App& app, int& status) {
  auto opt = std::make_shared<CatOptions>();
  CLI::App* sub = app.add_subcommand("cat", "Write a stream's data to standard output");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The stream, e.g. Top/Mid/Leaf")->required();
  sub->callback([opt, &status] { status = RunCat(*opt); });
  return {sub, kCatSynopsis};
}

}  // namespace kycli
