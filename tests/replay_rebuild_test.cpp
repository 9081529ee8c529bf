// Replaying recordings, and rebuilding storage files by a whole, checked copy.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/record_builders.h"
#include "support/root_fixture.h"

namespace {

using namespace kytest;

// A storage's tree: path -> "dir" or ':' and the data; '*' first for the size mark.
typedef std::map<std::string, std::string> Tree;

void DumpStream(kyStream* s, const std::string& path, Tree& out) {
  std::string& v = out[path] = (kyTestAccess::Header(s).Flags() & kSizePrefixFlag) ? "*" : "";
  if (!s->IsFolder()) {
    BYTE* data = nullptr;
    s->Seek(0, 0, true);
    const DWORD n = s->CopyStreamToBuffer(data, FALSE);
    v += ":" + std::string(reinterpret_cast<char*>(data), n);
    s->FreeBuffer(data);
    return;
  }
  v += "dir";
  __int64 cursor = 0;
  for (kyStream* c = s->OpenStreamFirst(&cursor, kRO); c != nullptr;
       c = s->OpenStreamNext(&cursor, kRO)) {
    DumpStream(c, path + "/" + c->GetName(), out);
    c->Release();
  }
}

Tree Dump(kyStorage* st) {
  Tree out;
  void* cursor = nullptr;
  for (kyStream* s = st->OpenStreamFirst(cursor, kRO); s != nullptr;
       s = st->OpenStreamNext(cursor, kRO)) {
    DumpStream(s, s->GetName(), out);
    s->Release();
  }
  return out;
}

int CountRecords(Bytes b) {
  CCompRecorder r;
  r.Attach(b.data(), static_cast<unsigned int>(b.size()), 0);
  int n = 0;
  while (r.PopOp(nullptr, nullptr, nullptr, nullptr)) ++n;
  r.Detach(nullptr);
  return n;
}

enum How { kWrite, kEraseOld, kAppend };

// What an entry setter does: open or create, record, write, release.
void Set(kyStorage* st, kyStream* folder, const char* key, const std::string& v, How how) {
  kyStream* e = Must(folder->OpenOrCreateStream(key, 0));
  unsigned char* d = reinterpret_cast<unsigned char*>(const_cast<char*>(v.data()));
  const DWORD n = static_cast<DWORD>(v.size());
  if (how == kAppend) kyTestAccess::Recorder(st)->OpAppend(d, n, e, 0);
  if (how != kAppend) kyTestAccess::Recorder(st)->OpWrite(d, n, how == kEraseOld, e, 1);
  if (how == kEraseOld) e->PrependSize(n);
  if (how == kAppend) e->Seek(0, 1, true);
  e->Write(d, n, how == kEraseOld);
  e->Release();
}

class Replay : public RootTest {
 protected:
  void SetUp() override {
    RootTest::SetUp();
    Make();
  }
  // Replays `b`: the buffer stays unchanged and every stream is released.
  int Play(Bytes b) {
    const Bytes before = b;
    const int n =
        storage->ReplayRecording(b.empty() ? nullptr : b.data(), static_cast<DWORD>(b.size()));
    EXPECT_EQ(b, before);
    EXPECT_EQ(Records(), 0);
    return n;
  }
};

// Writes two levels deep, appends, a removal and a fast root stream replay
// into an empty storage as the same tree.
TEST_P(Replay, ARecordingReplaysToTheSameTree) {
  kyStorage* src = kyStorage::Create(dir.File("src.kys").c_str(), kRW, 64);
  ASSERT_NE(src, nullptr);
  ASSERT_EQ(src->StartRecording(), 1);
  kyStream* r = Must(src->CreateStream("R", 1, kRW));
  kyStream* f = Must(r->CreateStream("F", 1, kRW, 1));
  Set(src, f, "w", "abcd", kWrite);
  Set(src, f, "e", "longer value", kEraseOld);
  Set(src, f, "e", "short", kEraseOld);
  f->Release();
  Set(src, r, "a", "12", kAppend);
  Set(src, r, "a", "345", kAppend);
  Set(src, r, "gone", "x", kWrite);
  Must(r->OpenStream("gone", kRW))->Remove();
  r->Release();
  kyStream* fast = Must(src->OpenOrCreateStreamFast("fast", 1));
  kyTestAccess::Recorder(src)->OpWrite(reinterpret_cast<unsigned char*>(const_cast<char*>("log")),
                                       3, 0, fast, 0);
  fast->Write("log", 3);
  fast->Release();
  const Bytes rec = StopBytes(src);
  const Tree expected = Dump(src);
  src->Release();
  EXPECT_EQ(expected.at("R/F/e"), "*:" + Le(5, 4) + "short");
  EXPECT_EQ(expected.at("R/a"), ":12345");
  EXPECT_EQ(Play(rec), CountRecords(rec));
  EXPECT_EQ(Dump(storage), expected);
  Must(storage->OpenStreamFast("fast", kRO))->Release();  // in a fast slot again
}

// An entry in R/F: empty while F and R are entered, seven records after.
TEST_P(Replay, TheSevenRecordsOfOneEntry) {
  kyStream* r = Must(storage->CreateStream("R", 1, kRW));
  kyStream* f = Must(r->CreateStream("F", 1, kRW, 1));
  for (int balanced = 0; balanced < 2; ++balanced) {
    ASSERT_EQ(storage->StartRecording(), 1);
    Set(storage, f, "W", Le(640, 4), kWrite);
    EXPECT_EQ(balanced ? Bytes() : StopBytes(storage), Bytes());  // F, R entered: nothing
  }
  f->Release();
  r->Release();
  const Bytes rec = StopBytes(storage);
  EXPECT_EQ(rec,
            (Rec().Enter("R", 1).Enter("F", 1).Enter("W", 0).Write(0, 1, Le(640, 4)).Leave(3).b));
  Make();
  EXPECT_EQ(Play(rec), 7);
  EXPECT_EQ(Dump(storage), (Tree{{"R", "dir"}, {"R/F", "dir"}, {"R/F/W", ":" + Le(640, 4)}}));
}

// Buffers that end the replay early: the count and the changes before stay.
TEST_P(Replay, BuffersThatEndEarly) {
  const Bytes whole = Rec().Enter("R", 1).Enter("e", 0).Write(0, 0, "abc").Leave(2).b;
  Rec deep;
  Tree deepTree;
  std::string chain = "d";
  for (int i = 0; i < 33; ++i, chain += "/d") {
    deep.Enter("d", 1);
    if (i < 32) deepTree[chain] = "dir";
  }
  const std::tuple<Bytes, int, Tree> rows[] = {
      {Bytes(), 0, {}},
      {Rec().Leave().Enter("R", 1).b, 0, {}},
      {Rec().Write(0, 0, "x").b, 0, {}},
      {Rec().Enter("R", 0).Append(0, "x").Leave().Append(0, "y").b, 3, {{"R", ":x"}}},
      {Bytes(whole.begin(), whole.end() - 4), 2, {{"R", "dir"}, {"R/e", ":"}}},  // cut in the data
      {Rec().Enter("D", 0).Enter("x", 0).Leave().b, 1, {{"D", ":"}}},  // no child in a data stream
      {Rec().Enter("", 1).b, 0, {}},
      {Rec().Put({RecOpRemove, 1, 0}, "n").Enter("R", 1).Put({RecOpRemove, 1, 0}, "n").Leave().b,
       4,
       {{"R", "dir"}}},
      {deep.Write(0, 0, "never").b, 32, deepTree},  // a 33rd nested enter
  };
  for (const auto& [b, count, tree] : rows) {
    Make();
    EXPECT_EQ(Play(b), count);
    EXPECT_EQ(Dump(storage), tree);
  }
  EXPECT_EQ(storage->ReplayRecording(nullptr, 5), 0);
}

// Writes over "0123456789"; appends with and without the prefix.
TEST_P(Replay, WritesAndAppends) {
  const int w = B64() ? 8 : 4;
  const std::string digits = "0123456789";
  const std::tuple<std::string, Rec, std::string> rows[] = {
      {digits, Rec().Write(0, 0, "ab"), ":ab23456789"},
      {digits, Rec().Write(0, 1, "ab"), ":ab23456789"},
      {digits, Rec().Write(1, 0, "ab"), ":ab"},
      {digits, Rec().Write(1, 1, "ab"), "*:" + Le(2, 4) + "ab"},
      {"", Rec().Append(0, "ab").Append(0, "c"), ":abc"},
      // Writes on another stream in between move the shared file position.
      {"",
       Rec()
           .Write(0, 0, "ab")
           .Put({RecOpEnterFast, 1, 0}, "X")
           .Put({0})
           .Write(0, 0, "zz")
           .Leave()
           .Write(0, 0, "cd"),
       ":abcd"},
      {"", Rec().Append(1, "ab").Append(1, "cde"), ":" + Le(w + 2, w) + "abcde"},
      {digits, Rec().Append(0, "ab"), ":" + digits + "ab"},
      {digits, Rec().Append(1, "ab"), ":" + Le(10, w) + digits.substr(w) + "ab"},
  };
  for (const auto& [initial, rec, expected] : rows) {
    Make();
    kyStream* e = Must(storage->CreateStream("E", 0, kRW));
    e->Write(initial.data(), static_cast<__int64>(initial.size()), true);
    e->Release();
    const Bytes b = Rec().Enter("E", 0).Put(std::vector<int>(rec.b.begin(), rec.b.end())).b;
    EXPECT_EQ(Play(b), CountRecords(b));
    EXPECT_EQ(Dump(storage).at("E"), expected);
  }
}

// Root data, empty and folder (duration 5) streams; in the folder data, an
// empty stream and folder, a nested folder, a marked value, a removed 100000.
class Rebuild : public RootTest {
 protected:
  void SetUp() override {
    RootTest::SetUp();
    Make();
    auto put = [](kyStream* s, const std::string& v) {
      s->Write(v.data(), static_cast<__int64>(v.size()), true);
      s->Release();
    };
    put(Must(storage->CreateStream("plain", 0, kRW)), "plain data");
    Must(storage->CreateStream("nil", 0, kRW))->Release();
    kyStream* cfg = Must(storage->CreateStream("Cfg", (5 << 16) | 1, kRW));
    put(Must(cfg->CreateStream("a", 0, kRW, 1)), std::string(5000, 'a'));
    Must(cfg->CreateStream("empty", 0, kRW, 1))->Release();
    Must(cfg->CreateStream("void", 1, kRW, 1))->Release();
    kyStream* sub = Must(cfg->CreateStream("sub", 1, kRW, 1));
    put(Must(sub->CreateStream("deep", 0, kRW, 1)), "deep");
    subSlot = kyTestAccess::Offset(sub).headerOffset;
    sub->Release();
    kyStream* marked = Must(cfg->CreateStream("marked", 0, kRW, 1));
    marked->PrependSize(3);
    put(marked, "xyz");
    put(Must(cfg->CreateStream("junk", 0, kRW, 1)), std::string(100000, 'j'));
    Must(cfg->OpenStream("junk", kRW))->Remove();
    cfg->Release();
    tree = Dump(storage);
    Close();
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    image = ReadAll(path);
  }
  Tree Reopened() {
    Reopen();
    return Dump(storage);
  }
  // Nothing changed and no temporary file left behind.
  void ExpectUntouched(const Bytes& bytes) {
    EXPECT_EQ(ReadAll(path), bytes);
    EXPECT_FALSE(Exists(temp) && !std::filesystem::is_directory(temp));
  }
  // Cfg/sub's slot damaged, or the root "nil" renamed "plain".
  Bytes Damaged(bool duplicateRoot) {
    Bytes b = image;
    if (duplicateRoot) memcpy(&b[static_cast<size_t>(Slot(kHeaderSize, 7)) + 4], "plain", 6);
    if (!duplicateRoot) Put32(b, static_cast<size_t>(subSlot), 0x12345678);
    WriteAll(path, b);
    return b;
  }
  Tree tree;
  Bytes image;
  int64_t subSlot = 0;
  std::string temp = path + "_tmp";
};

// A left-over temporary file of a crashed rebuild is replaced.
TEST_P(Rebuild, KeepsEveryStreamAndDropsRemovedOnes) {
  WriteAll(temp, Bytes(300, 0xEE));
  std::vector<std::pair<int, int>> steps;
  auto progress = [](int done, int total, void* c) {
    static_cast<std::vector<std::pair<int, int>>*>(c)->push_back({done, total});
  };
  EXPECT_EQ(kyStorage::Recreate(path.c_str(), progress, &steps), 1);
  EXPECT_EQ(steps, (std::vector<std::pair<int, int>>{{0, 3}, {1, 3}, {2, 3}, {3, 3}}));
  EXPECT_FALSE(Exists(temp));
  EXPECT_LT(FileSize(path), static_cast<int64_t>(image.size()) - 100000);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(Reopened(), tree);
  EXPECT_EQ(tree.at("Cfg/marked"), "*:" + Le(3, 4) + "xyz");
  kyStream* cfg = Must(storage->OpenStream("Cfg", kRO));
  EXPECT_EQ(cfg->GetDuration(), 0);
  cfg->Release();
}

// Every failure leaves the storage file byte for byte as it was.
TEST_P(Rebuild, FailuresLeaveTheFileAsItWas) {
  enum Fault { kDirectory, kDamagedChild, kDuplicateRoot, kFileSizeLimit };
  for (Fault fault : {kDirectory, kDamagedChild, kDuplicateRoot, kFileSizeLimit}) {
    SCOPED_TRACE(fault);
    WriteAll(path, image);
    const Bytes before = fault == kDamagedChild || fault == kDuplicateRoot
                             ? Damaged(fault == kDuplicateRoot)
                             : image;
    if (fault == kDirectory) mkdir(temp.c_str(), 0700);
    const pid_t child = fork();  // the file size limit is the child's alone
    if (child == 0) {
      signal(SIGXFSZ, SIG_IGN);
      struct rlimit limit = {8000, 8000};  // the copy of Cfg/a goes beyond
      if (fault == kFileSizeLimit) setrlimit(RLIMIT_FSIZE, &limit);
      _exit(kyStorage::Recreate(path.c_str()));
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ExpectUntouched(before);
    EXPECT_EQ(rmdir(temp.c_str()) == 0, fault == kDirectory);
  }
  // A missing file: nothing is created.
  const std::string missing = dir.File("missing.kys");
  EXPECT_EQ(kyStorage::Recreate(missing.c_str()), 0);
  EXPECT_FALSE(Exists(missing) || Exists(missing + "_tmp"));
}

// The open-storage form: the untouched file on failure, a writable storage
// on success, the storage itself for another file's name.
TEST_P(Rebuild, TheOpenStorageForm) {
  const Bytes damaged = Damaged(false);
  storage = kyStorage::Recreate(kyStorage::Open(path.c_str(), kRW, 64, 0), path.c_str());
  EXPECT_NE(storage, nullptr);
  ExpectUntouched(damaged);
  storage->Release();
  WriteAll(path, image);
  storage = kyStorage::Recreate(kyStorage::Open(path.c_str(), kRO, 64, 1), path.c_str());
  ASSERT_NE(storage, nullptr);
  EXPECT_FALSE(kyTestAccess::InMemory(storage));
  Must(storage->CreateStream("new", 0, kRW))->Release();
  Tree now = Dump(storage);
  EXPECT_EQ(now.erase("new"), 1u);
  EXPECT_EQ(now, tree);
  const std::string other = dir.File("other.kys");
  WriteAll(other, image);
  EXPECT_EQ(kyStorage::Recreate(storage, other.c_str()), storage);
  EXPECT_EQ(ReadAll(other), image);
}

INSTANTIATE_TEST_SUITE_P(Widths, Replay, ::testing::Bool(), RootWidthName);
INSTANTIATE_TEST_SUITE_P(Widths, Rebuild, ::testing::Bool(), RootWidthName);

}  // namespace
