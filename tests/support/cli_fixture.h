// Shared by the tests of the kystore command: runs it as a separate process
// on files in a private temporary directory and checks its status and
// output.  Only for test binaries built with KYSTORE_CLI_PATH.
#ifndef KYSTORE_TESTS_SUPPORT_CLI_FIXTURE_H_
#define KYSTORE_TESTS_SUPPORT_CLI_FIXTURE_H_

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace kytest {

typedef std::vector<std::string> Args;

struct CliResult {
  int status;
  std::string out;
  std::string err;
};

inline std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

inline std::string ReadText(const std::string& path) {
  Bytes b = ReadAll(path);
  return std::string(b.begin(), b.end());
}

// `n` pseudo-random bytes, the same for the same seed.
inline std::string Pattern(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) {
    seed = seed * 1103515245u + 12345u;
    s[i] = static_cast<char>(seed >> 16);
  }
  return s;
}

class CliFixture : public ::testing::Test {
 protected:
  // The command line that runs kystore with `args`.
  static std::string CommandLine(const Args& args) {
    std::string cmd = Quote(KYSTORE_CLI_PATH);
    for (const std::string& a : args) cmd += " " + Quote(a);
    return cmd;
  }
  // Runs the command with `args`, feeding `input` on stdin.  `shell` is
  // put before the command in the shell line (limits, traps, "exec ...").
  CliResult Run(const Args& args, const std::string& input = "", const std::string& shell = "") {
    std::string in = dir.File("cli.in"), out = dir.File("cli.out"), err = dir.File("cli.err");
    WriteAll(in, Bytes(input.begin(), input.end()));
    std::string cmd = shell + CommandLine(args);
    cmd += " <" + Quote(in) + " >" + Quote(out) + " 2>" + Quote(err);
    int rc = std::system(cmd.c_str());
    return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, ReadText(out), ReadText(err)};
  }
  // Runs a command that must succeed silently on stderr; returns stdout.
  std::string Ok(const Args& args, const std::string& input = "") {
    CliResult r = Run(args, input);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    return r.out;
  }
  // Runs a command that must fail with status 1 and `err` on stderr.
  CliResult Fails(const Args& args, const std::string& err, const std::string& input = "",
                  const std::string& shell = "") {
    CliResult r = Run(args, input, shell);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find(err), std::string::npos) << r.err;
    return r;
  }
  // Runs a command that must be refused as bad usage.
  void Usage(const Args& args, const std::string& input = "") {
    CliResult r = Run(args, input);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("usage: kystore"), std::string::npos) << r.err;
  }
  // Creates root streams through the library.
  void AddRoots(const std::vector<std::string>& names, DWORD dwType = 0) {
    kyStorage* storage = kyStorage::Open(file.c_str(), 0x16, 4096, 0);
    ASSERT_NE(storage, nullptr);
    for (const std::string& name : names) {
      kyStream* stm = storage->CreateStream(name.c_str(), dwType, 0x16);
      ASSERT_NE(stm, nullptr);
      stm->Release();
    }
    storage->Release();
  }
  Bytes Image() const { return ReadAll(file); }

  TempDir dir;
  std::string file = dir.File("s.kys");
};

// A new storage of the parameter's offset width for each test.
class CliWidthFixture : public CliFixture, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override { Ok(GetParam() ? Args{"create", file} : Args{"create", "--32", file}); }
};

inline std::string WidthName(const ::testing::TestParamInfo<bool>& p) {
  return p.param ? "Offsets64" : "Offsets32";
}

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_CLI_FIXTURE_H_
