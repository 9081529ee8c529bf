// The kystore command, run as a separate process on temporary files.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_util.h"

#ifndef KYSTORE_CLI_PATH

TEST(Cli, NotBuilt) {
  GTEST_SKIP() << "the kystore command is not part of this build";
}

#else

#include "support/cli_fixture.h"

namespace {

using kytest::Args;
using kytest::Bytes;
using kytest::CliResult;
using kytest::Pattern;

class Cli : public kytest::CliFixture {};
class CliWidth : public kytest::CliWidthFixture {};

INSTANTIATE_TEST_SUITE_P(Widths, CliWidth, ::testing::Bool(), kytest::WidthName);

std::string Info(const std::string& header, const std::string& mark, int width, int fast,
                 int blocks, int roots, int64_t size) {
  return "header:           " + header + "\nformat mark:      " + mark +
         "\noffset width:     " + std::to_string(width) +
         "-bit\nslots per block:  64\nfast slots:       " + std::to_string(fast) +
         "\ndirectory blocks: " + std::to_string(blocks) +
         "\nroot streams:     " + std::to_string(roots) +
         "\nfile size:        " + std::to_string(size) + " bytes\nopens:            yes\n";
}

TEST_P(CliWidth, CreateAndInfo) {
  const int64_t size = GetParam() ? 32 + 5904 : 32 + 5132;
  EXPECT_EQ(kytest::FileSize(file), size);
  EXPECT_EQ(Ok({"info", file}),
            Info("32 bytes (current form)", GetParam() ? "'2' (0x32)" : "'1' (0x31)",
                 GetParam() ? 64 : 32, 6, 1, 0, size));
  // 58 ordinary slots fill the first block; the 59th stream needs a second.
  std::vector<std::string> names;
  for (int i = 0; i < 59; ++i) {
    char name[16];
    snprintf(name, sizeof(name), "%08x", 0x100 + 10 * i);
    names.push_back(name);
  }
  AddRoots(names);
  const std::string out = Ok({"info", file});
  EXPECT_NE(out.find("directory blocks: 2\nroot streams:     59\n"), std::string::npos) << out;
  const std::string listing = Ok({"ls", "-l", file});
  EXPECT_NE(listing.find("     0:6  00000100\n"), std::string::npos) << listing;
  EXPECT_NE(listing.find("     1:0  00000344\n"), std::string::npos) << listing;
  // Descending: every difference wraps around, so each takes the previous
  // duration, and the first of all an hour.
  EXPECT_EQ(Ok({"ls", "--durations", "--desc", file}).substr(0, 38),
            "   3600s  00000344\n   3600s  0000033a\n");
}

// From a file and from stdin, into nested folders; a shorter put ends the
// stream where the data end.
TEST_P(CliWidth, PutAndCatRoundTripBinaryData) {
  const std::string src = dir.File("src.bin");
  for (size_t size : {70000, 1, 1500000, 4101, 0}) {
    SCOPED_TRACE(size);
    const std::string data = Pattern(size, static_cast<unsigned>(size));
    kytest::WriteAll(src, Bytes(data.begin(), data.end()));
    Ok({"put", file, "FromFile", src});
    Ok({"put", file, "Deep/er/FromStdin", "-"}, data);
    EXPECT_EQ(Ok({"cat", file, "FromFile"}), data);
    EXPECT_EQ(Ok({"cat", file, "Deep/er/FromStdin"}), data);
  }
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x12, 4096, 0);
  ASSERT_NE(storage, nullptr);
  kyStream* stm = storage->OpenStream("FromFile", 0x12);
  ASSERT_NE(stm, nullptr);
  EXPECT_EQ(stm->GetLength(), 0);
  stm->Release();
  storage->Release();
}

TEST_P(CliWidth, LsListsInDirectoryOrNameOrder) {
  Ok({"put", file, "b"}, "12345");
  Ok({"mkdir", file, "C"});
  Ok({"put", file, "a"}, "");
  EXPECT_EQ(Ok({"ls", file}), "b\nC\na\n");
  EXPECT_EQ(Ok({"ls", "--sort", file}), "C\na\nb\n");
  EXPECT_EQ(Ok({"ls", "--sort", "--desc", file}), "b\na\nC\n");
  EXPECT_EQ(Ok({"ls", "-l", file}),
            "stream            5        -     0:6  b\n"
            "folder            4        -     0:7  C\n"
            "stream            0        -     0:8  a\n");
  for (const char* name : {"0000ffff", "00000010", "00000020"}) Ok({"put", file, name}, "x");
  EXPECT_EQ(Ok({"ls", "--durations", file}),
            "     16s  00000010\n"
            "  65503s  00000020\n"
            "  65503s  0000ffff\n"
            "       -  C\n       -  a\n       -  b\n");
}

TEST_P(CliWidth, TreeShowsNestingLengthsAndDurations) {
  Ok({"put", file, "Notes"}, "hi\n");
  Ok({"put", file, "Top/Mid/Leaf"}, "12345");
  Ok({"mkdir", file, "Empty"});
  AddRoots({"Timed"}, 0x00050000);                        // 5 minutes
  const std::string slot = GetParam() ? "  96" : "  84";  // child count + one slot
  EXPECT_EQ(Ok({"tree", file}), "Notes               3\nTop/             " + slot +
                                    "\n  Mid/           " + slot +
                                    "\n    Leaf            5\n"
                                    "Empty/              4\n"
                                    "Timed               0  300s\n");
  EXPECT_EQ(Ok({"tree", file, "Top/Mid"}), "Mid/           " + slot + "\n  Leaf            5\n");
}

TEST_P(CliWidth, MkdirRmAndMvChangeTheTree) {
  Ok({"mkdir", file, "A"});
  Fails({"mkdir", file, "X/Y"}, "");
  Ok({"mkdir", "-p", file, "A/B/C"});
  Ok({"mkdir", "-p", file, "A/B"});
  Ok({"put", file, "A/B/data"}, "payload");
  Fails({"mv", file, "A/B/data", "C"}, "A/B/C: exists");
  Ok({"mv", file, "A/B/data", "renamed"});
  EXPECT_EQ(Ok({"cat", file, "A/B/renamed"}), "payload");
  Fails({"cat", file, "A/B/data"}, "no such stream");
  Ok({"mv", file, "A", "Root"});
  Ok({"rm", file, "Root/B/C"});
  EXPECT_EQ(Ok({"ls", file}), "Root\n");
  Ok({"rm", "-r", file, "Root"});
  EXPECT_EQ(Ok({"ls", file}), "");
}

TEST_P(CliWidth, CpCopiesStreamsAndMergesFoldersAcrossStorages) {
  const std::string big = Pattern(70000, 7);
  Ok({"put", file, "Tree/Sub/big"}, big);
  Ok({"put", file, "Tree/small"}, "small");
  Ok({"put", file, "Tree/empty"}, "");
  // The destination has the other offset width and a child of its own.
  const std::string dst = dir.File("dst.kys");
  Ok(GetParam() ? Args{"create", "--32", dst} : Args{"create", dst});
  Ok({"put", dst, "Copy/keep"}, "kept");
  Ok({"put", dst, "Copy/small"}, "old contents that are longer");
  Ok({"cp", file, "Tree", dst, "Copy"});
  EXPECT_EQ(Ok({"cat", dst, "Copy/Sub/big"}), big);
  EXPECT_EQ(Ok({"cat", dst, "Copy/small"}), "small");
  EXPECT_EQ(Ok({"cat", dst, "Copy/empty"}), "");
  EXPECT_EQ(Ok({"cat", dst, "Copy/keep"}), "kept");
  Ok({"cp", file, "Tree/small", dst, "One/Two"});
  EXPECT_EQ(Ok({"cat", dst, "One/Two"}), "small");
  Ok({"cp", file, "Tree/Sub", file, "Again"});
  EXPECT_EQ(Ok({"cat", file, "Again/big"}), big);
  Fails({"cp", file, "Tree", file, "Tree/Sub/Inner"}, "");
  Fails({"cat", file, "Tree/Sub/Inner"}, "no such stream");  // nothing was made
  Fails({"cp", file, "Tree", dst, "One/Two"}, "not a folder");
}

TEST_P(CliWidth, RefusalsLeaveTheFileAsItWas) {
  Ok({"put", file, "Top/data"}, "x");
  const Bytes before = Image();
  const std::string at = "kystore: " + file + ": ";
  const struct {
    Args args;
    std::string err;
  } refused[] = {
      {{"cat", file, "Top"}, at + "Top: is a folder\n"},
      {{"put", file, "Top/data/below"}, at + "Top/data: not a folder\n"},
      {{"cat", file, "Top/none"}, at + "Top/none: no such stream\n"},
      {{"put", file, "Top"}, at},
      {{"mkdir", "-p", file, "Top/data/sub"}, at},
      {{"mkdir", file, "Top"}, at},
      {{"rm", file, "Top"}, "not empty"},
      {{"rm", file, "Nothing"}, at},
      {{"cp", file, "Top", file, "Top"}, at},
      {{"cp", file, "Top/data", file, "Top"}, at},
      {{"put", file, "Kept", dir.path()}, "kystore: " + dir.path() + ": is a directory\n"},
  };
  for (const auto& r : refused) {
    SCOPED_TRACE(r.args[0] + " " + r.args.back());
    EXPECT_EQ(Fails(r.args, r.err, "y").err.rfind("kystore: ", 0), 0u);
    EXPECT_EQ(Image(), before);
  }
}

TEST_P(CliWidth, CatOfADamagedChainFailsCleanly) {
  Ok({"put", file, "Data"}, Pattern(10000, 3));
  // Break the magic of the stream's first data block (slot 6 of the root).
  Bytes image = Image();
  const size_t slot = GetParam() ? 32 + 16 + 92 * 6 : 32 + 12 + 80 * 6;
  const size_t first = GetParam() ? static_cast<size_t>(kytest::Get64(image, slot + 84))
                                  : kytest::Get32(image, slot + 76);
  ASSERT_EQ(kytest::Get32(image, first), 0xFAFAFAFAu);
  kytest::Put32(image, first, 0);
  kytest::WriteAll(file, image);
  EXPECT_EQ(Fails({"cat", file, "Data"}, "Data: cannot read the stream").out, "");
  // The header is intact, so the listing still shows the stream, and tells
  // that its data cannot be read.
  EXPECT_EQ(Fails({"tree", file}, "Data: damaged").out, "Data        10000\n");
}

TEST_F(Cli, BadUsageGivesStatus2AndUsageOnStderr) {
  Ok({"create", file});
  for (const Args& args : {Args{}, Args{"frobnicate", file}, Args{"create"},
                           Args{"info", file, "x"}, Args{"ls", "--bogus", file},
                           Args{"cat", file, "//"}, Args{"put", file, std::string(61, 'n')},
                           Args{"mv", file, "a", "b/c"}, Args{"cp", file, "a"}})
    Usage(args, "x");
  EXPECT_NE(
      Run({"cp", file, "a"}).err.find("usage: kystore cp SRC_FILE SRC_PATH DST_FILE DST_PATH"),
      std::string::npos);
  EXPECT_NE(Ok({"--help"}).find("recording"), std::string::npos);
  for (const char* cmd :
       {"create", "info", "ls", "cat", "put", "tree", "mkdir", "rm", "mv", "cp", "recording"}) {
    EXPECT_NE(Ok({cmd, "--help"}).find(std::string("kystore ") + cmd), std::string::npos) << cmd;
  }
}

TEST_F(Cli, FilesThatAreMissingOrNotStoragesFail) {
  const std::string missing = dir.File("none.kys");
  for (const char* cmd : {"info", "ls", "tree"})
    Fails({cmd, missing}, "kystore: " + missing + ": No such file or directory\n");
  Fails({"cat", missing, "x"}, missing);
  Fails({"put", missing, "x"}, missing, "data");
  EXPECT_FALSE(kytest::Exists(missing));

  kytest::WriteAll(file, Bytes(100, 'x'));
  Fails({"info", file}, "kystore: " + file + ": not a storage file\n");
  Fails({"put", file, "x"}, file, "data");
  Fails({"create", file}, "file exists");
  EXPECT_EQ(Image(), Bytes(100, 'x'));
  Fails({"info", dir.path()}, "kystore: " + dir.path() + ": is a directory\n");
  const std::string overlong = dir.File(std::string(300 - dir.path().size(), 'p'));
  Fails({"create", overlong}, "path too long");
  EXPECT_FALSE(kytest::Exists(overlong));
  Ok({"create", "-f", file});
  EXPECT_EQ(kytest::FileSize(file), 32 + 5904);
}

// A storage with the older 26-byte header, one stream in slot 2 holding
// "hello" in a data block right after the directory.
TEST_F(Cli, OlderHeaderFormIsDescribedAndRead) {
  Bytes b(26 + 5132 + 20 + 5, 0);
  memcpy(b.data(), "@_RK_Structured_Storage@_", 25);
  const uint32_t slot = 26 + 12 + 80 * 2, block = 26 + 5132;
  memcpy(&b[slot + 4], "Old", 3);
  const std::pair<uint32_t, uint32_t> fields[] = {
      {26, 0xFBFBFBFB},    {30, 64},           {slot, 0xFCFCFCFC},
      {slot + 68, 5},      {slot + 72, block}, {slot + 76, block},
      {block, 0xFAFAFAFA}, {block + 4, 25},    {block + 8, 25}};
  for (const auto& f : fields) kytest::Put32(b, f.first, f.second);
  memcpy(&b[block + 20], "hello", 5);
  kytest::WriteAll(file, b);
  EXPECT_EQ(Ok({"info", file}), Info("26 bytes (older form)", "'_' (0x5F)", 32, 2, 1, 1, 5183));
  EXPECT_EQ(Ok({"ls", "-l", file}), "stream            5        -     0:2  Old\n");
  EXPECT_EQ(Ok({"cat", file, "Old"}), "hello");
}

TEST_F(Cli, DamagedDirectoriesAndRefusedHeadersAreReported) {
  Ok({"create", file});
  Bytes image = Image();
  kytest::Put64(image, 32 + 8, 32);  // the first block links to itself
  kytest::WriteAll(file, image);
  CliResult loop =
      Fails({"info", file}, "kystore: " + file + ": directory chain loops back to 32\n");
  EXPECT_NE(loop.out.find("opens:            no"), std::string::npos) << loop.out;
  kytest::Put64(image, 32 + 8, 1 << 20);
  kytest::WriteAll(file, image);
  Fails({"info", file},
        "kystore: " + file + ": directory block at 1048576 lies outside the file\n");
  Fails({"ls", file}, file);

  kytest::Put64(image, 32 + 8, 0);
  kytest::Put16(image, 26, 32);  // 32 slots per block: a layout we do not know
  kytest::WriteAll(file, image);
  const std::string out = Ok({"info", file});
  EXPECT_NE(out.find("slots per block:  32\n"), std::string::npos) << out;
  EXPECT_NE(out.find("opens:            no (the library refuses this file)\n"), std::string::npos);
  Fails({"ls", file}, file);
  EXPECT_EQ(Image(), image);
}

TEST_F(Cli, TreeEndsAtAFolderThatContainsItself) {
  Ok({"create", file});
  Ok({"mkdir", "-p", file, "Top/Sub"});
  // Point Sub's slot (the first slot in Top's data) at Top's own chain, so
  // that Sub seems to hold itself again and again.
  Bytes image = Image();
  const size_t top = 32 + 16 + 92 * 6;
  const size_t sub = static_cast<size_t>(kytest::Get64(image, top + 84)) + 40 + 4;
  ASSERT_EQ(memcmp(&image[sub + 4], "Sub", 4), 0);
  for (size_t field : {68, 76, 84})
    kytest::Put64(image, sub + field, kytest::Get64(image, top + field));
  kytest::WriteAll(file, image);
  CliResult r = Run({"tree", file});
  EXPECT_EQ(r.out, "Top/             96\n  Sub/           96\n");
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(Cli, RecordingPrintsOneRecordALine) {
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
  const std::string expected =
      "enter      Cfg                  1              -  -\n"
      "enter-fast Fast                 1              -  -\n"
      "write      -                    10             4  80 02 00 00\n"
      "append     -                    1             20  00 01 02 03 04 05 06 07 08 09 0a 0b "
      "0c 0d 0e 0f ...\n"
      "remove     Old                  -              -  -\n"
      "leave      -                    -              -  -\n";
  const std::string rec = dir.File("rec.bin");
  kytest::WriteAll(rec, Bytes(b.begin(), b.end()));
  EXPECT_EQ(Ok({"recording", rec}), expected);
  // A name length of 61 is malformed: the records before it still print.
  const size_t good = b.size();
  b += std::string("\x01\x3d\x00", 3) + std::string(61, 'n') + '\0';
  kytest::WriteAll(rec, Bytes(b.begin(), b.end()));
  EXPECT_EQ(Fails({"recording", rec},
                  "kystore: " + rec + ": malformed record at byte " + std::to_string(good) + "\n")
                .out,
            expected);
  kytest::WriteAll(rec, Bytes());
  EXPECT_EQ(Ok({"recording", rec}), "");
}

}  // namespace

#endif  // KYSTORE_CLI_PATH
