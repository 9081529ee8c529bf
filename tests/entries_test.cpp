// Entries: the bytes of every value form in both offset widths, in a folder
// and at the root, what the getters give for missing or unfit data, the
// records the setters make, refusals over folders, and values surviving a
// close and reopen.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/global_mem.h"
#include "support/stream_fixture.h"

namespace kytest {
namespace {

Bytes Text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

// Records as the recorder writes them.
Bytes Enter(const std::string& name, uint8_t flag, uint8_t kind = 1) {
  Bytes r = {kind, static_cast<uint8_t>(name.size()), 0};
  return Concat(Concat(r, Text(name)), {flag});
}
Bytes Data(Bytes head, const Bytes& data) {
  Bytes n(4, 0);
  Put32(n, 0, static_cast<uint32_t>(data.size()));
  return Concat(Concat(head, n), data);
}
Bytes Write(uint8_t erase, uint8_t prefix, const Bytes& data) {
  return Data({5, erase, prefix}, data);
}
Bytes Append(uint8_t prefix, const Bytes& data) {
  return Data({6, prefix}, data);
}
const Bytes kLeave = {3};

class EntriesTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    kyStorage::g_bUse64BitOffsets = B64() ? 1 : 0;  // restored by `globals`
    storage = kyStorage::Create(path.c_str(), kModeReadWriteShared, 256);
    ASSERT_NE(nullptr, storage);
    folder = storage->CreateStream("Cfg", 1, kModeReadWriteShared);
    ASSERT_NE(nullptr, folder);
  }
  void TearDown() override { Close(); }
  bool B64() const { return GetParam(); }
  Bytes Prefix(int64_t v) const {
    Bytes p(B64() ? 8 : 4, 0);
    Put32(p, 0, static_cast<uint32_t>(v));
    return p;
  }
  void Close() {
    if (folder != nullptr) folder->Release();
    if (storage != nullptr) storage->Release();
    folder = nullptr;
    storage = nullptr;
  }
  void Reopen(DWORD mode, int load) {
    Close();
    storage = kyStorage::Open(path.c_str(), mode, 256, load);
    ASSERT_NE(nullptr, storage);
    folder = storage->OpenStream("Cfg", mode);
    ASSERT_NE(nullptr, folder);
  }
  // The whole data of entry `key` of a folder or of the storage.
  template <class P>
  static Bytes Value(P* owner, const char* key, uint8_t* flags = nullptr) {
    Held<kyStream> e = Hold(owner->OpenStream(key, kModeReadShared));
    if (!e) return Bytes({0xBA, 0xD0});
    if (flags != nullptr) *flags = kyTestAccess::Header(e.get()).Flags();
    Bytes out(static_cast<size_t>(e->GetLength()), 0);
    if (!out.empty() && (e->Seek(0, 0) != 0 || e->Read(out.data(), out.size()) != e->GetLength()))
      return Bytes({0xBA, 0xD1});
    return out;
  }

  GlobalsGuard globals;
  TempDir dir;
  std::string path = dir.File("entries.kys");
  kyStorage* storage = nullptr;
  kyStream* folder = nullptr;
};

// One typed setter, called the same way on a folder and on the storage,
// with what it must write and a check of its getter.
struct Typed {
  const char* key;
  std::function<int(kyStream*)> onFolder;
  std::function<int(kyStorage*)> onRoot;
  std::function<bool(kyStream*)> readFolder;
  std::function<bool(kyStorage*)> readRoot;
  Bytes bytes;
};
template <class Set, class Get>
Typed Row(const char* key, Set set, Get get, Bytes bytes) {
  return {key, set, set, get, get, bytes};
}

TEST_P(EntriesTest, EachOverloadWritesItsWidthAndReadsBack) {
  // Each call picks the overload of its argument's width.
  const std::vector<Typed> rows = {
      Row(
          "i", [](auto* s) { return s->SetEntry("i", 7); },
          [](auto* s) { return s->GetEntry("i", 0) == 7; }, {7, 0, 0, 0}),
      Row(
          "d", [](auto* s) { return s->SetEntry("d", static_cast<DWORD>(0xFFFFFFFEu)); },
          [](auto* s) { return s->GetEntry("d", static_cast<DWORD>(0)) == 0xFFFFFFFEu; },
          {0xFE, 0xFF, 0xFF, 0xFF}),
      Row(
          "l", [](auto* s) { return s->SetEntry("l", static_cast<__int64>(-5)); },
          [](auto* s) { return s->GetEntry("l", static_cast<__int64>(0)) == -5; },
          {0xFB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
      Row(
          "u", [](auto* s) { return s->SetEntry("u", static_cast<unsigned __int64>(5)); },
          [](auto* s) { return s->GetEntry("u", static_cast<unsigned __int64>(0)) == 5u; },
          {5, 0, 0, 0, 0, 0, 0, 0}),
      Row(
          "f", [](auto* s) { return s->SetEntry("f", 1.0); },
          [](auto* s) { return s->GetEntry("f", 0.0) == 1.0; }, {0, 0, 0, 0, 0, 0, 0xF0, 0x3F}),
      Row(
          "s", [](auto* s) { return s->SetEntry("s", "abc"); },
          [](auto* s) { return s->GetEntry("s", "x") == CString("abc"); }, {3, 0, 'a', 'b', 'c'}),
  };
  for (int load = 0; load < 2; ++load) {
    for (const Typed& r : rows) {
      SCOPED_TRACE(r.key);
      EXPECT_EQ(1, r.onFolder(folder));
      EXPECT_EQ(1, r.onRoot(storage));
      EXPECT_EQ(r.bytes, Value(folder, r.key));
      EXPECT_EQ(r.bytes, Value(storage, r.key));
    }
    Reopen(kModeReadShared, load);
    for (const Typed& r : rows) {
      SCOPED_TRACE(r.key);
      EXPECT_TRUE(r.readFolder(folder));
      EXPECT_TRUE(r.readRoot(storage));
    }
    Reopen(kModeReadWriteShared, 0);
  }
  long long pos = 0;  // binds the __int64 forms
  Held<kyStream> i = Hold(folder->OpenStream("i", kModeReadShared));
  char buf[10];
  EXPECT_EQ(4, i->Read(buf, 10LL));
  EXPECT_EQ(TRUE, i->GetVerifiedDataLength(pos));
  EXPECT_EQ(4, pos);
}

TEST_P(EntriesTest, RectSizeAndOverwrites) {
  RECT rc = {-1, 2, 3, 0x01020304};
  SIZE sz = {640, -480};
  ASSERT_EQ(1, folder->SetEntry("r", &rc));
  ASSERT_EQ(1, folder->SetEntry("z", &sz));
  EXPECT_EQ(Bytes({0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0, 3, 0, 0, 0, 4, 3, 2, 1}),
            Value(folder, "r"));
  EXPECT_EQ(Bytes({0x80, 2, 0, 0, 0x20, 0xFE, 0xFF, 0xFF}), Value(folder, "z"));
  RECT r2 = {};
  SIZE s2 = {};
  EXPECT_EQ(0x01020304, folder->GetEntry("r", &r2, nullptr)->bottom);
  EXPECT_EQ(-480, folder->GetEntry("z", &s2, nullptr)->cy);

  // Written over the start without cutting: the string's tail stays.
  ASSERT_EQ(1, folder->SetEntry("k", 7));
  ASSERT_EQ(1, folder->SetEntry("k", "abc"));
  EXPECT_EQ(Bytes({3, 0, 'a', 'b', 'c'}), Value(folder, "k"));
  EXPECT_EQ(0x62610003, folder->GetEntry("k", 0));
  ASSERT_EQ(1, folder->SetEntry("t", "abcdefgh"));
  ASSERT_EQ(1, folder->SetEntry("t", 5));
  EXPECT_EQ(Bytes({5, 0, 0, 0, 'c', 'd', 'e', 'f', 'g', 'h'}), Value(folder, "t"));
  EXPECT_EQ(std::string("\0\0cde", 5), folder->GetEntry("t", "").str());
}

TEST_P(EntriesTest, AppendedBuffersPointAtTheNewestValue) {
  // The entries take over the chains of removed streams, whose old bytes
  // lie past their length.
  const Bytes old = Pattern(100, 5);
  for (kyStream* s : {folder->CreateStream("h", 0, kModeReadWriteShared, 1),
                      storage->CreateStream("h", 0, kModeReadWriteShared)}) {
    ASSERT_EQ(100, s->Write(old.data(), 100));
    ASSERT_TRUE(s->Remove());
  }
  for (kyStream* owner : {folder, static_cast<kyStream*>(nullptr)}) {
    auto set = [&](const char* k, const void* d, DWORD n, bool prefix) {
      if (owner == nullptr)
        return prefix ? storage->SetEntry(k, d, n) : storage->SetEntryNoPrefix(k, d, n);
      return prefix ? owner->SetEntry(k, d, n) : owner->SetEntryNoPrefix(k, d, n);
    };
    auto value = [&](const char* k) { return owner ? Value(owner, k) : Value(storage, k); };
    EXPECT_EQ(1, set("h", "AB", 2, true));
    EXPECT_EQ(Concat(Prefix(B64() ? 8 : 4), Text("AB")), value("h"));
    EXPECT_EQ(1, set("h", "CD", 2, true));
    EXPECT_EQ(Concat(Prefix(B64() ? 10 : 6), Text("ABCD")), value("h"));
    EXPECT_EQ(1, set("n", "AB", 2, false));
    EXPECT_EQ(1, set("n", "CD", 2, false));
    EXPECT_EQ(Text("ABCD"), value("n"));
    EXPECT_EQ(1, set("zero", "AB", 0, true));
    EXPECT_EQ(1, set("zero", "AB", 0, false));
    EXPECT_EQ(Bytes({0xBA, 0xD0}), value("zero"));  // nothing created
  }
}

TEST_P(EntriesTest, ErasedOldValuesWithAndWithoutPrefix) {
  const Bytes ten = Pattern(10, 1);
  uint8_t flags = 0;
  ASSERT_EQ(1, folder->SetEntryEraseOld("e", ten.data(), 10, 1));
  EXPECT_EQ(Concat({10, 0, 0, 0}, ten), Value(folder, "e", &flags));
  EXPECT_EQ(kSizePrefixFlag, flags);
  void* data = nullptr;
  unsigned int size = 0;
  ASSERT_EQ(1, folder->GetEntryErasedOld("e", &data, &size));
  ASSERT_EQ(10u, size);
  EXPECT_EQ(ten, Bytes(static_cast<BYTE*>(data), static_cast<BYTE*>(data) + size));
  GlobalFree(data);
  // The caller's buffer: larger than the value refused, smaller reads its start.
  Bytes buf(11, 0xEE);
  EXPECT_EQ(0, folder->GetEntryErasedOld("e", buf.data(), 11));
  EXPECT_EQ(Bytes(11, 0xEE), buf);
  EXPECT_EQ(1, folder->GetEntryErasedOld("e", buf.data(), 4));
  EXPECT_EQ(Slice(ten, 0, 4), Slice(buf, 0, 4));

  ASSERT_EQ(1, folder->SetEntryEraseOld("e", "xyz", 3, 1));
  EXPECT_EQ(Bytes({3, 0, 0, 0, 'x', 'y', 'z'}), Value(folder, "e"));
  // Without the prefix the mark stays: the first 4 bytes no longer match.
  ASSERT_EQ(1, folder->SetEntryEraseOld("e", "xyz", 3, 0));
  data = &size;
  EXPECT_EQ(0, folder->GetEntryErasedOld("e", &data, &size));
  EXPECT_EQ(nullptr, data);
  EXPECT_EQ(0u, size);
  EXPECT_EQ(0, folder->GetEntryErasedOld("e", buf.data(), 1));
  // Root entries, and a value without the mark.
  ASSERT_EQ(1, storage->SetEntryEraseOld("p", "abcd", 4, 0));
  ASSERT_EQ(1, storage->GetEntryErasedOld("p", &data, &size));
  EXPECT_EQ(Text("abcd"), Bytes(static_cast<BYTE*>(data), static_cast<BYTE*>(data) + size));
  GlobalFree(data);
  EXPECT_EQ(0, storage->GetEntryErasedOld("missing", &data, &size));
}

TEST_P(EntriesTest, GettersGiveDefaults) {
  Held<kyStream> sub = Hold(folder->CreateStream("sub", 1, kModeReadWriteShared, 1));
  ASSERT_TRUE(sub);
  for (const std::string& data :
       std::vector<std::string>{"\x01", "\x01\x02", std::string("\x01\0\0\0\x02\0\0\0", 8)}) {
    const std::string key = "b" + std::to_string(data.size());
    Held<kyStream> e = Hold(folder->CreateStream(key.c_str(), 0, kModeReadWriteShared, 1));
    ASSERT_EQ(static_cast<int64_t>(data.size()), e->Write(data.data(), data.size()));
  }
  const RECT def = {9, 9, 9, 9};
  const SIZE sdef = {7, 7};
  for (const char* key : {"missing", "sub", "b1", "b2"}) {
    SCOPED_TRACE(key);
    RECT rc = {};
    SIZE sz = {};
    EXPECT_EQ(42, folder->GetEntry(key, 42));
    EXPECT_EQ(42u, folder->GetEntry(key, 42u));
    EXPECT_EQ(2.5, folder->GetEntry(key, 2.5));
    EXPECT_EQ(-3, folder->GetEntry(key, static_cast<__int64>(-3)));
    EXPECT_EQ(9, folder->GetEntry(key, &rc, &def)->left);
    EXPECT_EQ(7, folder->GetEntry(key, &sz, &sdef)->cx);
    EXPECT_EQ(42, storage->GetEntry(key, 42));
  }
  EXPECT_EQ(CString("dflt"), folder->GetEntry("missing", "dflt"));
  EXPECT_EQ(CString("dflt"), folder->GetEntry("sub", "dflt"));
  EXPECT_EQ(CString(""), folder->GetEntry("missing", nullptr));
  EXPECT_EQ(CString(""), folder->GetEntry("b1", "dflt"));  // no whole length: empty
  // Too short for a RECT: the default, or the bytes read without one.
  RECT rc = {5, 5, 5, 5};
  EXPECT_EQ(9, folder->GetEntry("b8", &rc, &def)->top);
  rc = {5, 5, 5, 5};
  EXPECT_EQ(&rc, folder->GetEntry("b8", &rc, nullptr));
  EXPECT_EQ(2, rc.top);
  EXPECT_EQ(5, rc.right);
  EXPECT_EQ(1, kyTestAccess::Children(folder).GetCount());  // `sub` only: the getters released
}

TEST_P(EntriesTest, FastEntriesSeeOnlyTheFastSlots) {
  ASSERT_EQ(1, storage->SetEntry("n", 1));
  ASSERT_EQ(1, storage->SetEntryFast("f", 2.5));
  ASSERT_EQ(1, storage->SetEntryFast("s", "fast"));
  EXPECT_EQ(9, storage->GetEntryFast("n", 9));
  EXPECT_EQ(1, storage->GetEntry("n", 9));
  EXPECT_EQ(2.5, storage->GetEntryFast("f", 0.0));
  EXPECT_EQ(CString("fast"), storage->GetEntryFast("s", ""));
  Reopen(kModeReadShared, 1);
  EXPECT_EQ(2.5, storage->GetEntryFast("f", 0.0));
  EXPECT_EQ(2.5, storage->GetEntry("f", 0.0));
}

// A setter whose key names a folder writes nothing and records nothing.
TEST_P(EntriesTest, SettersRefuseFolders) {
  Held<kyStream> sub = Hold(folder->CreateStream("sub", 1, kModeReadWriteShared, 1));
  ASSERT_TRUE(sub);
  Held<kyStream>(sub->CreateStream("child", 0, kModeReadWriteShared, 1));
  sub.reset();
  Held<kyStream>(storage->CreateStreamFast("ff", 1, kModeReadWriteShared));
  const Bytes before = ReadAll(path);
  ASSERT_EQ(1, storage->StartRecording());
  RECT rc = {1, 2, 3, 4};
  const std::vector<std::function<int()>> setters = {
      [&] { return folder->SetEntry("sub", 7); },
      [&] { return folder->SetEntry("sub", "text"); },
      [&] { return folder->SetEntry("sub", &rc); },
      [&] { return folder->SetEntry("sub", "AB", 2); },
      [&] { return folder->SetEntryNoPrefix("sub", "AB", 2); },
      [&] { return folder->SetEntryEraseOld("sub", "AB", 2, 1); },
      [&] { return storage->SetEntry("Cfg", 1.0); },
      [&] { return storage->SetEntryEraseOld("Cfg", "AB", 2, 0); },
      [&] { return storage->SetEntryFast("ff", 7); },
  };
  for (const auto& set : setters) EXPECT_EQ(0, set());
  CCompRecorder* rec = storage->StopRecording();
  EXPECT_EQ(0u, rec->GetDataLength());
  delete rec;
  EXPECT_EQ(before, ReadAll(path));
}

TEST_P(EntriesTest, SettersRecordBeforeTheyWrite) {
  RECT rc = {1, 2, 3, 4};
  struct {
    std::function<int(kyStorage*, kyStream*)> set;
    Bytes records;
  } rows[] = {
      {[](kyStorage*, kyStream* f) { return f->SetEntry("k", 7); }, Write(0, 1, {7, 0, 0, 0})},
      {[&](kyStorage*, kyStream* f) { return f->SetEntry("k", &rc); },
       Write(0, 1, {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0})},
      {[](kyStorage*, kyStream* f) { return f->SetEntry("k", ""); }, Write(0, 1, {0, 0})},
      {[](kyStorage*, kyStream* f) { return f->SetEntry("k", "ab"); },
       Concat(Write(0, 1, {2, 0}), Write(0, 1, Text("ab")))},
      {[](kyStorage*, kyStream* f) { return f->SetEntry("k", "AB", 2); }, Append(1, Text("AB"))},
      {[](kyStorage*, kyStream* f) { return f->SetEntryNoPrefix("k", "AB", 2); },
       Append(0, Text("AB"))},
      {[](kyStorage*, kyStream* f) { return f->SetEntryEraseOld("k", "AB", 2, 1); },
       Write(1, 1, Text("AB"))},
      {[](kyStorage*, kyStream* f) { return f->SetEntryEraseOld("k", "AB", 2, 0); },
       Write(1, 0, Text("AB"))},
  };
  for (const auto& r : rows) {
    Close();
    SetUp();
    ASSERT_EQ(1, storage->StartRecording());
    EXPECT_EQ(1, r.set(storage, folder));
    folder->Release();
    folder = nullptr;
    CCompRecorder* rec = storage->StopRecording();
    unsigned int n = 0;
    rec->SeekToBegin();
    const unsigned char* p = rec->PeekAll(&n);
    EXPECT_EQ(Concat(Concat(Concat(Enter("Cfg", 1), Enter("k", 0)), r.records), {3, 3}),
              Bytes(p, p + n));
    delete rec;
    Close();
  }
  // At the root: a plain enter, or a fast enter for the fast form.
  for (int fast = 0; fast < 2; ++fast) {
    Close();
    SetUp();
    ASSERT_EQ(1, storage->StartRecording());
    EXPECT_EQ(1, fast ? storage->SetEntryFast("k", 7) : storage->SetEntry("k", 7));
    CCompRecorder* rec = storage->StopRecording();
    unsigned int n = 0;
    rec->SeekToBegin();
    const unsigned char* p = rec->PeekAll(&n);
    EXPECT_EQ(Concat(Concat(Enter("k", 0, fast ? 2 : 1), Write(0, 1, {7, 0, 0, 0})), kLeave),
              Bytes(p, p + n));
    delete rec;
    Close();
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, EntriesTest, ::testing::Bool(), WidthName);

}  // namespace
}  // namespace kytest
