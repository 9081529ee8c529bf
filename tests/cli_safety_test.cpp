// What keeps the kystore command from harming a storage: failed changes
// rolled back by the write journal, refusals before the first write, locks
// between processes, files that are not regular, and damage reported.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

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
// and the size, a commit keeps the writes.  When the bytes a write would
// overwrite cannot be saved, the write is refused and the journal tells why.
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
      if (commit) journal.Commit();
      EXPECT_TRUE(commit || journal.RollBack());
      EXPECT_EQ(kytest::ReadAll(path)[260], commit ? 'b' : 'o');
      EXPECT_EQ(kytest::FileSize(path), commit ? 14900 : 10000);
      EXPECT_EQ(WriteJournal::Current(), nullptr);
    }
  }
  const char* old = getenv("TMPDIR");
  const std::string saved = old != nullptr ? old : "";
  setenv("TMPDIR", dir.File("missing").c_str(), 1);
  kytest::WriteAll(path, original);
  WriteJournal journal;
  ASSERT_TRUE(journal.Begin(path.c_str(), 0));
  EXPECT_FALSE(WriteThrough(path, 10, "new"));
  EXPECT_EQ(journal.WriteError(), ENOENT);
  EXPECT_TRUE(WriteThrough(path, 10000, "appended"));  // nothing to save
  EXPECT_TRUE(journal.RollBack());
  EXPECT_EQ(kytest::ReadAll(path), original);
  if (old != nullptr)
    setenv("TMPDIR", saved.c_str(), 1);
  else
    unsetenv("TMPDIR");
}

}  // namespace

#ifdef KYSTORE_CLI_PATH

#include "support/cli_fixture.h"

namespace {

using namespace kytest;

class CliSafety : public CliTest {};
INSTANTIATE_TEST_SUITE_P(Widths, CliSafety, ::testing::Bool(), CliWidthName);

// Changes that run out of room (every write past the size limit fails with
// EFBIG, as a full disk would fail it) leave the file as it was.
TEST_P(CliSafety, ChangesThatRunOutOfRoomLeaveTheFileAsItWas) {
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
    SCOPED_TRACE(args[0] + " " + args.back());
    Fails(args, strerror(EFBIG), "", 1, limit);
    EXPECT_EQ(Image(), before);
  }
  EXPECT_EQ(Ok({"cat", file, "Top/data"}), Pattern(20000, 1));
}

// A put writes a new stream and swaps it in, yet the stream keeps its
// duration, and one in a fast slot stays there (it is found by the slot).
TEST_P(CliSafety, PutKeepsTheDurationAndTheFastSlot) {
  AddRoots({"Timed"}, 0x00050000);  // 5 minutes
  AddRoots({"Fast"}, 0, true);
  Ok({"put", file, "Timed"}, "new");
  Ok({"put", file, "Fast"}, "fresh");
  EXPECT_NE(Ok({"tree", file}).find("Timed            3  300s\n"), std::string::npos);
  kyStorage* storage = kyStorage::OpenFast(file.c_str(), 0x12, 4096);
  ASSERT_NE(storage, nullptr);
  kyStream* fast = storage->OpenStreamFast("Fast", 0x12);
  char data[8] = {0};
  EXPECT_EQ(fast ? fast->Read(data, 8) : -2, 5);
  EXPECT_STREQ(data, "fresh");
  if (fast) fast->Release();
  storage->Release();
}

// Damaged lengths (negative, beyond the data) and a damaged child slot are
// reported with exit 1; a walk goes on past the damaged slot, and a copy of
// a damaged source changes nothing.
TEST_P(CliSafety, DamageIsReportedNotHidden) {
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
    PutWidth(image, RootSlot(6) + 68, l.length);
    WriteAll(file, image);
    EXPECT_NE(Fails({"tree", file}, "Data: damaged").err.find(l.message), std::string::npos);
    EXPECT_EQ(Fails({"cat", file, "Data"}, l.message).out, "");
  }
  kyStorage* storage = kyStorage::Open(file.c_str(), 0x12, 4096, 0);
  ASSERT_NE(storage, nullptr);
  kyStream* folder = storage->OpenStream("F", 0x12);
  t_kyStreamU header;
  tag_kyStreamOffset b = {0, 0, 0, 0};
  EXPECT_TRUE(folder && folder->FindStream("b", header, b));
  if (folder) folder->Release();
  storage->Release();
  Bytes image = intact;
  Put32(image, size_t(b.headerOffset), 0);  // b's slot loses its magic
  WriteAll(file, image);
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
TEST_P(CliSafety, RefusalsComeBeforeTheFirstWrite) {
  std::string deep = "L0";
  for (int i = 1; i < 1030; ++i) deep += "/L" + std::to_string(i);
  const std::string huge = dir.File("huge.bin"), fifo = dir.File("fifo");
  WriteAll(huge, Bytes());
  ASSERT_EQ(truncate(huge.c_str(), kyStorage::g_iMaxCompStmSize + 1), 0);  // sparse
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const Bytes before = Image();
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
    SCOPED_TRACE(r.args[0] + " " + r.args.back().substr(0, 20));
    Fails(r.args, r.message, "", r.status, "exec timeout -s KILL 20 ");
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
TEST_P(CliSafety, ConcurrentPutsAllLand) {
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
