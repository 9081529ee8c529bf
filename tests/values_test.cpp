// Typed values at a stream's cursor: the exact bytes of every form on a
// storage stream of either width and on the memory stream, the records
// they make, reading them back, and short or damaged data.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/global_mem.h"
#include "support/stream_fixture.h"

namespace kytest {
namespace {

// One operator call: the writes it makes, in order (the file holds them
// one after the other; each is one write record), and a copy through the
// matching read operator.
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

Bytes Text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

Bytes Joined(const std::vector<Bytes>& pieces) {
  Bytes out;
  for (const Bytes& p : pieces) out = Concat(out, p);
  return out;
}

// A write record as the operators make it: no erase, size prefix set.
Bytes WriteRecord(const Bytes& data) {
  Bytes r = {5, 0, 1, 0, 0, 0, 0};
  Put32(r, 3, static_cast<uint32_t>(data.size()));
  return Concat(r, data);
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
      Case<const char*, CString>("abc", "abc", {{3, 0}, Text("abc")}),
      Case<CString, CString>("CString", CString("ab"), {{2, 0}, Text("ab")}),
      Case<const char*, CString>("65534", s65534.c_str(), {{0xFE, 0xFF}, Text(s65534)}),
      Case<const char*, CString>("65535", s65535.c_str(),
                                 {{0xFF, 0xFF}, {0xFF, 0xFF, 0, 0}, Text(s65535)}),
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

TEST(MemoryValues, EveryFormHasItsBytesAndReadsBack) {
  for (const ValueCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    const Bytes bytes = Image(c.put);
    EXPECT_EQ(bytes, Joined(c.pieces));
    FromMemory(bytes, [&](kyStream& in) {
      EXPECT_EQ(Image([&](kyStream& out) { c.copy(in, out); }), bytes);
    });
  }
}

class StreamValues : public StreamTest {};

TEST_P(StreamValues, EveryFormHasItsBytesAndRecords) {
  for (const ValueCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    Held<kyStorage> s = Hold(CreateStorage(64));
    ASSERT_NE(nullptr, s);
    kyStream* v = NewStream(s, "v");
    ASSERT_NE(nullptr, v);
    ASSERT_EQ(1, s->StartRecording());
    c.put(*v);
    const Bytes bytes = Joined(c.pieces);
    EXPECT_EQ(Contents(v, v->GetLength()), bytes);
    v->Release();
    CCompRecorder* rec = s->StopRecording();
    Bytes expected = {1, 1, 0, 'v', 0};
    for (const Bytes& p : c.pieces) expected = Concat(expected, WriteRecord(p));
    expected.push_back(3);
    unsigned int n = 0;
    rec->SeekToBegin();
    unsigned char* data = rec->PeekAll(&n);
    EXPECT_EQ(Bytes(data, data + n), expected);
    delete rec;

    Held<kyStream> r = Hold(s->OpenStream("v", kModeReadShared));
    EXPECT_EQ(Image([&](kyStream& out) { c.copy(*r, out); }), bytes);
  }
}

// A string whose characters come short: padded to the announced length when
// the stream could hold it, else only the bytes that came.
TEST_P(StreamValues, ShortStringsAndNumbers) {
  Held<kyStorage> s = Hold(CreateStorage(64));
  ASSERT_NE(nullptr, s);
  struct {
    Bytes data;
    std::string stored, memory;
  } cases[] = {
      {{0xFF, 0xFF, 5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o'}, "hello", "hello"},
      {{5, 0, 'a', 'b'}, std::string("ab\0\0\0", 5), "ab"},
      {{3, 0, 'a'}, std::string("a\0\0", 3), std::string("a\0\0", 3)},
      {{0xFF, 0xFF, 0xF0, 0xFF, 0xFF, 0xFF, 'x'}, "x", "x"},
      {{0xFF, 0xFF, 0, 0, 0, 0x80, 'x'}, "x", "x"},
      {{7}, "", ""},
      {{0xFF, 0xFF, 1, 0}, "", ""},
  };
  int i = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(i);
    const std::string name = "s" + std::to_string(i++);
    Held<kyStream> w = Hold(NewStream(s, name.c_str()));
    ASSERT_EQ(static_cast<int64_t>(c.data.size()), w->Write(c.data.data(), c.data.size()));
    CString got("old");
    ASSERT_EQ(0, w->Seek(0, 0));
    *w >> got;
    EXPECT_EQ(got.str(), c.stored);
    FromMemory(c.data, [&](kyStream& m) {
      m >> got;
      EXPECT_EQ(got.str(), c.memory);
    });
  }
  // Numbers keep the bytes that did not come.
  FromMemory({1, 2}, [](kyStream& m) {
    int v = 0x7F7F7F7F;
    m >> v;
    EXPECT_EQ(v, 0x7F7F0201);
  });
}

INSTANTIATE_TEST_SUITE_P(Widths, StreamValues, ::testing::Bool(), WidthName);

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
              Bytes(block + total, block + c.block));  // zero-filled
    GlobalFree(block);
    EXPECT_EQ(nullptr, m.Detach(size));  // empty again
    EXPECT_EQ(0, size);
  }
}

TEST(MemoryStream, ReadsACallersBlock) {
  BYTE* block = static_cast<BYTE*>(GlobalAlloc(GPTR, 100));
  for (int i = 0; i < 100; ++i) block[i] = static_cast<BYTE>(i);
  {
    kyStream2 m(block, 100);
    Bytes buf(100, 0xEE);
    EXPECT_EQ(30, m.Read(buf.data(), 30));
    EXPECT_EQ(70, m.Read(buf.data(), 100));
    EXPECT_EQ(Bytes({30, 99, 0xEE}), Bytes({buf[0], buf[69], buf[70]}));
    EXPECT_EQ(0, m.Read(buf.data(), 100));
    EXPECT_EQ(0, m.Read(buf.data(), -5));
    EXPECT_EQ(-1, m.Read(nullptr, 5));
    int size = -1;
    EXPECT_EQ(nullptr, kyStream2(block, 100).Detach(size));  // position 0: the block stays
    EXPECT_EQ(0, size);
  }
  GlobalFree(block);  // still the caller's
}

TEST(MemoryStream, IntAndShortStringExample) {
  EXPECT_EQ(Image([](kyStream& m) { m << 7 << "ab"; }), Bytes({7, 0, 0, 0, 2, 0, 'a', 'b'}));
}

// Run under the sanitizer build: every block is freed exactly once.
TEST(MemoryStream, BlocksBelongToWhoeverHoldsThem) {
  const Bytes data = Pattern(3000, 9);
  // Own blocks, also one allocated after a Detach, go with the stream.
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
  // A caller's block that was never grown stays the caller's.
  BYTE* kept = static_cast<BYTE*>(GlobalAlloc(GPTR, 64));
  { EXPECT_EQ(64, kyStream2(kept, 64).Write(data.data(), 64)); }
  EXPECT_EQ(Slice(data, 0, 64), Bytes(kept, kept + 64));
  GlobalFree(kept);
}

// The file operations of the base class have no storage to work on.
TEST(MemoryStream, FileOperationsFailCleanly) {
  kyStream2 m;
  m << 42;
  BYTE* buf = reinterpret_cast<BYTE*>(1);
  long long len = 7;
  const RECT rc = {1, 2, 3, 4};
  RECT out = {0, 0, 0, 0};
  EXPECT_EQ(-1, m.Seek(0, 0));
  EXPECT_EQ(-1, m.Seek(0, 1));
  EXPECT_EQ(-1, m.Seek2(4, 0));
  EXPECT_FALSE(m.SetLength(0));
  EXPECT_FALSE(m.Erase());
  EXPECT_EQ(FALSE, m.PrependSize(4));
  EXPECT_EQ(FALSE, m.GetVerifiedDataLength(len));
  EXPECT_EQ(0u, m.CopyStreamToBuffer(buf, FALSE));
  EXPECT_EQ(nullptr, buf);
  EXPECT_EQ(0, m.SetEntry("k", 1));
  EXPECT_EQ(0, m.SetEntry("k", "v"));
  EXPECT_EQ(0, m.SetEntry("k", "AB", 2));
  EXPECT_EQ(5, m.GetEntry("k", 5));
  EXPECT_EQ(CString("d"), m.GetEntry("k", "d"));
  EXPECT_EQ(&out, m.GetEntry("k", &out, &rc));
  EXPECT_EQ(4, out.bottom);
  EXPECT_EQ(nullptr, m.OpenStream("k", kModeReadShared));
  EXPECT_FALSE(m.Remove());
  int size = 0;
  void* block = m.Detach(size);
  EXPECT_EQ(4, size);  // the value written before is intact
  EXPECT_EQ(42, *static_cast<int*>(block));
  GlobalFree(block);
}

}  // namespace
}  // namespace kytest
