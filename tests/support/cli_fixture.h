// The fixture of the command tests: the kystore command run as a separate
// process on a new storage of the parameter's offset width.
#ifndef KYSTORE_TESTS_SUPPORT_CLI_FIXTURE_H_
#define KYSTORE_TESTS_SUPPORT_CLI_FIXTURE_H_

#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kystore.h"
#include "support/test_util.h"

namespace kytest {

typedef std::vector<std::string> Args;

struct CliResult {
  int status;
  std::string out, err;
};

inline std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// `n` pseudo-random bytes, the same for the same seed.
inline std::string Pattern(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
  return s;
}

// Each test starts with a new storage `file` of the parameter's width.
class Cli : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { Ok(GetParam() ? Args{"create", file} : Args{"create", "--32", file}); }
  static std::string CommandLine(const Args& args) {
    std::string cmd = Quote(KYSTORE_CLI_PATH);
    for (const std::string& a : args) cmd += " " + Quote(a);
    return cmd;
  }
  // Runs the command with `args`, feeding `input` on stdin.  `shell` is
  // put before the command in the shell line (limits, traps, "exec ...").
  CliResult Run(const Args& args, const std::string& input = "", const std::string& shell = "") {
    const std::string in = dir.File("cli.in"), out = dir.File("cli.out"), err = dir.File("cli.err");
    WriteAll(in, Bytes(input.begin(), input.end()));
    const int rc = std::system(
        (shell + CommandLine(args) + " <" + Quote(in) + " >" + Quote(out) + " 2>" + Quote(err))
            .c_str());
    const Bytes o = ReadAll(out), e = ReadAll(err);
    return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, {o.begin(), o.end()}, {e.begin(), e.end()}};
  }
  // Runs a command that must succeed silently on stderr; returns stdout.
  std::string Ok(const Args& args, const std::string& input = "") {
    CliResult r = Run(args, input);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    return r.out;
  }
  // Runs a command that must fail with `status` and `err` on stderr.
  CliResult Fails(const Args& args, const std::string& err, const std::string& input = "",
                  int status = 1, const std::string& shell = "") {
    CliResult r = Run(args, input, shell);
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_NE(r.err.find(err), std::string::npos) << r.err;
    return r;
  }
  // Creates root streams through the library.
  void AddRoots(const std::vector<std::string>& names, DWORD dwType = 0, bool fast = false) {
    kyStorage* storage = kyStorage::Open(file.c_str(), 0x16, 4096, 0);
    ASSERT_NE(storage, nullptr);
    for (const std::string& name : names) {
      kyStream* s = fast ? storage->CreateStreamFast(name.c_str(), dwType, 0x16)
                         : storage->CreateStream(name.c_str(), dwType, 0x16);
      ASSERT_NE(s, nullptr);
      s->Release();
    }
    storage->Release();
  }
  Bytes Image() const { return ReadAll(file); }
  size_t W() const { return GetParam() ? 92 : 80; }
  // The file offset of root slot `i` of the first directory block.
  size_t RootSlot(int i) const { return (GetParam() ? 32 + 16 : 32 + 12) + W() * i; }
  void PutWidth(Bytes& image, size_t at, int64_t v) const {
    if (GetParam())
      Put64(image, at, v);
    else
      Put32(image, at, static_cast<uint32_t>(v));
  }

  TempDir dir;
  std::string file = dir.File("s.kys");
};

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_CLI_FIXTURE_H_
