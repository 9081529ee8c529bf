// What keeps the kystore command from harming a storage: failed changes
// rolled back by the write journal, refusals before the first write, locks
// between processes, files that are not regular, and damage reported.
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

// Writes `bytes` at `offset` through a handle of the platform layer, as the
// library does.
bool WriteThrough(const std::string& path, int64_t offset, const std::string& bytes) {
  HANDLE h = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  LARGE_INTEGER at;
  at.QuadPart = offset;
  DWORD written = 0;
  BOOL ok = SetFilePointerEx(h, at, nullptr, FILE_BEGIN) &&
            WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  CloseHandle(h);
  return ok && written == bytes.size();
}

// Overlapping writes below, across and beyond the starting size, kept in
// memory or spilled to the temporary file: a roll back restores every byte
// and the size, a commit keeps the writes.
TEST(WriteJournal, RollBackRestoresTheFileAndCommitKeepsTheWrites) {
  kytest::TempDir dir;
  const std::string path = dir.File("j.bin"), other = dir.File("other.bin");
  const Bytes original(10000, 'o');
  for (int64_t memoryLimit : {int64_t(0), int64_t(500), WriteJournal::kDefaultMemoryLimit}) {
    for (bool commit : {false, true}) {
      SCOPED_TRACE(std::to_string(memoryLimit) + (commit ? " commit" : " roll back"));
      kytest::WriteAll(path, original);
      kytest::WriteAll(other, original);
      WriteJournal journal;
      ASSERT_TRUE(journal.Begin(path.c_str(), memoryLimit));
      ASSERT_TRUE(WriteThrough(path, 100, std::string(300, 'a')));
      ASSERT_TRUE(WriteThrough(path, 250, std::string(300, 'b')));
      ASSERT_TRUE(WriteThrough(path, 9900, std::string(5000, 'c')));
      ASSERT_TRUE(WriteThrough(other, 0, "x"));  // another file: not journalled
      EXPECT_EQ(journal.SavedBytes(), 450 + 100);
      EXPECT_EQ(journal.SpilledBytes() > 0, memoryLimit < 550);
      EXPECT_EQ(kytest::FileSize(path), 14900);
      if (commit) {
        journal.Commit();
        EXPECT_EQ(kytest::ReadAll(path)[260], 'b');
      } else {
        EXPECT_TRUE(journal.RollBack());
        EXPECT_EQ(kytest::ReadAll(path), original);
      }
      EXPECT_EQ(WriteJournal::Current(), nullptr);
    }
  }
}

// When the bytes a write would overwrite cannot be kept, the write is
// refused before it changes anything, and the journal tells why.
TEST(WriteJournal, AWriteWhoseBytesCannotBeSavedIsRefused) {
  kytest::TempDir dir;
  const std::string path = dir.File("j.bin");
  kytest::WriteAll(path, Bytes(100, 'o'));
  const char* old = getenv("TMPDIR");
  const std::string saved = old != nullptr ? old : "";
  setenv("TMPDIR", dir.File("missing").c_str(), 1);
  WriteJournal journal;
  ASSERT_TRUE(journal.Begin(path.c_str(), 0));
  EXPECT_FALSE(WriteThrough(path, 10, "new"));
  EXPECT_EQ(journal.WriteError(), ENOENT);
  EXPECT_TRUE(WriteThrough(path, 100, "appended"));  // nothing to save
  EXPECT_TRUE(journal.RollBack());
  EXPECT_EQ(kytest::ReadAll(path), Bytes(100, 'o'));
  if (old != nullptr)
    setenv("TMPDIR", saved.c_str(), 1);
  else
    unsetenv("TMPDIR");
}

}  // namespace

#ifdef KYSTORE_CLI_PATH

#include "support/cli_fixture.h"

namespace {

using kytest::Args;
using kytest::CliResult;
using kytest::Pattern;
using kytest::Quote;

class CliSafety : public kytest::CliFixture {};
class CliSafetyWidth : public kytest::CliWidthFixture {
 protected:
  int64_t W() const { return GetParam() ? 92 : 80; }
  // The file offset of the slot of root stream `index` in the first block.
  size_t RootSlot(int index) const { return (GetParam() ? 32 + 16 : 32 + 12) + W() * index; }
  void PutLength(Bytes& image, size_t slot, int64_t length) const {
    if (GetParam())
      kytest::Put64(image, slot + 68, length);
    else
      kytest::Put32(image, slot + 68, static_cast<uint32_t>(length));
  }
};

INSTANTIATE_TEST_SUITE_P(Widths, CliSafetyWidth, ::testing::Bool(), kytest::WidthName);

// Shell text that makes every write past `kib` KiB fail with EFBIG, as a
// full disk would fail it.
std::string FileSizeLimit(int64_t kib) {
  return "trap '' XFSZ; ulimit -f " + std::to_string(kib) + "; exec ";
}

TEST_P(CliSafetyWidth, ChangesThatRunOutOfRoomLeaveTheFileAsItWas) {
  Ok({"put", file, "Top/data"}, Pattern(20000, 1));
  Ok({"put", file, "Top/Sub/small"}, "small");
  const std::string big = dir.File("big.bin");
  const std::string bigData = Pattern(300000, 2);
  kytest::WriteAll(big, Bytes(bigData.begin(), bigData.end()));
  const Bytes before = Image();
  const std::string limit = FileSizeLimit(kytest::FileSize(file) / 1024 + 1);
  const std::string tooLarge = strerror(EFBIG);
  const Args changes[] = {
      {"put", file, "Top/data", big},
      {"put", file, "New/Deeper/leaf", big},
      {"mkdir", "-p", file, "A/B/C/D/E/F/G/H/I/J/K/L/M/N/O/P"},
      {"cp", file, "Top", file, "Copy"},
  };
  for (const Args& args : changes) {
    SCOPED_TRACE(args[0] + " " + args[args.size() - 1]);
    Fails(args, tooLarge, "", limit);
    EXPECT_EQ(Image(), before);
  }
  EXPECT_EQ(Ok({"cat", file, "Top/data"}), Pattern(20000, 1));
}

// A put writes a new stream and swaps it in, yet the stream keeps its
// duration, and one in a fast slot stays there (it is found by the slot).
TEST_P(CliSafetyWidth, PutKeepsTheDurationAndTheFastSlot) {
  AddRoots({"Timed"}, 0x00050000);  // 5 minutes
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x16, 4096, 0);
  ASSERT_NE(storage, nullptr);
  kyStream* fast = storage->CreateStreamFast("Fast", 0x16);
  ASSERT_NE(fast, nullptr);
  fast->Release();
  storage->Release();
  Ok({"put", file, "Timed"}, "new");
  Ok({"put", file, "Fast"}, "fresh");
  EXPECT_NE(Ok({"tree", file}).find("Timed            3  300s\n"), std::string::npos);
  storage = kyStorage::OpenFast(file.c_str(), 0x12, 4096);
  ASSERT_NE(storage, nullptr);
  fast = storage->OpenStreamFast("Fast", 0x12);
  ASSERT_NE(fast, nullptr);
  char data[8] = {0};
  EXPECT_EQ(fast->Read(data, 8), 5);
  EXPECT_STREQ(data, "fresh");
  fast->Release();
  storage->Release();
}

// Damaged lengths (negative, beyond the data) and a damaged child slot are
// reported with exit 1; a walk goes on past the damaged slot, and a copy of
// a damaged source changes nothing.
TEST_P(CliSafetyWidth, DamageIsReportedNotHidden) {
  Ok({"put", file, "Data"}, "0123456789");
  for (const char* name : {"F/a", "F/b", "F/c"}) Ok({"put", file, name}, name);
  const Bytes intact = Image();
  const struct {
    int64_t length;
    std::string message;
  } lengths[] = {{-5, "negative length -5"},
                 {4294967291, "do not hold its 4294967291 bytes"},
                 {11, "do not hold its 11 bytes"}};
  for (const auto& l : lengths) {
    if (l.length < 0 && !GetParam()) continue;  // 32-bit lengths are unsigned
    SCOPED_TRACE(l.length);
    Bytes image = intact;
    PutLength(image, RootSlot(6), l.length);
    kytest::WriteAll(file, image);
    EXPECT_NE(Fails({"tree", file}, "Data: damaged").err.find(l.message), std::string::npos);
    EXPECT_EQ(Fails({"cat", file, "Data"}, l.message).out, "");
  }

  kytest::WriteAll(file, intact);
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x12, 4096, 0);
  ASSERT_NE(storage, nullptr);
  kyStream* folder = storage->OpenStream("F", 0x12);
  ASSERT_NE(folder, nullptr);
  t_kyStreamU header;
  tag_kyStreamOffset b = {0, 0, 0, 0};
  ASSERT_TRUE(folder->FindStream("b", header, b));
  folder->Release();
  storage->Release();
  Bytes image = intact;
  kytest::Put32(image, static_cast<size_t>(b.headerOffset), 0);  // b's slot loses its magic
  kytest::WriteAll(file, image);
  const CliResult tree = Fails({"tree", file}, "F: damaged folder");
  EXPECT_NE(tree.out.find("F/"), std::string::npos) << tree.out;
  EXPECT_NE(tree.out.find("  a "), std::string::npos) << tree.out;
  EXPECT_NE(tree.out.find("  c "), std::string::npos) << tree.out;
  Fails({"cp", file, "F", file, "G"}, "F: damaged folder");
  EXPECT_EQ(Image(), image);
}

// Paths deeper than the library opens, and sources larger than a stream
// holds, are refused before anything is written; so is anything that is
// not a regular file, at once (a FIFO would otherwise block an open).
TEST_F(CliSafety, RefusalsComeBeforeTheFirstWrite) {
  Ok({"create", file});
  std::string deep = "L0";
  for (int i = 1; i < 1030; ++i) deep += "/L" + std::to_string(i);
  const std::string huge = dir.File("huge.bin"), fifo = dir.File("fifo");
  kytest::WriteAll(huge, Bytes());
  ASSERT_EQ(truncate(huge.c_str(), kyStorage::g_iMaxCompStmSize + 1), 0);  // sparse
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const Bytes before = Image();
  const std::string guard = "exec timeout -s KILL 20 ";
  const struct {
    Args args;
    int status;
    std::string message;
  } refused[] = {
      {{"mkdir", "-p", file, deep}, 2, "at most 1024 names"},
      {{"put", file, deep}, 2, "at most 1024 names"},
      {{"put", file, "Huge", huge}, 1, "too large"},
      {{"put", file, "Fifo", fifo}, 1, fifo + ": not a regular file"},
      {{"info", fifo}, 1, fifo + ": not a regular file"},
      {{"recording", fifo}, 1, fifo + ": not a regular file"},
      {{"cat", fifo, "x"}, 1, fifo + ": not a regular file"},
      {{"tree", fifo}, 1, fifo + ": not a regular file"},
      {{"put", fifo, "x"}, 1, fifo + ": not a regular file"},
  };
  for (const auto& r : refused) {
    SCOPED_TRACE(r.args[0] + " " + r.args[r.args.size() - 1].substr(0, 20));
    const CliResult result = Run(r.args, "", guard);
    EXPECT_EQ(result.status, r.status) << result.err;
    EXPECT_NE(result.err.find(r.message), std::string::npos) << result.err;
    EXPECT_EQ(Image(), before);
  }
  // As deep as the library goes works, and reads back.
  const std::string deepest = deep.substr(0, deep.find("/L1024"));
  Ok({"put", file, deepest}, "bottom");
  EXPECT_EQ(Ok({"cat", file, deepest}), "bottom");
  EXPECT_EQ(Run({"tree", file}).status, 0);
}

// Two processes putting streams into one folder at once: the lock keeps
// them from writing over each other's slots.
TEST_F(CliSafety, ConcurrentPutsAllLand) {
  Ok({"create", file});
  const std::string failures = dir.File("failures");
  std::string script = "";
  for (const char* who : {"a", "b"}) {
    script += "(for i in $(seq 40); do echo " + std::string(who) + "$i | " +
              CommandLine({"put", file}) + " F/" + who + "$i || echo " + who + "$i >>" +
              Quote(failures) + "; done) & ";
  }
  script += "wait";
  ASSERT_EQ(std::system(script.c_str()), 0);
  EXPECT_EQ(kytest::ReadAll(failures), Bytes());
  const std::string tree = Ok({"tree", file});
  for (const char* who : {"a", "b"})
    for (int i = 1; i <= 40; ++i)
      EXPECT_NE(tree.find("\n  " + std::string(who) + std::to_string(i) + " "), std::string::npos)
          << tree;
}

}  // namespace

#endif  // KYSTORE_CLI_PATH
