// Replaying recordings into a storage, and rebuilding a storage file: the
// replay repeats what was recorded, the rebuild keeps every stream and
// replaces the file only by a whole, checked copy.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

// A storage's tree: path -> "dir", or the data after ':' ('*' first when the
// stream carries the size-prefix mark).
typedef std::map<std::string, std::string> Tree;

void DumpStream(kyStream* s, const std::string& path, Tree& out) {
  std::string v = (kyTestAccess::Header(s).Flags() & kSizePrefixFlag) ? "*" : "";
  if (s->IsFolder()) {
    __int64 cursor = 0;
    for (kyStream* c = s->OpenStreamFirst(&cursor, kRO); c != nullptr;
         c = s->OpenStreamNext(&cursor, kRO)) {
      DumpStream(c, path + "/" + c->GetName(), out);
      c->Release();
    }
    out[path] = v + "dir";
    return;
  }
  std::string data(static_cast<size_t>(s->GetLength()), '\0');
  if (!data.empty() &&
      (s->Seek(0, 0, true) != 0 || s->Read(&data[0], s->GetLength()) != s->GetLength()))
    data = "<unreadable>";
  out[path] = v + ":" + data;
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

// A recording written by hand, record by record.
struct Rec {
  Bytes b;
  Rec& Name(int kind, const std::string& name) {
    b.push_back(static_cast<uint8_t>(kind));
    b.push_back(static_cast<uint8_t>(name.size()));
    b.push_back(0);
    b.insert(b.end(), name.begin(), name.end());
    return *this;
  }
  Rec& Enter(const std::string& name, int flag, int kind = RecOpEnter) {
    Name(kind, name).b.push_back(static_cast<uint8_t>(flag));
    return *this;
  }
  Rec& Leave(int n = 1) {
    b.insert(b.end(), static_cast<size_t>(n), RecOpLeave);
    return *this;
  }
  Rec& Remove(const std::string& name) { return Name(RecOpRemove, name); }
  Rec& Data(std::vector<int> head, const std::string& data) {
    b.insert(b.end(), head.begin(), head.end());
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(data.size() >> (8 * i)));
    b.insert(b.end(), data.begin(), data.end());
    return *this;
  }
  Rec& Write(bool eraseOld, bool prefix, const std::string& d) {
    return Data({RecOpWrite, eraseOld, prefix}, d);
  }
  Rec& Append(bool prefix, const std::string& d) { return Data({RecOpAppend, prefix}, d); }
};

int CountRecords(Bytes b) {
  CCompRecorder r;
  r.Attach(b.data(), static_cast<unsigned int>(b.size()), 0);
  int n = 0;
  while (r.PopOp(nullptr, nullptr, nullptr, nullptr)) ++n;
  r.Detach(nullptr);
  return n;
}

std::string Le(uint64_t v, int width) {
  std::string s;
  for (int i = 0; i < width; ++i) s += static_cast<char>(v >> (8 * i));
  return s;
}

class Replay : public RootTest {
 protected:
  void SetUp() override {
    RootTest::SetUp();
    Make();
  }
  // Replays `b` into the held storage; the buffer must come back unchanged
  // and every stream of the replay released.
  int Play(Bytes b) {
    const Bytes before = b;
    const int n =
        storage->ReplayRecording(b.empty() ? nullptr : b.data(), static_cast<DWORD>(b.size()));
    EXPECT_EQ(b, before);
    EXPECT_EQ(Records(), 0);
    return n;
  }
  // Stops the recording of `st` and hands back its bytes.
  static Bytes Stop(kyStorage* st) {
    std::unique_ptr<CCompRecorder> rec(st->StopRecording());
    unsigned int n = 0;
    unsigned char* p = rec->Detach(&n);
    Bytes out = p != nullptr ? Bytes(p, p + n) : Bytes();
    CCompRecorder::Free(p);
    return out;
  }
  enum How { kWrite, kEraseOld, kAppend };
  // What an entry setter does: the entry `key` in `folder` is opened or
  // created, the value reported to the storage's recorder and written, and
  // the entry released.
  static void Set(kyStorage* st, kyStream* folder, const char* key, const std::string& v, How how) {
    kyStream* e = Must(folder->OpenOrCreateStream(key, 0));
    unsigned char* d = reinterpret_cast<unsigned char*>(const_cast<char*>(v.data()));
    const DWORD n = static_cast<DWORD>(v.size());
    CCompRecorder* rec = kyTestAccess::Recorder(st);
    if (how == kAppend) {
      rec->OpAppend(d, n, e, 0);
      e->Seek(0, 1, true);
    } else {
      rec->OpWrite(d, n, how == kEraseOld, e, 1);
      if (how == kEraseOld) e->PrependSize(n);
    }
    e->Write(d, n, how == kEraseOld);
    e->Release();
  }
};

// Entry-like writes two levels deep, appends, a removal, a root data stream
// and a fast root stream, released in nesting order: the replay into an
// empty storage builds the same tree and applies every record.
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
  kyStream* g = Must(r->CreateStream("G", 1, kRW, 1));
  Set(src, g, "x", "deep", kWrite);
  g->Release();
  r->Release();
  kyStream* fast = Must(src->OpenOrCreateStreamFast("fast", 1));
  kyTestAccess::Recorder(src)->OpWrite(reinterpret_cast<unsigned char*>(const_cast<char*>("log")),
                                       3, 0, fast, 0);
  fast->Write("log", 3);
  fast->Release();
  const Bytes rec = Stop(src);
  const Tree expected = Dump(src);
  src->Release();
  EXPECT_EQ(expected.count("R/gone"), 0u);
  EXPECT_EQ(expected.at("R/F/e"), "*:" + Le(5, 4) + "short");
  EXPECT_EQ(expected.at("R/a"), ":12345");
  EXPECT_EQ(Play(rec), CountRecords(rec));
  EXPECT_EQ(Dump(storage), expected);
  kyStream* s = Must(storage->OpenStreamFast("fast", kRO));  // in a fast slot again
  s->Release();
}

// An entry on F inside R, F and R released: seven records, replayed as
// seven.  Stopped while F is still entered, the recording comes back empty.
TEST_P(Replay, TheSevenRecordsOfOneEntry) {
  ASSERT_EQ(storage->StartRecording(), 1);
  kyStream* r = Must(storage->CreateStream("R", 1, kRW));
  kyStream* f = Must(r->CreateStream("F", 1, kRW, 1));
  Set(storage, f, "W", Le(640, 4), kWrite);
  ASSERT_EQ(storage->StartRecording(), 1);
  Set(storage, f, "W", Le(641, 4), kWrite);
  EXPECT_EQ(Stop(storage), Bytes());  // F and R are still entered
  f->Release();
  r->Release();
  ASSERT_EQ(storage->StartRecording(), 1);
  r = Must(storage->OpenStream("R", kRW));
  f = Must(r->OpenStream("F", kRW));
  Set(storage, f, "W", Le(640, 4), kWrite);
  f->Release();
  r->Release();
  const Bytes rec = Stop(storage);
  EXPECT_EQ(
      rec,
      (Rec().Enter("R", 1).Enter("F", 1).Enter("W", 0).Write(false, true, Le(640, 4)).Leave(3).b));
  Make();
  EXPECT_EQ(Play(rec), 7);
  EXPECT_EQ(Dump(storage), (Tree{{"R", "dir"}, {"R/F", "dir"}, {"R/F/W", ":" + Le(640, 4)}}));
}

// Buffers that end the replay early: the count stops before the record
// that ends it, and the changes before it stay.
TEST_P(Replay, BuffersThatEndEarly) {
  const Bytes whole = Rec().Enter("R", 1).Enter("e", 0).Write(false, false, "abc").Leave(2).b;
  Bytes cut(whole.begin(), whole.end() - 4);  // inside the write's data
  Rec deep;
  for (int i = 0; i < 33; ++i) deep.Enter("d", 1);
  deep.Write(false, false, "never");
  std::string chain = "d";
  Tree deepTree;
  for (int i = 0; i < 32; ++i, chain += "/d") deepTree[chain] = "dir";
  const struct {
    Bytes b;
    int count;
    Tree tree;
  } rows[] = {
      {Bytes(), 0, {}},
      {Rec().Leave().Enter("R", 1).b, 0, {}},
      {Rec().Write(false, false, "x").b, 0, {}},
      {Rec().Enter("R", 0).Append(false, "x").Leave().Append(false, "y").b, 3, {{"R", ":x"}}},
      {cut, 2, {{"R", "dir"}, {"R/e", ":"}}},
      {Rec().Enter("D", 0).Enter("x", 0).Leave().b, 1, {{"D", ":"}}},  // no child in a data stream
      {Rec().Enter("", 1).b, 0, {}},
      {Rec().Remove("nope").Enter("R", 1).Remove("nope").Leave().b, 4, {{"R", "dir"}}},
      {deep.b, 32, deepTree},
  };
  for (const auto& row : rows) {
    Make();
    EXPECT_EQ(Play(row.b), row.count);
    EXPECT_EQ(Dump(storage), row.tree);
  }
  EXPECT_EQ(storage->ReplayRecording(nullptr, 5), 0);
}

// Write records on a stream holding "0123456789", and appends with and
// without the offset prefix on empty and non-empty streams.
TEST_P(Replay, WritesAndAppends) {
  const int w = B64() ? 8 : 4;
  const std::string digits = "0123456789";
  const struct {
    std::string initial;
    Rec rec;
    std::string expected;
  } rows[] = {
      {digits, Rec().Write(false, false, "ab"), ":ab23456789"},
      {digits, Rec().Write(false, true, "ab"), ":ab23456789"},
      {digits, Rec().Write(true, false, "ab"), ":ab"},
      {digits, Rec().Write(true, true, "ab"), "*:" + Le(2, 4) + "ab"},
      {"", Rec().Append(false, "ab").Append(false, "c"), ":abc"},
      {"", Rec().Append(true, "ab").Append(true, "cde"), ":" + Le(w + 2, w) + "abcde"},
      {digits, Rec().Append(false, "ab"), ":" + digits + "ab"},
      {digits, Rec().Append(true, "ab"), ":" + Le(10, w) + digits.substr(w) + "ab"},
  };
  for (const auto& row : rows) {
    Make();
    kyStream* e = Must(storage->CreateStream("E", 0, kRW));
    if (!row.initial.empty()) e->Write(row.initial.data(), 10, true);
    e->Release();
    Bytes b = Rec().Enter("E", 0).b;
    b.insert(b.end(), row.rec.b.begin(), row.rec.b.end());
    EXPECT_EQ(Play(b), CountRecords(b));
    EXPECT_EQ(Dump(storage).at("E"), row.expected);
  }
}

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
    sub->Release();
    kyStream* marked = Must(cfg->CreateStream("marked", 0, kRW, 1));
    marked->PrependSize(3);
    put(marked, "xyz");
    put(Must(cfg->CreateStream("junk", 0, kRW, 1)), std::string(100000, 'j'));
    Must(cfg->OpenStream("junk", kRW))->Remove();
    cfg->Release();
    tree = Dump(storage);
    subSlot = SubSlot();
    storage->Release();
    storage = nullptr;
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    image = ReadAll(path);
  }
  // Where the slot of Cfg/sub lies in the held storage.
  int64_t SubSlot() {
    kyStream* cfg = Must(storage->OpenStream("Cfg", kRO));
    kyStream* sub = Must(cfg->OpenStream("sub", kRO));
    const int64_t at = kyTestAccess::Offset(sub).headerOffset;
    sub->Release();
    cfg->Release();
    return at;
  }
  Tree Reopened() {
    Reopen();
    return Dump(storage);
  }
  // Nothing changed and nothing left behind.
  void ExpectUntouched() {
    EXPECT_EQ(ReadAll(path), image);
    EXPECT_FALSE(Exists(temp) && !std::filesystem::is_directory(temp));
  }
  Tree tree;
  Bytes image;
  int64_t subSlot = 0;
  std::string temp = path + "_tmp";
};

TEST_P(Rebuild, KeepsEveryStreamAndDropsRemovedOnes) {
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
  // Again through a symbolic link: the file is rebuilt, the link stays.
  const std::string link = dir.File("link.kys");
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  storage->Release();
  storage = nullptr;
  EXPECT_EQ(kyStorage::Recreate(link.c_str()), 1);
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_EQ(Reopened(), tree);
}

// A left-over temporary file of a crashed rebuild is replaced.
TEST_P(Rebuild, ReplacesALeftOverTemporaryFile) {
  WriteAll(temp, Bytes(300, 0xEE));
  EXPECT_EQ(kyStorage::Recreate(path.c_str()), 1);
  EXPECT_FALSE(Exists(temp));
  EXPECT_EQ(Reopened(), tree);
}

TEST_P(Rebuild, AMissingFileGivesZeroAndCreatesNothing) {
  const std::string missing = dir.File("missing.kys");
  EXPECT_EQ(kyStorage::Recreate(missing.c_str()), 0);
  EXPECT_FALSE(Exists(missing));
  EXPECT_FALSE(Exists(missing + "_tmp"));
}

// Every failure leaves the storage file byte for byte as it was.
TEST_P(Rebuild, FailuresLeaveTheFileAsItWas) {
  enum Fault { kDirectory, kDamagedChild, kDuplicateRoot, kFileSizeLimit };
  const Bytes original = image;
  for (Fault fault : {kDirectory, kDamagedChild, kDuplicateRoot, kFileSizeLimit}) {
    SCOPED_TRACE(fault);
    Bytes damaged = original;
    if (fault == kDamagedChild) Put32(damaged, static_cast<size_t>(subSlot), 0x12345678);
    if (fault == kDuplicateRoot) {  // "nil" renamed "plain" on disk
      Reopen();
      tag_kyStreamOffset o;
      ASSERT_TRUE(kyTestAccess::FindStreamOffset(storage, "nil", o));
      memcpy(&damaged[static_cast<size_t>(o.headerOffset) + 4], "plain", 6);
      storage->Release();
      storage = nullptr;
    }
    WriteAll(path, damaged);
    image = damaged;
    if (fault == kDirectory) {
      ASSERT_EQ(mkdir(temp.c_str(), 0700), 0);
    }
    int result = -1;
    if (fault == kFileSizeLimit) {
      const pid_t child = fork();
      if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = {8000, 8000};  // the copy of Cfg/a goes beyond
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(kyStorage::Recreate(path.c_str()));
      }
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      ASSERT_TRUE(WIFEXITED(status));
      result = WEXITSTATUS(status);
    } else {
      result = kyStorage::Recreate(path.c_str());
    }
    EXPECT_EQ(result, 0);
    ExpectUntouched();
    if (fault == kDirectory) {
      ASSERT_EQ(rmdir(temp.c_str()), 0);
    }
  }
}

// The open-storage form: a new storage opened for writing on the rebuilt
// file; on failure one on the untouched file; the storage itself back when
// nothing could be done.
TEST_P(Rebuild, TheOpenStorageForm) {
  kyStorage* old = kyStorage::Open(path.c_str(), kRO, 64, 1);
  storage = kyStorage::Recreate(old, path.c_str());
  ASSERT_NE(storage, nullptr);
  EXPECT_FALSE(kyTestAccess::InMemory(storage));
  Must(storage->CreateStream("new", 0, kRW))->Release();
  Tree now = Dump(storage);
  EXPECT_EQ(now.erase("new"), 1u);
  EXPECT_EQ(now, tree);
  // Another file's name, or no room for the temporary file: nothing done.
  const std::string other = dir.File("other.kys");
  WriteAll(other, image);
  EXPECT_EQ(kyStorage::Recreate(storage, other.c_str()), storage);
  EXPECT_EQ(ReadAll(other), image);
  image = ReadAll(path);
  ASSERT_EQ(mkdir(temp.c_str(), 0700), 0);
  EXPECT_EQ(kyStorage::Recreate(storage, path.c_str()), storage);
  ASSERT_EQ(rmdir(temp.c_str()), 0);
  ExpectUntouched();
  // Damage: the file stays and a storage on it comes back.
  const int64_t at = SubSlot();
  storage->Release();
  Put32(image, static_cast<size_t>(at), 0);
  WriteAll(path, image);
  storage = kyStorage::Recreate(kyStorage::Open(path.c_str(), kRW, 64, 0), path.c_str());
  EXPECT_NE(storage, nullptr);
  ExpectUntouched();
}

INSTANTIATE_TEST_SUITE_P(Widths, Replay, ::testing::Bool(), RootWidthName);
INSTANTIATE_TEST_SUITE_P(Widths, Rebuild, ::testing::Bool(), RootWidthName);

}  // namespace
