// Typed values on storage streams of either width, on the memory stream,
// and as entries of a folder or the root: bytes, records, defaults, refusals.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/global_mem.h"
#include "support/folder_fixture.h"
#include "support/record_builders.h"

namespace kytest {
namespace {

// One operator call: the writes it makes in order (one write record each),
// and a copy through the matching read operator.
struct ValueCase {
  std::string name;
  std::function<void(kyStream&)> put;
  std::function<void(kyStream&, kyStream&)> copy;
  std::vector<Bytes> pieces;
};

template <class T, class R = T>
ValueCase Case(const std::string& name, T value, std::vector<Bytes> pieces) {
  return {name, [value](kyStream& s) { s << value; },
          [](kyStream& in, kyStream& out) {
            R v{};
            in >> v;
            out << v;
          },
          pieces};
}

std::vector<ValueCase> Cases() {
  static const std::string s65534(65534, 'x'), s65535(65535, 'y');
  return {
      Case("word", static_cast<WORD>(0x1234), {{0x34, 0x12}}),
      Case("int 7", 7, {{7, 0, 0, 0}}),
      Case("int -1", -1, {{0xFF, 0xFF, 0xFF, 0xFF}}),
      Case("dword", static_cast<DWORD>(4294967295u), {{0xFF, 0xFF, 0xFF, 0xFF}}),
      Case("double", 1.0, {{0, 0, 0, 0, 0, 0, 0xF0, 0x3F}}),
      Case("int64", static_cast<__int64>(-2), {{0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}),
      Case("uint64", static_cast<unsigned __int64>(0x0102030405060708ULL),
           {{8, 7, 6, 5, 4, 3, 2, 1}}),
      Case<const char*, CString>("empty", "", {{0, 0}}),
      Case<const char*, CString>("null", nullptr, {{0, 0}}),
      Case<const char*, CString>("abc", "abc", {{3, 0}, Chars("abc")}),
      Case<CString, CString>("CString", CString("ab"), {{2, 0}, Chars("ab")}),
      Case<const char*, CString>("65534", s65534.c_str(), {{0xFE, 0xFF}, Chars(s65534)}),
      Case<const char*, CString>("65535", s65535.c_str(),
                                 {{0xFF, 0xFF}, {0xFF, 0xFF, 0, 0}, Chars(s65535)}),
  };
}

// Everything written into a fresh memory stream, taken back with Detach.
Bytes Image(const std::function<void(kyStream&)>& put) {
  kyStream2 m;
  put(m);
  int size = -1;
  BYTE* block = static_cast<BYTE*>(m.Detach(size));
  Bytes out(block, block + (size > 0 ? size : 0));
  GlobalFree(block);
  return out;
}

// Reads `bytes` through `read` from a memory stream over a copy of them.
template <class F>
void FromMemory(const Bytes& bytes, F read) {
  BYTE* block = static_cast<BYTE*>(GlobalAlloc(GPTR, bytes.size() + 1));
  std::copy(bytes.begin(), bytes.end(), block);
  {
    kyStream2 m(block, static_cast<int>(bytes.size()));
    read(m);
  }
  GlobalFree(block);
}

class StreamValues : public StreamTest {};

// The same bytes on a storage stream (one write record per piece) and on
// the memory stream; each read operator copies them back exactly.
TEST_P(StreamValues, EveryFormHasItsBytesRecordsAndReadsBack) {
  for (const ValueCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    Make(64);
    kyStream* v = New("v");
    ASSERT_EQ(1, storage->StartRecording());
    c.put(*v);
    Bytes bytes;
    Rec expected = Rec().Enter("v", 0);
    for (const Bytes& p : c.pieces) {
      bytes = Concat(bytes, p);
      expected.Write(0, 1, p);
    }
    EXPECT_EQ(Contents(v, v->GetLength()), bytes);
    v->Release();
    EXPECT_EQ(expected.Leave().b, StopBytes(storage));
    Held<kyStream> r = Hold(OpenRoot("v"));
    EXPECT_EQ(Image([&](kyStream& out) { c.copy(*r, out); }), bytes);

    EXPECT_EQ(Image(c.put), bytes);
    FromMemory(bytes, [&](kyStream& in) {
      EXPECT_EQ(Image([&](kyStream& out) { c.copy(in, out); }), bytes);
    });
  }
  EXPECT_EQ(Image([](kyStream& m) { m << 7 << "ab"; }), Bytes({7, 0, 0, 0, 2, 0, 'a', 'b'}));
}

// A string whose characters come short: padded to the announced length when
// the stream could hold it, else only the bytes that came.
TEST_P(StreamValues, ShortStringsAndNumbers) {
  Make(64);
  const std::tuple<Bytes, std::string, std::string> cases[] = {
      {{0xFF, 0xFF, 5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o'}, "hello", "hello"},
      {{5, 0, 'a', 'b'}, std::string("ab\0\0\0", 5), "ab"},
      {{3, 0, 'a'}, std::string("a\0\0", 3), std::string("a\0\0", 3)},
      {{0xFF, 0xFF, 0xF0, 0xFF, 0xFF, 0xFF, 'x'}, "x", "x"},
      {{0xFF, 0xFF, 0, 0, 0, 0x80, 'x'}, "x", "x"},
      {{7}, "", ""},
      {{0xFF, 0xFF, 1, 0}, "", ""},
  };
  int i = 0;
  for (const auto& [data, stored, memory] : cases) {
    Held<kyStream> w = Hold(New("s" + std::to_string(i++)));
    ASSERT_EQ(static_cast<int64_t>(data.size()), w->Write(data.data(), data.size()));
    CString got("old");
    ASSERT_EQ(0, w->Seek(0, 0));
    *w >> got;
    EXPECT_EQ(got.str(), stored) << i;
    FromMemory(data, [&](kyStream& m) { EXPECT_EQ((m >> got, got.str()), memory) << i; });
  }
  FromMemory({1, 2}, [](kyStream& m) {  // numbers keep the bytes that did not come
    int v = 0x7F7F7F7F;
    m >> v;
    EXPECT_EQ(v, 0x7F7F0201);
  });
}

INSTANTIATE_TEST_SUITE_P(Widths, StreamValues, ::testing::Bool(), WidthName);

// Growth by at least 1024 bytes, zero-filled; Detach empties the stream.
TEST(MemoryStream, GrowsByAtLeast1024Bytes) {
  const Bytes data = Pattern(1500, 3);
  struct {
    std::vector<int64_t> writes;
    size_t block;
  } cases[] = {{{10}, 1024}, {{1500}, 1500}, {{1500, 10}, 2524}, {{1000, 1000}, 2048}};
  for (const auto& c : cases) {
    kyStream2 m;
    int64_t total = 0;
    for (int64_t n : c.writes) {
      EXPECT_EQ(n, m.Write(data.data(), n));
      total += n;
    }
    int size = 0;
    BYTE* block = static_cast<BYTE*>(m.Detach(size));
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(total, size);
    EXPECT_EQ(c.block, GlobalSize(block));
    EXPECT_EQ(Bytes(c.block - static_cast<size_t>(total), 0),
              Bytes(block + total, block + c.block));
    GlobalFree(block);
    EXPECT_EQ(nullptr, m.Detach(size));
    EXPECT_EQ(0, size);
  }
}

// Under the sanitizers: every block is freed exactly once, by its holder.
TEST(MemoryStream, ReadsACallersBlockAndFreesOnlyItsOwn) {
  BYTE* block = static_cast<BYTE*>(GlobalAlloc(GPTR, 100));
  for (int i = 0; i < 100; ++i) block[i] = static_cast<BYTE>(i);
  {
    kyStream2 m(block, 100);
    Bytes buf(100, 0xEE);
    const int64_t counts[][2] = {{30, 30}, {100, 70}, {100, 0}, {-5, 0}};
    for (const auto& c : counts) EXPECT_EQ(c[1], m.Read(buf.data(), c[0]));
    EXPECT_EQ(Bytes({30, 99, 0xEE}), Bytes({buf[0], buf[69], buf[70]}));
    int size = -1;
    EXPECT_EQ(nullptr, kyStream2(block, 100).Detach(size));  // position 0: the block stays
    EXPECT_EQ(0, size);
  }
  GlobalFree(block);  // still the caller's

  const Bytes data = Pattern(3000, 9);
  { kyStream2(nullptr, 0).Write(data.data(), 10); }
  for (int caller = 0; caller < 2; ++caller) {
    BYTE* mine = caller ? static_cast<BYTE*>(GlobalAlloc(GPTR, 16)) : nullptr;
    kyStream2* m = new kyStream2(mine, caller ? 16 : 0);
    ASSERT_EQ(2000, m->Write(data.data(), 2000));  // a caller's block is moved
    int size = 0;
    BYTE* taken = static_cast<BYTE*>(m->Detach(size));
    EXPECT_EQ(Slice(data, 0, 2000), Bytes(taken, taken + size));
    GlobalFree(taken);
    EXPECT_EQ(5, m->Write(data.data(), 5));  // a fresh block of the stream's own
    EXPECT_EQ(0, m->Release());              // destroys it through the base
  }
  BYTE* kept = static_cast<BYTE*>(GlobalAlloc(GPTR, 64));  // never grown: stays the caller's
  { EXPECT_EQ(64, kyStream2(kept, 64).Write(data.data(), 64)); }
  EXPECT_EQ(Slice(data, 0, 64), Bytes(kept, kept + 64));
  GlobalFree(kept);
}

class EntriesTest : public FolderTest {
 protected:
  void SetUp() override {
    FolderTest::SetUp();
    folder = storage->CreateStream("Cfg", 1, RW);
    ASSERT_NE(nullptr, folder);
  }
  void TearDown() override {
    if (folder != nullptr) folder->Release();
    FolderTest::TearDown();
  }
  void ReopenAll(DWORD mode, int load) {
    folder->Release();
    folder = nullptr;
    ASSERT_NE(nullptr, Reopen(mode, load));
    folder = Must(storage->OpenStream("Cfg", mode));
  }
  // The whole data of entry `key` of a folder or of the storage.
  template <class P>
  static Bytes Value(P* owner, const char* key, uint8_t* flags = nullptr) {
    Held<kyStream> e = Hold(owner->OpenStream(key, RO));
    if (!e) return Bytes({0xBA, 0xD0});
    if (flags != nullptr) *flags = kyTestAccess::Header(e.get()).Flags();
    return DataOf(e);
  }

  kyStream* folder = nullptr;
};

// The typed setters shared by folders and the storage, and the getters of
// the same width.
template <class O>
int SetEach(O* o) {
  return o->SetEntry("i", 7) + o->SetEntry("d", static_cast<DWORD>(0xFFFFFFFEu)) +
         o->SetEntry("l", static_cast<__int64>(-5)) +
         o->SetEntry("u", static_cast<unsigned __int64>(5)) + o->SetEntry("f", 1.0) +
         o->SetEntry("s", "abc");
}
template <class O>
void ExpectEach(O* o) {
  EXPECT_EQ(7, o->GetEntry("i", 0));
  EXPECT_EQ(0xFFFFFFFEu, o->GetEntry("d", static_cast<DWORD>(0)));
  EXPECT_EQ(-5, o->GetEntry("l", static_cast<__int64>(0)));
  EXPECT_EQ(5u, o->GetEntry("u", static_cast<unsigned __int64>(0)));
  EXPECT_EQ(1.0, o->GetEntry("f", 0.0));
  EXPECT_EQ(CString("abc"), o->GetEntry("s", ""));
}

TEST_P(EntriesTest, EachOverloadWritesItsWidthAndReadsBack) {
  const std::pair<const char*, Bytes> bytes[] = {
      {"i", {7, 0, 0, 0}},
      {"d", {0xFE, 0xFF, 0xFF, 0xFF}},
      {"l", {0xFB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
      {"u", {5, 0, 0, 0, 0, 0, 0, 0}},
      {"f", {0, 0, 0, 0, 0, 0, 0xF0, 0x3F}},
      {"s", {3, 0, 'a', 'b', 'c'}},
      {"r", {0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0, 3, 0, 0, 0, 4, 3, 2, 1}},
      {"z", {0x80, 2, 0, 0, 0x20, 0xFE, 0xFF, 0xFF}}};
  RECT rc = {-1, 2, 3, 0x01020304};
  SIZE sz = {640, -480};
  for (int load = 0; load < 2; ++load) {
    EXPECT_EQ(8, SetEach(folder) + folder->SetEntry("r", &rc) + folder->SetEntry("z", &sz));
    EXPECT_EQ(6, SetEach(storage));
    for (const auto& b : bytes) {
      EXPECT_EQ(b.second, Value(folder, b.first)) << b.first;
      EXPECT_EQ(strchr("rz", b.first[0]) ? Bytes({0xBA, 0xD0}) : b.second, Value(storage, b.first));
    }
    ReopenAll(RO, load);
    ExpectEach(folder);
    ExpectEach(storage);
    EXPECT_EQ(0x01020304, folder->GetEntry("r", &rc, nullptr)->bottom);
    EXPECT_EQ(-480, folder->GetEntry("z", &sz, nullptr)->cy);
    ReopenAll(RW, 0);
  }
  // Written over the start without cutting: the old tail stays.
  ASSERT_EQ(1, folder->SetEntry("k", 7));
  ASSERT_EQ(1, folder->SetEntry("k", "abc"));
  EXPECT_EQ(Bytes({3, 0, 'a', 'b', 'c'}), Value(folder, "k"));
  EXPECT_EQ(0x62610003, folder->GetEntry("k", 0));
  ASSERT_EQ(1, folder->SetEntry("t", "abcdefgh"));
  ASSERT_EQ(1, folder->SetEntry("t", 5));
  EXPECT_EQ(Bytes({5, 0, 0, 0, 'c', 'd', 'e', 'f', 'g', 'h'}), Value(folder, "t"));
  EXPECT_EQ(std::string("\0\0cde", 5), folder->GetEntry("t", "").str());
}

// The entries take over the chains of removed streams, whose old bytes lie
// past their length.
TEST_P(EntriesTest, AppendedBuffersPointAtTheNewestValue) {
  const Bytes old = Pattern(100, 5);
  for (kyStream* s : {folder->CreateStream("h", 0, RW, 1), storage->CreateStream("h", 0, RW)}) {
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
    auto prefix = [&](uint8_t v) { return Concat({v}, Bytes(B64() ? 7 : 3, 0)); };
    EXPECT_EQ(1, set("h", "AB", 2, true));
    EXPECT_EQ(Concat(prefix(B64() ? 8 : 4), Chars("AB")), value("h"));
    EXPECT_EQ(1, set("h", "CD", 2, true));
    EXPECT_EQ(Concat(prefix(B64() ? 10 : 6), Chars("ABCD")), value("h"));
    EXPECT_EQ(1, set("n", "AB", 2, false));
    EXPECT_EQ(1, set("n", "CD", 2, false));
    EXPECT_EQ(Chars("ABCD"), value("n"));
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
  auto taken = [&] {
    const Bytes out(static_cast<BYTE*>(data), static_cast<BYTE*>(data) + size);
    GlobalFree(data);
    return out;
  };
  ASSERT_EQ(1, folder->GetEntryErasedOld("e", &data, &size));
  EXPECT_EQ(ten, taken());
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
  EXPECT_EQ(Chars("abcd"), taken());
  EXPECT_EQ(0, storage->GetEntryErasedOld("missing", &data, &size));
}

TEST_P(EntriesTest, GettersGiveDefaults) {
  Held<kyStream> sub = Hold(folder->CreateStream("sub", 1, RW, 1));
  ASSERT_TRUE(sub);
  for (const std::string& data :
       {std::string("\x01"), std::string("\x01\x02"), std::string("\x01\0\0\0\x02\0\0\0", 8)})
    Child(folder, ("b" + std::to_string(data.size())).c_str(), 0, data);
  const RECT def = {9, 9, 9, 9};
  const SIZE sdef = {7, 7};
  for (const char* key : {"missing", "sub", "b1", "b2"}) {
    SCOPED_TRACE(key);
    RECT rc = {};
    SIZE sz = {};
    EXPECT_EQ(42, folder->GetEntry(key, 42) + storage->GetEntry(key, 42) - 42);
    EXPECT_EQ(42u, folder->GetEntry(key, 42u));
    EXPECT_EQ(2.5, folder->GetEntry(key, 2.5));
    EXPECT_EQ(-3, folder->GetEntry(key, static_cast<__int64>(-3)));
    EXPECT_EQ(16, folder->GetEntry(key, &rc, &def)->left + folder->GetEntry(key, &sz, &sdef)->cx);
    const std::string text = key[0] != 'b' ? "dflt" : std::string(key[1] == '2' ? 513 : 0, 0);
    EXPECT_EQ(text, folder->GetEntry(key, "dflt").str());
  }  // a string: padded as a short one, empty without its whole length
  EXPECT_EQ(CString(""), folder->GetEntry("missing", nullptr));
  // Too short for a RECT: the default, or the bytes read without one.
  RECT rc = {5, 5, 5, 5};
  EXPECT_EQ(9, folder->GetEntry("b8", &rc, &def)->top);
  rc = {5, 5, 5, 5};
  EXPECT_EQ(&rc, folder->GetEntry("b8", &rc, nullptr));
  EXPECT_TRUE(rc.top == 2 && rc.right == 5);
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
  ReopenAll(RO, 1);
  EXPECT_EQ(2.5, storage->GetEntryFast("f", 0.0));
  EXPECT_EQ(2.5, storage->GetEntry("f", 0.0));
}

// A setter whose key names a folder writes nothing and records nothing.
TEST_P(EntriesTest, SettersRefuseFolders) {
  Held<kyStream> sub = Hold(folder->CreateStream("sub", 1, RW, 1));
  ASSERT_TRUE(sub);
  Child(sub, "child");
  sub.reset();
  Held<kyStream>(storage->CreateStreamFast("ff", 1, RW));
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
  EXPECT_EQ(Bytes(), StopBytes(storage));
  EXPECT_EQ(before, ReadAll(path));
}

TEST_P(EntriesTest, SettersRecordBeforeTheyWrite) {
  RECT rc = {1, 2, 3, 4};
  auto inCfg = [](const Rec& r) {
    return Concat(Rec().Enter("Cfg", 1).Enter("k", 0).b, Rec(r).Leave(2).b);
  };
  const Bytes seven = {7, 0, 0, 0}, rect = {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0};
  const Bytes atRoot = Rec().Enter("k", 0).Write(0, 1, seven).Leave().b;
  struct {
    std::function<int()> set;
    Bytes records;
  } rows[] = {
      {[&] { return folder->SetEntry("k", 7); }, inCfg(Rec().Write(0, 1, seven))},
      {[&] { return folder->SetEntry("k", &rc); }, inCfg(Rec().Write(0, 1, rect))},
      {[&] { return folder->SetEntry("k", ""); }, inCfg(Rec().Write(0, 1, Bytes{0, 0}))},
      {[&] { return folder->SetEntry("k", "ab"); },
       inCfg(Rec().Write(0, 1, Bytes{2, 0}).Write(0, 1, "ab"))},
      {[&] { return folder->SetEntry("k", "AB", 2); }, inCfg(Rec().Append(1, "AB"))},
      {[&] { return folder->SetEntryNoPrefix("k", "AB", 2); }, inCfg(Rec().Append(0, "AB"))},
      {[&] { return folder->SetEntryEraseOld("k", "AB", 2, 1); }, inCfg(Rec().Write(1, 1, "AB"))},
      {[&] { return folder->SetEntryEraseOld("k", "AB", 2, 0); }, inCfg(Rec().Write(1, 0, "AB"))},
      {[&] { return storage->SetEntry("k", 7); }, atRoot},
      {[&] { return storage->SetEntryFast("q", 7); },
       Rec().Enter("q", 0, RecOpEnterFast).Write(0, 1, seven).Leave().b},
  };
  for (const auto& r : rows) {
    ASSERT_EQ(1, storage->StartRecording());
    EXPECT_EQ(1, r.set());
    folder->Release();  // leaves Cfg when it was entered
    EXPECT_EQ(r.records, StopBytes(storage));
    folder = storage->OpenStream("Cfg", RW);
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, EntriesTest, ::testing::Bool(), WidthName);

}  // namespace
}  // namespace kytest
