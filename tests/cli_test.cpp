// The kystore command, run as a separate process on temporary files: what
// each command prints and changes, and how it reports damage and bad usage.
#include <gtest/gtest.h>

#ifndef KYSTORE_CLI_PATH

TEST(Cli, NotBuilt) {
  GTEST_SKIP() << "the kystore command is not part of this build";
}

#else

#include <cstring>
#include <string>

#include "support/cli_fixture.h"

namespace {

using namespace kytest;

class Cli : public CliTest {};
INSTANTIATE_TEST_SUITE_P(Widths, Cli, ::testing::Bool(), CliWidthName);

std::string Info(const std::string& header, const std::string& mark, int width, int fast,
                 int blocks, int roots, int64_t size) {
  return "header:           " + header + "\nformat mark:      " + mark +
         "\noffset width:     " + std::to_string(width) +
         "-bit\nslots per block:  64\nfast slots:       " + std::to_string(fast) +
         "\ndirectory blocks: " + std::to_string(blocks) +
         "\nroot streams:     " + std::to_string(roots) +
         "\nfile size:        " + std::to_string(size) + " bytes\nopens:            yes\n";
}

// 58 ordinary slots fill the first directory block; the 59th stream needs a
// second.  Listed by duration in descending order, every difference wraps
// around, so each name takes the previous duration, and the first an hour.
TEST_P(Cli, CreateInfoAndLsOfTwoDirectoryBlocks) {
  const int64_t size = GetParam() ? 32 + 5904 : 32 + 5132;
  EXPECT_EQ(FileSize(file), size);
  EXPECT_EQ(Ok({"info", file}),
            Info("32 bytes (current form)", GetParam() ? "'2' (0x32)" : "'1' (0x31)",
                 GetParam() ? 64 : 32, 6, 1, 0, size));
  std::vector<std::string> names(59, std::string(9, '\0'));
  for (int i = 0; i < 59; ++i) names[i].resize(snprintf(&names[i][0], 9, "%08x", 0x100 + 10 * i));
  AddRoots(names);
  EXPECT_NE(Ok({"info", file}).find("directory blocks: 2\nroot streams:     59\n"),
            std::string::npos);
  const std::string listing = Ok({"ls", "-l", file});
  EXPECT_NE(listing.find("     0:6  00000100\n"), std::string::npos) << listing;
  EXPECT_NE(listing.find("     1:0  00000344\n"), std::string::npos) << listing;
  EXPECT_EQ(Ok({"ls", "--durations", "--desc", file}).substr(0, 38),
            "   3600s  00000344\n   3600s  0000033a\n");
}

// From a file and from stdin, into nested folders; a shorter put ends the
// stream where the new data end.
TEST_P(Cli, PutAndCatRoundTripBinaryData) {
  const std::string src = dir.File("src.bin");
  for (size_t size : {70000, 1, 1500000, 4101, 0}) {
    SCOPED_TRACE(size);
    const std::string data = Pattern(size, unsigned(size));
    WriteAll(src, Bytes(data.begin(), data.end()));
    Ok({"put", file, "FromFile", src});
    Ok({"put", file, "Deep/er/FromStdin", "-"}, data);
    EXPECT_EQ(Ok({"cat", file, "FromFile"}), data);
    EXPECT_EQ(Ok({"cat", file, "Deep/er/FromStdin"}), data);
  }
}

TEST_P(Cli, LsAndTreeListInTheirOrders) {
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
            "     16s  00000010\n  65503s  00000020\n  65503s  0000ffff\n"
            "       -  C\n       -  a\n       -  b\n");
  Ok({"put", file, "Top/Mid/Leaf"}, "12345");
  AddRoots({"Timed"}, 0x00050000);                        // 5 minutes
  const std::string slot = GetParam() ? "  96" : "  84";  // child count + one slot
  EXPECT_NE(Ok({"tree", file})
                .find("Top/             " + slot + "\n  Mid/           " + slot +
                      "\n    Leaf            5\nTimed               0  300s\n"),
            std::string::npos);
  EXPECT_EQ(Ok({"tree", file, "Top/Mid"}), "Mid/           " + slot + "\n  Leaf            5\n");
}

TEST_P(Cli, MkdirRmMvAndCpChangeTheTree) {
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
  Ok({"rm", "-r", file, "Root"});
  EXPECT_EQ(Ok({"ls", file}), "");
  // Copies into a storage of the other width that has children of its own.
  const std::string big = Pattern(70000, 7);
  Ok({"put", file, "Tree/Sub/big"}, big);
  Ok({"put", file, "Tree/small"}, "small");
  Ok({"put", file, "Tree/empty"}, "");
  const std::string dst = dir.File("dst.kys");
  Ok(GetParam() ? Args{"create", "--32", dst} : Args{"create", dst});
  Ok({"put", dst, "Copy/keep"}, "kept");
  Ok({"put", dst, "Copy/small"}, "old contents that are longer");
  Ok({"cp", file, "Tree", dst, "Copy"});
  Ok({"cp", file, "Tree/small", dst, "One/Two"});
  Ok({"cp", file, "Tree/Sub", file, "Again"});
  EXPECT_EQ(Ok({"cat", dst, "Copy/Sub/big"}) + Ok({"cat", file, "Again/big"}), big + big);
  const std::pair<const char*, std::string> copied[] = {
      {"Copy/small", "small"}, {"Copy/empty", ""}, {"Copy/keep", "kept"}, {"One/Two", "small"}};
  for (const auto& c : copied) EXPECT_EQ(Ok({"cat", dst, c.first}), c.second) << c.first;
}

// Every refusal names the file and the path, and leaves the file as it was.
TEST_P(Cli, RefusalsLeaveTheFileAsItWas) {
  Ok({"put", file, "Top/data"}, "x");
  Ok({"put", file, "Lone"}, "z");
  const Bytes before = Image();
  const std::string at = "kystore: " + file + ": ", missing = dir.File("none.kys");
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
      {{"cp", file, "Top", file, "Top/Inner"}, at},
      {{"cp", file, "Top", file, "Lone"}, at + "Lone: not a folder"},
      {{"cp", file, "Top/data", file, "Top"}, at},
      {{"put", file, "Kept", dir.path()}, "kystore: " + dir.path() + ": is a directory\n"},
      {{"info", dir.path()}, "kystore: " + dir.path() + ": is a directory\n"},
      {{"create", file}, "file exists"},
      {{"info", missing}, "kystore: " + missing + ": No such file or directory\n"},
      {{"put", missing, "x"}, missing},
      {{"create", dir.File(std::string(300 - dir.path().size(), 'p'))}, "path too long"},
  };
  for (const auto& r : refused) {
    SCOPED_TRACE(r.args[0] + " " + r.args.back());
    EXPECT_EQ(Fails(r.args, r.err, "y").err.rfind("kystore: ", 0), 0u);
    EXPECT_EQ(Image(), before);
  }
  EXPECT_FALSE(Exists(missing));
  for (const Args& args :
       {Args{}, Args{"frobnicate", file}, Args{"create"}, Args{"info", file, "x"},
        Args{"ls", "--bogus", file}, Args{"cat", file, "//"},
        Args{"put", file, std::string(61, 'n')}, Args{"mv", file, "a", "b/c"}})
    EXPECT_EQ(Fails(args, "usage: kystore", "x", 2).out, "");
  Fails({"cp", file, "a"}, "usage: kystore cp SRC_FILE SRC_PATH DST_FILE DST_PATH", "", 2);
  for (const char* cmd :
       {"create", "info", "ls", "cat", "put", "tree", "mkdir", "rm", "mv", "cp", "recording"})
    EXPECT_NE(Ok({cmd, "--help"}).find(std::string("kystore ") + cmd), std::string::npos) << cmd;
  WriteAll(file, Bytes(100, 'x'));
  Fails({"info", file}, "kystore: " + file + ": not a storage file\n");
  Fails({"put", file, "x"}, file, "data");
  EXPECT_EQ(Image(), Bytes(100, 'x'));
  Ok({"create", "-f", file});
  EXPECT_EQ(FileSize(file), 32 + 5904);  // 64-bit offsets unless told otherwise
}

// A storage with the older 26-byte header, one stream in slot 2 holding
// "hello" in a data block right after the directory.
TEST_P(Cli, OlderHeaderFormIsDescribedAndRead) {
  Bytes b(26 + 5132 + 20 + 5, 0);
  memcpy(b.data(), "@_RK_Structured_Storage@_", 25);
  const uint32_t slot = 26 + 12 + 80 * 2, block = 26 + 5132;
  memcpy(&b[slot + 4], "Old", 3);
  const std::pair<uint32_t, uint32_t> fields[] = {
      {26, 0xFBFBFBFB},    {30, 64},           {slot, 0xFCFCFCFC},
      {slot + 68, 5},      {slot + 72, block}, {slot + 76, block},
      {block, 0xFAFAFAFA}, {block + 4, 25},    {block + 8, 25}};
  for (const auto& f : fields) Put32(b, f.first, f.second);
  memcpy(&b[block + 20], "hello", 5);
  WriteAll(file, b);
  EXPECT_EQ(Ok({"info", file}), Info("26 bytes (older form)", "'_' (0x5F)", 32, 2, 1, 1, 5183));
  EXPECT_EQ(Ok({"ls", "-l", file}), "stream            5        -     0:2  Old\n");
  EXPECT_EQ(Ok({"cat", file, "Old"}), "hello");
}

// Damage is reported with exit 1, never hidden, and never hangs a walk.
TEST_P(Cli, DamageIsReported) {
  const Bytes empty = Image();
  Bytes image = empty;
  PutWidth(image, 32 + 8, 32);  // the first directory block links to itself
  WriteAll(file, image);
  const CliResult loop = Fails({"info", file}, file + ": directory chain loops back to 32\n");
  EXPECT_NE(loop.out.find("opens:            no"), std::string::npos) << loop.out;
  PutWidth(image, 32 + 8, 1 << 20);
  WriteAll(file, image);
  Fails({"info", file}, "directory block at 1048576 lies outside the file\n");
  Fails({"ls", file}, file);
  image = empty;
  Put16(image, 26, 32);  // 32 slots per block: a layout we do not know
  WriteAll(file, image);
  const std::string out = Ok({"info", file});
  EXPECT_NE(out.find("slots per block:  32\n"), std::string::npos) << out;
  EXPECT_NE(out.find("opens:            no (the library refuses this file)\n"), std::string::npos);
  Fails({"ls", file}, file);
  EXPECT_EQ(Image(), image);

  // Sub's slot pointed at Top's own chain, so that Sub seems to hold itself
  // again and again; Data's first block without its magic.
  WriteAll(file, empty);
  Ok({"mkdir", "-p", file, "Top/Sub"});
  Ok({"put", file, "Data"}, Pattern(10000, 3));
  image = Image();
  const size_t first = GetParam() ? 84 : 76, top = RootSlot(6);
  const size_t sub = Get32(image, top + first) + (GetParam() ? 40 : 20) + 4;
  ASSERT_EQ(memcmp(&image[sub + 4], "Sub", 4), 0);
  memcpy(&image[sub + 68], &image[top + 68], W() - 68);
  Put32(image, Get32(image, RootSlot(7) + first), 0);
  WriteAll(file, image);
  const std::string n = std::to_string(W() + 4);  // child count + one slot
  EXPECT_EQ(Fails({"tree", file}, "Data: damaged").out,
            "Top/             " + n + "\n  Sub/           " + n + "\nData          10000\n");
  EXPECT_EQ(Fails({"cat", file, "Data"}, "Data: cannot read the stream").out, "");
}

TEST_P(Cli, RecordingPrintsOneRecordALine) {
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
  WriteAll(rec, Bytes(b.begin(), b.end()));
  EXPECT_EQ(Ok({"recording", rec}), expected);
  // A name length of 61 is malformed: the records before it still print.
  const size_t good = b.size();
  b += std::string("\x01\x3d\x00", 3) + std::string(61, 'n') + '\0';
  WriteAll(rec, Bytes(b.begin(), b.end()));
  EXPECT_EQ(
      Fails({"recording", rec}, rec + ": malformed record at byte " + std::to_string(good)).out,
      expected);
  WriteAll(rec, Bytes());
  EXPECT_EQ(Ok({"recording", rec}), "");
}

}  // namespace

#endif  // KYSTORE_CLI_PATH
