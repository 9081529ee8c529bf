// The kystore command, run as a separate process on temporary files.
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_util.h"

#ifndef KYSTORE_CLI_PATH

TEST(Cli, NotBuilt) {
  GTEST_SKIP() << "the kystore command is not part of this build";
}

#else

namespace {

using kytest::Bytes;

struct CliResult {
  int status;
  std::string out;
  std::string err;
};

std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string ReadText(const std::string& path) {
  Bytes b = kytest::ReadAll(path);
  return std::string(b.begin(), b.end());
}

// Runs the command with `args`, feeding `input` on stdin.
CliResult RunCli(const kytest::TempDir& dir, const std::vector<std::string>& args,
                 const std::string& input = "") {
  std::string in = dir.File("cli.in"), out = dir.File("cli.out"), err = dir.File("cli.err");
  kytest::WriteAll(in, Bytes(input.begin(), input.end()));
  std::string cmd = Quote(KYSTORE_CLI_PATH);
  for (const std::string& a : args) cmd += " " + Quote(a);
  cmd += " <" + Quote(in) + " >" + Quote(out) + " 2>" + Quote(err);
  int rc = std::system(cmd.c_str());
  return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, ReadText(out), ReadText(err)};
}

// Runs a command that must succeed silently on stderr; returns stdout.
std::string RunOk(const kytest::TempDir& dir, const std::vector<std::string>& args,
                  const std::string& input = "") {
  CliResult r = RunCli(dir, args, input);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  return r.out;
}

std::string Pattern(size_t n, unsigned seed) {
  std::string s(n, '\0');
  unsigned x = seed;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    s[i] = static_cast<char>(x >> 16);
  }
  return s;
}

bool HasUsage(const CliResult& r) {
  return r.status == 2 && r.out.empty() && r.err.find("usage: kystore") != std::string::npos;
}

class CliWidth : public ::testing::TestWithParam<bool> {
 protected:
  std::string MakeStorage(const std::string& name) {
    std::string file = dir.File(name);
    if (GetParam())
      RunOk(dir, {"create", file});
    else
      RunOk(dir, {"create", "--32", file});
    return file;
  }
  kytest::TempDir dir;
};

INSTANTIATE_TEST_SUITE_P(Widths, CliWidth, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& p) {
                           return p.param ? "Offsets64" : "Offsets32";
                         });

TEST_P(CliWidth, CreateWritesAnEmptyStorageAndInfoDescribesIt) {
  std::string file = MakeStorage("s.kys");
  EXPECT_EQ(kytest::FileSize(file), GetParam() ? 32 + 5904 : 32 + 5132);
  std::string expected = std::string("header:           32 bytes (current form)\n") +
                         (GetParam() ? "format mark:      '2' (0x32)\noffset width:     64-bit\n"
                                     : "format mark:      '1' (0x31)\noffset width:     32-bit\n") +
                         "slots per block:  64\n"
                         "fast slots:       6\n"
                         "directory blocks: 1\n"
                         "root streams:     0\n"
                         "file size:        " +
                         std::to_string(kytest::FileSize(file)) +
                         " bytes\n"
                         "opens:            yes\n";
  EXPECT_EQ(RunOk(dir, {"info", file}), expected);
}

TEST_P(CliWidth, InfoCountsStreamsAndDirectoryBlocks) {
  std::string file = MakeStorage("s.kys");
  // 58 ordinary slots fill the first block; the 59th stream needs a second.
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x16, 4096, 0);
  ASSERT_NE(storage, nullptr);
  for (int i = 0; i < 59; ++i) {
    kyStream* stm = storage->CreateStream(("s" + std::to_string(i)).c_str(), 0x16);
    ASSERT_NE(stm, nullptr);
    stm->Release();
  }
  storage->Release();
  std::string out = RunOk(dir, {"info", file});
  EXPECT_NE(out.find("directory blocks: 2\n"), std::string::npos) << out;
  EXPECT_NE(out.find("root streams:     59\n"), std::string::npos) << out;
}

TEST_P(CliWidth, PutAndCatRoundTripBinaryData) {
  std::string file = MakeStorage("s.kys");
  for (size_t size : {size_t(0), size_t(1), size_t(4101), size_t(70000), size_t(1500000)}) {
    SCOPED_TRACE(size);
    std::string data = Pattern(size, static_cast<unsigned>(size));
    std::string src = dir.File("src.bin");
    kytest::WriteAll(src, Bytes(data.begin(), data.end()));
    RunOk(dir, {"put", file, "FromFile", src});
    RunOk(dir, {"put", file, "Deep/er/FromStdin", "-"}, data);
    EXPECT_EQ(RunOk(dir, {"cat", file, "FromFile"}), data);
    EXPECT_EQ(RunOk(dir, {"cat", file, "Deep/er/FromStdin"}), data);
  }
}

TEST_P(CliWidth, PutEndsTheStreamWhereTheDataEnd) {
  std::string file = MakeStorage("s.kys");
  RunOk(dir, {"put", file, "A/B"}, Pattern(70000, 1));
  RunOk(dir, {"put", file, "A/B"}, "short");
  EXPECT_EQ(RunOk(dir, {"cat", file, "A/B"}), "short");
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x12, 4096, 0);
  ASSERT_NE(storage, nullptr);
  kyStream* folder = storage->OpenStream("A", 0x12);
  ASSERT_NE(folder, nullptr);
  kyStream* stm = folder->OpenStream("B", 0x12);
  ASSERT_NE(stm, nullptr);
  EXPECT_EQ(stm->GetLength(), 5);
  stm->Release();
  folder->Release();
  storage->Release();
  RunOk(dir, {"put", file, "A/B"}, "");
  EXPECT_EQ(RunOk(dir, {"cat", file, "A/B"}), "");
}

TEST_P(CliWidth, LsListsInDirectoryOrNameOrder) {
  std::string file = MakeStorage("s.kys");
  RunOk(dir, {"put", file, "b"}, "12345");
  RunOk(dir, {"mkdir", file, "C"});
  RunOk(dir, {"put", file, "a"}, "");
  EXPECT_EQ(RunOk(dir, {"ls", file}), "b\nC\na\n");
  EXPECT_EQ(RunOk(dir, {"ls", "--sort", file}), "C\na\nb\n");
  EXPECT_EQ(RunOk(dir, {"ls", "--sort", "--desc", file}), "b\na\nC\n");
  EXPECT_EQ(RunOk(dir, {"ls", "-l", file}),
            "stream            5        -     0:6  b\n"
            "folder            4        -     0:7  C\n"
            "stream            0        -     0:8  a\n");
}

TEST_P(CliWidth, LsDurationsComeFromTimeStampedNames) {
  std::string file = MakeStorage("s.kys");
  for (const char* name : {"0000ffff", "00000010", "00000020", "notes"})
    RunOk(dir, {"put", file, name}, "x");
  EXPECT_EQ(RunOk(dir, {"ls", "--durations", file}),
            "     16s  00000010\n"
            "  65503s  00000020\n"
            "  65503s  0000ffff\n"
            "       -  notes\n");
}

TEST_P(CliWidth, TreeShowsNestingLengthsAndDurations) {
  std::string file = MakeStorage("s.kys");
  RunOk(dir, {"put", file, "Notes"}, "hi\n");
  RunOk(dir, {"put", file, "Top/Mid/Leaf"}, "12345");
  RunOk(dir, {"mkdir", file, "Empty"});
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x16, 4096, 0);
  ASSERT_NE(storage, nullptr);
  kyStream* timed = storage->CreateStream("Timed", 0x00050000, 0x16);  // 5 minutes
  ASSERT_NE(timed, nullptr);
  timed->Release();
  storage->Release();
  std::string slot = std::to_string(GetParam() ? 96 : 84);  // child count + one slot
  EXPECT_EQ(RunOk(dir, {"tree", file}),
            "Notes               3\n"
            "Top/             " +
                std::string(4 - slot.size(), ' ') + slot + "\n" + "  Mid/           " +
                std::string(4 - slot.size(), ' ') + slot + "\n" +
                "    Leaf            5\n"
                "Empty/              4\n"
                "Timed               0  300s\n");
  EXPECT_EQ(RunOk(dir, {"tree", file, "Top/Mid"}),
            "Mid/             " + slot + "\n  Leaf            5\n");
}

TEST_P(CliWidth, MkdirRmAndMvChangeTheTree) {
  std::string file = MakeStorage("s.kys");
  RunOk(dir, {"mkdir", file, "A"});
  EXPECT_EQ(RunCli(dir, {"mkdir", file, "A"}).status, 1);
  EXPECT_EQ(RunCli(dir, {"mkdir", file, "X/Y"}).status, 1);
  RunOk(dir, {"mkdir", "-p", file, "A/B/C"});
  RunOk(dir, {"mkdir", "-p", file, "A/B"});
  RunOk(dir, {"put", file, "A/B/data"}, "payload");

  CliResult notEmpty = RunCli(dir, {"rm", file, "A"});
  EXPECT_EQ(notEmpty.status, 1);
  EXPECT_NE(notEmpty.err.find("not empty"), std::string::npos);

  CliResult taken = RunCli(dir, {"mv", file, "A/B/data", "C"});
  EXPECT_EQ(taken.status, 1);
  EXPECT_NE(taken.err.find("A/B/C: exists"), std::string::npos) << taken.err;
  RunOk(dir, {"mv", file, "A/B/data", "renamed"});
  EXPECT_EQ(RunOk(dir, {"cat", file, "A/B/renamed"}), "payload");
  EXPECT_EQ(RunCli(dir, {"cat", file, "A/B/data"}).status, 1);
  RunOk(dir, {"mv", file, "A", "Root"});
  RunOk(dir, {"rm", file, "Root/B/C"});
  EXPECT_EQ(RunOk(dir, {"ls", file}), "Root\n");
  RunOk(dir, {"rm", "-r", file, "Root"});
  EXPECT_EQ(RunOk(dir, {"ls", file}), "");
  EXPECT_EQ(RunCli(dir, {"rm", file, "Root"}).status, 1);
}

TEST_P(CliWidth, CpCopiesStreamsAndMergesFoldersAcrossStorages) {
  std::string src = MakeStorage("src.kys");
  std::string big = Pattern(70000, 7);
  RunOk(dir, {"put", src, "Tree/Sub/big"}, big);
  RunOk(dir, {"put", src, "Tree/small"}, "small");
  RunOk(dir, {"put", src, "Tree/empty"}, "");
  // The destination has the other offset width and a child of its own.
  std::string dst = dir.File("dst.kys");
  RunOk(dir, GetParam() ? std::vector<std::string>{"create", "--32", dst}
                        : std::vector<std::string>{"create", dst});
  RunOk(dir, {"put", dst, "Copy/keep"}, "kept");
  RunOk(dir, {"put", dst, "Copy/small"}, "old contents that are longer");

  RunOk(dir, {"cp", src, "Tree", dst, "Copy"});
  EXPECT_EQ(RunOk(dir, {"cat", dst, "Copy/Sub/big"}), big);
  EXPECT_EQ(RunOk(dir, {"cat", dst, "Copy/small"}), "small");
  EXPECT_EQ(RunOk(dir, {"cat", dst, "Copy/empty"}), "");
  EXPECT_EQ(RunOk(dir, {"cat", dst, "Copy/keep"}), "kept");

  RunOk(dir, {"cp", src, "Tree/small", dst, "One/Two"});
  EXPECT_EQ(RunOk(dir, {"cat", dst, "One/Two"}), "small");
  RunOk(dir, {"cp", src, "Tree/Sub", src, "Again"});
  EXPECT_EQ(RunOk(dir, {"cat", src, "Again/big"}), big);

  CliResult inside = RunCli(dir, {"cp", src, "Tree", src, "Tree/Sub/Inner"});
  EXPECT_EQ(inside.status, 1);
  EXPECT_EQ(RunCli(dir, {"cat", src, "Tree/Sub/Inner"}).status, 1);  // nothing was made
  CliResult kind = RunCli(dir, {"cp", src, "Tree", dst, "One/Two"});
  EXPECT_EQ(kind.status, 1);
  EXPECT_NE(kind.err.find("not a folder"), std::string::npos) << kind.err;
}

TEST_P(CliWidth, PathsThroughDataStreamsAndFoldersFail) {
  std::string file = MakeStorage("s.kys");
  RunOk(dir, {"put", file, "Dir/data"}, "x");
  Bytes before = kytest::ReadAll(file);
  CliResult folder = RunCli(dir, {"cat", file, "Dir"});
  EXPECT_EQ(folder.status, 1);
  EXPECT_EQ(folder.err, "kystore: " + file + ": Dir: is a folder\n");
  CliResult through = RunCli(dir, {"put", file, "Dir/data/below"}, "y");
  EXPECT_EQ(through.status, 1);
  EXPECT_EQ(through.err, "kystore: " + file + ": Dir/data: not a folder\n");
  CliResult missing = RunCli(dir, {"cat", file, "Dir/none"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "kystore: " + file + ": Dir/none: no such stream\n");
  EXPECT_EQ(RunCli(dir, {"put", file, "Dir"}, "y").status, 1);
  EXPECT_EQ(kytest::ReadAll(file), before);
}

TEST(Cli, BadUsageGivesStatus2AndUsageOnStderr) {
  kytest::TempDir dir;
  std::string file = dir.File("s.kys");
  RunOk(dir, {"create", file});
  EXPECT_TRUE(HasUsage(RunCli(dir, {})));
  EXPECT_TRUE(HasUsage(RunCli(dir, {"frobnicate", file})));
  EXPECT_TRUE(HasUsage(RunCli(dir, {"create"})));
  EXPECT_TRUE(HasUsage(RunCli(dir, {"info", file, "extra"})));
  EXPECT_TRUE(HasUsage(RunCli(dir, {"ls", "--bogus", file})));
  EXPECT_TRUE(HasUsage(RunCli(dir, {"cat", file, "//"})));
  EXPECT_TRUE(HasUsage(RunCli(dir, {"put", file, std::string(61, 'n')}, "x")));
  EXPECT_TRUE(HasUsage(RunCli(dir, {"mv", file, "a", "b/c"})));
  CliResult r = RunCli(dir, {"cp", file, "a"});
  EXPECT_TRUE(HasUsage(r));
  EXPECT_NE(r.err.find("usage: kystore cp SRC_FILE SRC_PATH DST_FILE DST_PATH"), std::string::npos);
}

TEST(Cli, EveryCommandHasHelp) {
  kytest::TempDir dir;
  EXPECT_NE(RunOk(dir, {"--help"}).find("recording"), std::string::npos);
  for (const char* cmd :
       {"create", "info", "ls", "cat", "put", "tree", "mkdir", "rm", "mv", "cp", "recording"}) {
    SCOPED_TRACE(cmd);
    std::string out = RunOk(dir, {cmd, "--help"});
    EXPECT_NE(out.find(std::string("kystore ") + cmd), std::string::npos) << out;
  }
}

TEST(Cli, FilesThatAreMissingOrNotStoragesFail) {
  kytest::TempDir dir;
  std::string missing = dir.File("none.kys");
  for (const char* cmd : {"info", "ls", "tree"}) {
    CliResult r = RunCli(dir, {cmd, missing});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "kystore: " + missing + ": No such file or directory\n");
  }
  EXPECT_EQ(RunCli(dir, {"cat", missing, "x"}).status, 1);
  EXPECT_EQ(RunCli(dir, {"put", missing, "x"}, "data").status, 1);
  EXPECT_FALSE(kytest::Exists(missing));

  std::string text = dir.File("text.txt");
  kytest::WriteAll(text, Bytes(100, 'x'));
  CliResult r = RunCli(dir, {"info", text});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "kystore: " + text + ": not a storage file\n");
  EXPECT_EQ(RunCli(dir, {"put", text, "x"}, "data").status, 1);
  EXPECT_EQ(kytest::ReadAll(text), Bytes(100, 'x'));
}

TEST(Cli, CreateLeavesAnExistingFileAloneWithoutForce) {
  kytest::TempDir dir;
  std::string file = dir.File("s.kys");
  kytest::WriteAll(file, Bytes(10, 7));
  CliResult r = RunCli(dir, {"create", file});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("file exists"), std::string::npos);
  EXPECT_EQ(kytest::ReadAll(file), Bytes(10, 7));
  RunOk(dir, {"create", "-f", file});
  EXPECT_EQ(kytest::FileSize(file), 32 + 5904);
}

// A storage with the older 26-byte header, one stream in slot 2 holding
// "hello" in a data block right after the directory.
Bytes OlderForm() {
  Bytes b(26 + 5132 + 20 + 5, 0);
  memcpy(b.data(), "@_RK_Structured_Storage@_", 25);
  kytest::Put32(b, 26, 0xFBFBFBFB);
  kytest::Put32(b, 30, 64);
  size_t slot = 26 + 12 + 80 * 2, block = 26 + 5132;
  kytest::Put32(b, slot, 0xFCFCFCFC);
  memcpy(&b[slot + 4], "Old", 3);
  kytest::Put32(b, slot + 68, 5);
  kytest::Put32(b, slot + 72, static_cast<uint32_t>(block));
  kytest::Put32(b, slot + 76, static_cast<uint32_t>(block));
  kytest::Put32(b, block, 0xFAFAFAFA);
  kytest::Put32(b, block + 4, 25);
  kytest::Put32(b, block + 8, 25);
  memcpy(&b[block + 20], "hello", 5);
  return b;
}

TEST(Cli, OlderHeaderFormIsDescribedAndRead) {
  kytest::TempDir dir;
  std::string file = dir.File("old.kys");
  kytest::WriteAll(file, OlderForm());
  EXPECT_EQ(RunOk(dir, {"info", file}),
            "header:           26 bytes (older form)\n"
            "format mark:      '_' (0x5F)\n"
            "offset width:     32-bit\n"
            "slots per block:  64\n"
            "fast slots:       2\n"
            "directory blocks: 1\n"
            "root streams:     1\n"
            "file size:        5183 bytes\n"
            "opens:            yes\n");
  EXPECT_EQ(RunOk(dir, {"ls", "-l", file}), "stream            5        -     0:2  Old\n");
  EXPECT_EQ(RunOk(dir, {"cat", file, "Old"}), "hello");
}

TEST(Cli, DamagedDirectoryChainsAreReported) {
  kytest::TempDir dir;
  std::string file = dir.File("s.kys");
  RunOk(dir, {"create", file});
  Bytes image = kytest::ReadAll(file);
  kytest::Put64(image, 32 + 8, 32);  // the first block links to itself
  kytest::WriteAll(file, image);
  CliResult loop = RunCli(dir, {"info", file});
  EXPECT_EQ(loop.status, 1);
  EXPECT_NE(loop.out.find("opens:            no"), std::string::npos) << loop.out;
  EXPECT_EQ(loop.err, "kystore: " + file + ": directory chain loops back to 32\n");
  kytest::Put64(image, 32 + 8, 1 << 20);
  kytest::WriteAll(file, image);
  CliResult outside = RunCli(dir, {"info", file});
  EXPECT_EQ(outside.status, 1);
  EXPECT_EQ(outside.err,
            "kystore: " + file + ": directory block at 1048576 lies outside the file\n");
  EXPECT_EQ(RunCli(dir, {"ls", file}).status, 1);
}

TEST(Cli, TreeEndsAtAFolderThatContainsItself) {
  kytest::TempDir dir;
  std::string file = dir.File("s.kys");
  RunOk(dir, {"create", file});
  RunOk(dir, {"mkdir", "-p", file, "Top/Sub"});
  // Point Sub's slot (the first slot in Top's data) at Top's own chain, so
  // that Sub seems to hold itself again and again.
  Bytes image = kytest::ReadAll(file);
  size_t top = 32 + 16 + 92 * 6;
  size_t topBlock = static_cast<size_t>(kytest::Get64(image, top + 84));
  size_t sub = topBlock + 40 + 4;
  ASSERT_EQ(memcmp(&image[sub + 4], "Sub", 4), 0);
  for (size_t field : {68, 76, 84})
    kytest::Put64(image, sub + field, kytest::Get64(image, top + field));
  kytest::WriteAll(file, image);
  CliResult r = RunCli(dir, {"tree", file});
  EXPECT_EQ(r.out, "Top/             96\n  Sub/           96\n");
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_P(CliWidth, CatOfADamagedChainFailsCleanly) {
  std::string file = MakeStorage("s.kys");
  RunOk(dir, {"put", file, "Data"}, Pattern(10000, 3));
  // Break the magic of the stream's first data block (slot 6 of the root).
  Bytes image = kytest::ReadAll(file);
  size_t slot = GetParam() ? 32 + 16 + 92 * 6 : 32 + 12 + 80 * 6;
  size_t first = GetParam() ? static_cast<size_t>(kytest::Get64(image, slot + 84))
                            : kytest::Get32(image, slot + 76);
  ASSERT_EQ(kytest::Get32(image, first), 0xFAFAFAFAu);
  kytest::Put32(image, first, 0);
  kytest::WriteAll(file, image);
  CliResult r = RunCli(dir, {"cat", file, "Data"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("Data: cannot read the stream"), std::string::npos) << r.err;
  // The header is intact, so the listing still shows the stream.
  EXPECT_EQ(RunOk(dir, {"tree", file}), "Data        10000\n");
}

TEST(Cli, DirectoriesAreNeitherStoragesNorSources) {
  kytest::TempDir dir;
  std::string file = dir.File("s.kys");
  RunOk(dir, {"create", file});
  CliResult info = RunCli(dir, {"info", dir.path()});
  EXPECT_EQ(info.status, 1);
  EXPECT_EQ(info.err, "kystore: " + dir.path() + ": is a directory\n");
  RunOk(dir, {"put", file, "Kept"}, "contents");
  CliResult put = RunCli(dir, {"put", file, "Kept", dir.path()});
  EXPECT_EQ(put.status, 1);
  EXPECT_EQ(put.err, "kystore: " + dir.path() + ": is a directory\n");
  EXPECT_EQ(RunOk(dir, {"cat", file, "Kept"}), "contents");
}

TEST_P(CliWidth, LsShowsSlotsOfLaterDirectoryBlocksAndDescendingDurations) {
  std::string file = MakeStorage("s.kys");
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x16, 4096, 0);
  ASSERT_NE(storage, nullptr);
  for (int i = 0; i < 59; ++i) {  // the 59th lands in slot 0 of a second block
    char name[16];
    snprintf(name, sizeof(name), "%08x", 0x100 + 10 * i);
    kyStream* stm = storage->CreateStream(name, 0x16);
    ASSERT_NE(stm, nullptr);
    stm->Release();
  }
  storage->Release();
  std::string listing = RunOk(dir, {"ls", "-l", file});
  EXPECT_NE(listing.find("     0:6  00000100\n"), std::string::npos) << listing;
  EXPECT_NE(listing.find("     1:0  00000344\n"), std::string::npos) << listing;
  // Descending: every difference wraps around, so each takes the previous
  // duration, and the first of all an hour.
  std::string durations = RunOk(dir, {"ls", "--durations", "--desc", file});
  EXPECT_EQ(durations.substr(0, 38), "   3600s  00000344\n   3600s  0000033a\n");
}

TEST_P(CliWidth, RefusalsLeaveTheFileAsItWas) {
  std::string file = MakeStorage("s.kys");
  RunOk(dir, {"put", file, "Top/data"}, "x");
  Bytes before = kytest::ReadAll(file);
  std::vector<std::vector<std::string> > refused = {
      {"mkdir", "-p", file, "Top/data/sub"},  // through a data stream
      {"mkdir", file, "Top"},                 // exists
      {"rm", file, "Top"},                    // not empty
      {"rm", file, "Nothing"},                // missing
      {"cp", file, "Top", file, "Top"},       // onto itself
      {"cp", file, "Top/data", file, "Top"},  // a stream onto a folder
  };
  for (const auto& args : refused) {
    SCOPED_TRACE(args[0] + " " + args.back());
    CliResult r = RunCli(dir, args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("kystore: ", 0), 0u) << r.err;
    EXPECT_EQ(kytest::ReadAll(file), before);
  }
}

TEST(Cli, InfoTellsWhenTheLibraryRefusesAHeader) {
  kytest::TempDir dir;
  std::string file = dir.File("s.kys");
  RunOk(dir, {"create", file});
  Bytes image = kytest::ReadAll(file);
  kytest::Put16(image, 26, 32);  // 32 slots per block: a layout we do not know
  kytest::WriteAll(file, image);
  std::string out = RunOk(dir, {"info", file});
  EXPECT_NE(out.find("slots per block:  32\n"), std::string::npos) << out;
  EXPECT_NE(out.find("opens:            no (the library refuses this file)\n"), std::string::npos);
  EXPECT_EQ(RunCli(dir, {"ls", file}).status, 1);
  EXPECT_EQ(kytest::ReadAll(file), image);
}

TEST(Cli, OverlongStoragePathsAreRefused) {
  kytest::TempDir dir;
  std::string file = dir.File(std::string(300 - dir.path().size(), 'p'));
  CliResult r = RunCli(dir, {"create", file});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("path too long"), std::string::npos) << r.err;
  EXPECT_FALSE(kytest::Exists(file));
}

std::string RecordingBytes() {
  std::string b;
  auto u16 = [&b](unsigned v) { b += char(v & 0xFF), b += char(v >> 8); };
  auto u32 = [&b, &u16](unsigned v) { u16(v & 0xFFFF), u16(v >> 16); };
  b += '\x01', u16(3), b += "Cfg", b += '\x01';   // enter folder Cfg
  b += '\x02', u16(4), b += "Fast", b += '\x01';  // fast enter, seek to end
  b += '\x05', b += '\x01', b += '\x00', u32(4), b += std::string("\x80\x02\0\0", 4);
  b += '\x06', b += '\x01', u32(20);
  for (int i = 0; i < 20; ++i) b += char(i);
  b += '\x04', u16(3), b += "Old";
  b += '\x03';
  return b;
}

TEST(Cli, RecordingPrintsOneRecordALine) {
  kytest::TempDir dir;
  std::string file = dir.File("rec.bin");
  std::string bytes = RecordingBytes();
  kytest::WriteAll(file, Bytes(bytes.begin(), bytes.end()));
  const std::string expected =
      "enter      Cfg                  1              -  -\n"
      "enter-fast Fast                 1              -  -\n"
      "write      -                    10             4  80 02 00 00\n"
      "append     -                    1             20  00 01 02 03 04 05 06 07 08 09 0a 0b "
      "0c 0d 0e 0f ...\n"
      "remove     Old                  -              -  -\n"
      "leave      -                    -              -  -\n";
  EXPECT_EQ(RunOk(dir, {"recording", file}), expected);

  // A name length of 61 is malformed: the records before it still print.
  bytes += std::string("\x01\x3d\x00", 3) + std::string(61, 'n') + '\0';
  kytest::WriteAll(file, Bytes(bytes.begin(), bytes.end()));
  CliResult r = RunCli(dir, {"recording", file});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, expected);
  EXPECT_EQ(r.err, "kystore: " + file + ": malformed record at byte " +
                       std::to_string(RecordingBytes().size()) + "\n");

  kytest::WriteAll(file, Bytes());
  EXPECT_EQ(RunOk(dir, {"recording", file}), "");
}

}  // namespace

#endif  // KYSTORE_CLI_PATH
