// The kystore command, run as a separate process on temporary files: what
// each command prints and changes, how it reports damage and bad usage, and
// what keeps it from harming a storage: the write journal that rolls failed
// changes back, refusals before the first write, and locks between
// processes.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/win_file.h"
#include "platform/write_journal.h"
#include "support/test_util.h"

namespace {

using kytest::Bytes;

// Writes through a handle of the platform layer, as the library does.
bool WriteThrough(const std::string& path, int64_t offset, const std::string& bytes) {
  HANDLE h = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  LARGE_INTEGER at;
  at.QuadPart = offset;
  DWORD written = 0;
  BOOL ok = h != INVALID_HANDLE_VALUE && SetFilePointerEx(h, at, nullptr, FILE_BEGIN) &&
            WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  CloseHandle(h);
  return ok && written == bytes.size();
}

// Overlapping writes below, across and beyond the starting size, kept in
// memory or spilled to the temporary file: a roll back restores every byte
// and the size.  When the bytes a write would overwrite cannot be saved,
// the write is refused and the journal tells why.
TEST(WriteJournal, RollBackRestoresTheFile) {
  kytest::TempDir dir;
  const std::string path = dir.File("j.bin"), other = dir.File("other.bin");
  const Bytes original(10000, 'o');
  for (int64_t memoryLimit : {int64_t(0), int64_t(500), WriteJournal::kDefaultMemoryLimit}) {
    kytest::WriteAll(path, original);
    kytest::WriteAll(other, original);
    WriteJournal journal;
    ASSERT_TRUE(journal.Begin(path.c_str(), memoryLimit));
    ASSERT_TRUE(WriteThrough(path, 100, std::string(300, 'a')));
    ASSERT_TRUE(WriteThrough(path, 250, std::string(300, 'b')));
    ASSERT_TRUE(WriteThrough(path, 9900, std::string(5000, 'c')));
    ASSERT_TRUE(WriteThrough(other, 0, "x"));  // another file: not journalled
    EXPECT_EQ(journal.SavedBytes(), 450 + 100);
    EXPECT_EQ(journal.SpilledBytes() > 0, memoryLimit < 550) << memoryLimit;
    EXPECT_TRUE(journal.RollBack());
    EXPECT_EQ(kytest::ReadAll(path), original);
    EXPECT_EQ(WriteJournal::Current(), nullptr);
  }
  const char* old = getenv("TMPDIR");
  const std::string saved = old != nullptr ? old : "";
  setenv("TMPDIR", dir.File("missing").c_str(), 1);
  WriteJournal journal;
  ASSERT_TRUE(journal.Begin(path.c_str(), 0));
  EXPECT_FALSE(WriteThrough(path, 10, "new"));
  EXPECT_EQ(journal.WriteError(), ENOENT);
  EXPECT_TRUE(WriteThrough(path, 10000, "appended"));  // nothing to save
  EXPECT_TRUE(journal.RollBack());
  EXPECT_EQ(kytest::ReadAll(path), original);
  old != nullptr ? setenv("TMPDIR", saved.c_str(), 1) : unsetenv("TMPDIR");
}

}  // namespace

#ifdef KYSTORE_CLI_PATH

#include "support/cli_fixture.h"

namespace {

using namespace kytest;

INSTANTIATE_TEST_SUITE_P(Widths, Cli, ::testing::Bool());

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
  EXPECT_EQ(Ok({"info", file}),
            Info("32 bytes (current form)", GetParam() ? "'2' (0x32)" : "'1' (0x31)",
                 GetParam() ? 64 : 32, 6, 1, 0, size));
  std::vector<std::string> names(59, std::string(9, '\0'));
  for (int i = 0; i < 59; ++i) names[i].resize(snprintf(&names[i][0], 9, "%08x", 0x100 + 10 * i));
  AddRoots(names);
  EXPECT_NE(Ok({"info", file}).find("blocks: 2\nroot streams:     59\n"), std::string::npos);
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
    const std::string data = Pattern(size, unsigned(size));
    WriteAll(src, Bytes(data.begin(), data.end()));
    Ok({"put", file, "FromFile", src});
    Ok({"put", file, "Deep/er/FromStdin", "-"}, data);
    EXPECT_EQ(Ok({"cat", file, "FromFile"}), data) << size;
    EXPECT_EQ(Ok({"cat", file, "Deep/er/FromStdin"}), data) << size;
  }
}

TEST_P(Cli, LsAndTreeListInTheirOrders) {
  Ok({"put", file, "b"}, "12345");
  Ok({"mkdir", file, "C"});
  Ok({"put", file, "a"}, "");
  EXPECT_EQ(Ok({"ls", file}) + Ok({"ls", "--sort", file}), "b\nC\na\nC\na\nb\n");
  EXPECT_EQ(Ok({"ls", "--sort", "--desc", file}), "b\na\nC\n");
  EXPECT_EQ(Ok({"ls", "-l", file}),
            "kind         length duration    slot  name\n"
            "stream            5        -     0:6  b\n"
            "folder            4        -     0:7  C\n"
            "stream            0        -     0:8  a\n");
  for (const char* name : {"0000ffff", "00000010", "00000020"}) Ok({"put", file, name}, "x");
  EXPECT_EQ(Ok({"ls", "--durations", file}),
            "     16s  00000010\n  65503s  00000020\n  65503s  0000ffff\n"
            "       -  C\n       -  a\n       -  b\n");
  Ok({"put", file, "Top/Mid/Leaf"}, "12345");
  AddRoots({"Timed"}, 0x00050000);                       // 5 minutes
  const std::string n = std::to_string(W() + 4) + "\n";  // child count + one slot
  EXPECT_NE(Ok({"tree", file})
                .find("Top/               " + n + "  Mid/             " + n +
                      "    Leaf            5\nTimed               0  300s\n"),
            std::string::npos);
  EXPECT_EQ(Ok({"tree", file, "Top/Mid"}), "Mid/             " + n + "  Leaf            5\n");
}

// Copies go into a storage of the other width that has children of its
// own, and within one file.
TEST_P(Cli, MkdirRmMvAndCpChangeTheTree) {
  Ok({"mkdir", "-p", file, "A/B/C"});
  Ok({"put", file, "A/B/data"}, "payload");
  Ok({"mv", file, "A/B/data", "A/B/renamed"});
  EXPECT_EQ(Ok({"cat", file, "A/B/renamed"}), "payload");
  Fails({"cat", file, "A/B/data"}, "no such stream");
  Ok({"mv", file, "A", "Root"});
  Ok({"rm", file, "Root/B/C"});
  Ok({"rm", "-r", file, "Root"});
  EXPECT_EQ(Ok({"ls", file}), "");
  const std::string big = Pattern(70000, 7), dst = dir.File("dst.kys");
  Ok({"put", file, "Tree/Sub/big"}, big);
  Ok({"put", file, "Tree/small"}, "small");
  Ok({"put", file, "Tree/empty"}, "");
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
  EXPECT_EQ(Ok({"ls", "-l", file}).substr(43), "stream            5        -     0:2  Old\n");
  EXPECT_EQ(Ok({"cat", file, "Old"}), "hello");
}

// A failing command names the file and leaves it as it was; what can be
// checked is checked before the first write: paths deeper than the library
// opens, sources larger than a stream holds, and anything that is not a
// regular file (a FIFO would otherwise block an open).
TEST_P(Cli, RefusalsLeaveTheFileAsItWas) {
  Ok({"put", file, "Top/data"}, "x");
  Ok({"put", file, "Lone"}, "z");
  std::string deep = "L0";
  for (int i = 1; i < 1030; ++i) deep += "/L" + std::to_string(i);
  const std::string huge = dir.File("huge.bin"), fifo = dir.File("fifo"), missing = dir.File("no");
  WriteAll(huge, Bytes());
  ASSERT_EQ(truncate(huge.c_str(), kyStorage::g_iMaxCompStmSize + 1), 0);  // sparse
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const Bytes before = Image();
  const std::string at = "kystore: " + file + ": ", not_regular = fifo + ": not a regular file";
  const struct {
    Args args;
    std::string err;
    int status;
  } refused[] = {
      {{"cat", file, "Top"}, at + "Top: is a folder\n", 1},
      {{"put", file, "Top/data/below"}, at + "Top/data: not a folder\n", 1},
      {{"cat", file, "Top/none"}, at + "Top/none: no such stream\n", 1},
      {{"mkdir", "-p", file, "Top/data/sub"}, at, 1},
      {{"mkdir", file, "Top"}, at, 1},
      {{"mv", file, "Top", "Lone"}, at + "Top: cannot overwrite a data stream with a folder", 1},
      {{"rm", file, "Top"}, "not empty", 1},
      {{"cp", file, "Top", file, "Top/Inner"}, at, 1},
      {{"cp", file, "Top", file, "Lone"}, at + "Lone: not a folder", 1},
      {{"cp", file, "Top/data", file, "Top"}, at, 1},
      {{"put", file, "Kept", dir.path()}, "kystore: " + dir.path() + ": is a directory\n", 1},
      {{"info", dir.path()}, "kystore: " + dir.path() + ": is a directory\n", 1},
      {{"create", file}, "file exists", 1},
      {{"info", missing}, "kystore: " + missing + ": No such file or directory\n", 1},
      {{"put", missing, "x"}, missing, 1},
      {{"create", dir.File(std::string(300 - dir.path().size(), 'p'))}, "path too long", 1},
      {{"mkdir", "-p", file, deep}, "at most 1024 names", 2},
      {{"put", file, deep}, "at most 1024 names", 2},
      {{"put", file, "Huge", huge}, "too large", 1},
      {{"put", file, "Fifo", fifo}, not_regular, 1},
      {{"info", fifo}, not_regular, 1},
      {{"recording", fifo}, not_regular, 1},
      {{"put", fifo, "x"}, not_regular, 1},
      {{"frobnicate", file}, "usage: kystore", 2},
      {{"info", file, "x"}, "usage: kystore", 2},
      {{"ls", "--bogus", file}, "usage: kystore", 2},
      {{"cat", file, "//"}, "usage: kystore", 2},
      {{"put", file, std::string(61, 'n')}, "usage: kystore", 2},
      {{"mv", file, "Lone"}, "usage: kystore", 2},
      {{"cp", file, "a"}, "usage: kystore cp SRC_FILE SRC_PATH DST_FILE DST_PATH", 2},
  };
  for (const auto& r : refused) {
    SCOPED_TRACE(r.args[0] + " " + r.args.back().substr(0, 20));
    const CliResult result = Fails(r.args, r.err, "y", r.status, "exec timeout -s KILL 20 ");
    EXPECT_TRUE(r.status == 2 || result.err.rfind("kystore: ", 0) == 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(Image(), before);
  }
  EXPECT_FALSE(Exists(missing));
  // As deep as the library goes works, and reads back.
  const std::string deepest = deep.substr(0, deep.find("/L1024"));
  Ok({"put", file, deepest}, "bottom");
  EXPECT_EQ(Ok({"cat", file, deepest}), "bottom");
  WriteAll(file, Bytes(100, 'x'));
  Fails({"info", file}, "kystore: " + file + ": not a storage file\n");
  Fails({"put", file, "x"}, file, "data");
  EXPECT_EQ(Image(), Bytes(100, 'x'));
  Ok({"create", "-f", file});
  EXPECT_EQ(FileSize(file), 32 + 5904);  // 64-bit offsets unless told otherwise
}

// Changes that run out of room (every write past the size limit fails with
// EFBIG, as a full disk would fail it) are rolled back.
TEST_P(Cli, ChangesThatRunOutOfRoomLeaveTheFileAsItWas) {
  Ok({"put", file, "Top/data"}, Pattern(20000, 1));
  Ok({"put", file, "Top/Sub/small"}, "small");
  const std::string big = dir.File("big.bin"), bigData = Pattern(300000, 2);
  WriteAll(big, Bytes(bigData.begin(), bigData.end()));
  const Bytes before = Image();
  const std::string limit =
      "trap '' XFSZ; ulimit -f " + std::to_string(FileSize(file) / 1024 + 1) + "; exec ";
  for (const Args& args : {Args{"put", file, "Top/data", big}, Args{"put", file, "New/Leaf", big},
                           Args{"mkdir", "-p", file, "A/B/C/D/E/F/G/H/I/J/K/L/M/N/O/P"},
                           Args{"cp", file, "Top", file, "Copy"}}) {
    Fails(args, strerror(EFBIG), "", 1, limit);
    EXPECT_EQ(Image(), before) << args[0] << " " << args.back();
  }
  EXPECT_EQ(Ok({"cat", file, "Top/data"}), Pattern(20000, 1));
}

// A put writes a new stream and swaps it in, yet the stream keeps its
// duration, and one in a fast slot stays there (it is found by the slot).
TEST_P(Cli, PutKeepsTheDurationAndTheFastSlot) {
  AddRoots({"Timed"}, 0x00050000);
  AddRoots({"Fast"}, 0, true);
  Ok({"put", file, "Timed"}, "new");
  Ok({"put", file, "Fast"}, "fresh");
  EXPECT_NE(Ok({"tree", file}).find("Timed            3  300s\n"), std::string::npos);
  auto storage = kyStorage::OpenFast(file.c_str(), 0x12, 4096);
  kyStream* fast = storage ? storage->OpenStreamFast("Fast", 0x12) : nullptr;
  char data[8] = {0};
  EXPECT_EQ(fast ? fast->Read(data, 8) : -2, 5);
  EXPECT_STREQ(data, "fresh");
  if (fast) fast->Release();
  if (storage) storage->Release();
}

// Damage is reported with exit 1, never hidden: damaged directories and
// layouts, damaged lengths (negative, beyond the data), a data chain that
// breaks off, a folder that seems to hold itself, a damaged child slot
// (the walk goes on past it; a copy of it changes nothing).
TEST_P(Cli, DamageIsReportedNotHidden) {
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

  WriteAll(file, empty);
  Ok({"put", file, "Data"}, "0123456789");
  for (const char* name : {"F/a", "F/b", "F/c"}) Ok({"put", file, name}, name);
  Ok({"mkdir", "-p", file, "Top/Sub"});
  const Bytes intact = Image();
  const struct {
    int64_t length;
    std::string message;
  } lengths[] = {{-5, "negative length -5"},
                 {4294967291, "do not hold its 4294967291 bytes"},
                 {11, "do not hold its 11 bytes"}};
  for (const auto& l : lengths) {
    if (l.length < 0 && !GetParam()) continue;  // 32-bit lengths are unsigned
    image = intact;
    PutWidth(image, RootSlot(6) + 68, l.length);
    WriteAll(file, image);
    EXPECT_NE(Fails({"tree", file}, "Data: damaged").err.find(l.message), std::string::npos);
    EXPECT_EQ(Fails({"cat", file, "Data"}, l.message).out, "") << l.length;
  }
  // Data's first block loses its magic; Sub's slot is pointed at Top's own
  // chain; b's slot loses its magic.
  image = intact;
  const size_t first = GetParam() ? 84 : 76, top = RootSlot(8);
  const size_t sub = Get32(image, top + first) + (GetParam() ? 40 : 20) + 4;
  ASSERT_EQ(memcmp(&image[sub + 4], "Sub", 4), 0);
  memcpy(&image[sub + 68], &image[top + 68], W() - 68);
  Put32(image, Get32(image, RootSlot(6) + first), 0);
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x12, 4096, 0);
  kyStream* folder = storage ? storage->OpenStream("F", 0x12) : nullptr;
  t_kyStreamU header;
  tag_kyStreamOffset b = {0, 0, 0, 0};
  EXPECT_TRUE(folder && folder->FindStream("b", header, b));
  if (folder) folder->Release();
  if (storage) storage->Release();
  Put32(image, size_t(b.headerOffset), 0);
  WriteAll(file, image);
  const CliResult tree = Fails({"tree", file}, "Data: damaged");
  EXPECT_NE(tree.err.find("F: damaged folder"), std::string::npos) << tree.err;
  for (const char* line : {"\nF/ ", "\n  a ", "\n  c ", "\nTop/ ", "\n  Sub/ "})
    EXPECT_NE(tree.out.find(line), std::string::npos) << line << tree.out;
  EXPECT_EQ(tree.out.find("    Sub"), std::string::npos) << tree.out;  // not below itself
  EXPECT_EQ(Fails({"cat", file, "Data"}, "Data: cannot read the stream").out, "");
  Fails({"cp", file, "F", file, "G"}, "F: damaged folder");
  EXPECT_EQ(Image(), image);
}

TEST_P(Cli, RecordingPrintsOneRecordALine) {
  std::string b;
  auto u16 = [&b](unsigned v) { b += char(v & 0xFF), b += char(v >> 8); };
  b += '\x01', u16(3), b += "Cfg", b += '\x01';   // enter folder Cfg
  b += '\x02', u16(4), b += "Fast", b += '\x01';  // fast enter, seek to end
  b += '\x05', b += '\x01', b += '\x00', u16(4), u16(0), b += std::string("\x80\x02\0\0", 4);
  b += '\x06', b += '\x01', u16(20), u16(0);
  for (int i = 0; i < 20; ++i) b += char(i);
  b += '\x04', u16(3), b += "Old", b += '\x03';
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
  const size_t good = b.size();  // a name length of 61 is malformed
  b += std::string("\x01\x3d\x00", 3) + std::string(61, 'n') + '\0';
  WriteAll(rec, Bytes(b.begin(), b.end()));
  EXPECT_EQ(
      Fails({"recording", rec}, rec + ": malformed record at byte " + std::to_string(good)).out,
      expected);
  WriteAll(rec, Bytes());
  EXPECT_EQ(Ok({"recording", rec}), "");
}

// Two processes putting streams into one folder at once: the lock keeps
// them from writing over each other's slots.
TEST_P(Cli, ConcurrentPutsAllLand) {
  const std::string failures = dir.File("failures");
  std::string script = "";
  for (const char* who : {"a", "b"}) {
    script += "(for i in $(seq 40); do echo " + std::string(who) + "$i | " +
              CommandLine({"put", file}) + " F/" + who + "$i || echo " + who + "$i >>" +
              Quote(failures) + "; done) & ";
  }
  ASSERT_EQ(std::system((script + "wait").c_str()), 0);
  EXPECT_EQ(ReadAll(failures), Bytes());
  const std::string tree = Ok({"tree", file});
  for (const char* who : {"a", "b"})
    for (int i = 1; i <= 40; ++i)
      EXPECT_NE(tree.find("\n  " + std::string(who) + std::to_string(i) + " "), std::string::npos)
          << tree;
}

}  // namespace

#endif  // KYSTORE_CLI_PATH
