// The rules that every walk along a chain applies, reading or writing: which
// data blocks and links may be followed, which recorded lengths may be used,
// and which links of the root directory lead on.  Damage never lets a writer
// touch another stream's bytes, and never lets arithmetic on a damaged value
// run out of range.

#include <climits>
#include <functional>
#include <string>

#include "support/stream_fixture.h"

using kytest::Bytes;
using kytest::Hold;
using kytest::Pattern;
using kytest::Slice;

namespace {

// Folder F's block f1, then stream A's blocks a1 (16 of 16 bytes) and a2 (4
// of 16 bytes) with stream C's block c1 between them.
class ChainRules : public kytest::StreamTest {
 protected:
  void SetUp() override {
    auto s = Hold(CreateStorage(16));
    auto a = Hold(NewStream(s, "A"));
    auto c = Hold(NewStream(s, "C"));
    f1 = Size();
    auto f = Hold(NewStream(s, "F", 1));
    data = Pattern(20, 5);
    a1 = Size();
    ASSERT_EQ(a->Write(data.data(), 16), 16);
    c1 = Size();
    ASSERT_EQ(c->Write("c", 1), 1);
    a2 = Size();
    ASSERT_EQ(a->Seek(0, 1), 0);
    ASSERT_EQ(a->Write(data.data() + 16, 4), 4);
    headerA = HeaderOffset(a);
    a.reset();
    c.reset();
    f.reset();
    s.reset();
    pristine = kytest::ReadAll(path);
  }
  void SetLength(Bytes& image, int64_t value) const {
    const size_t at = static_cast<size_t>(headerA) + 68;
    if (B64())
      kytest::Put64(image, at, value);
    else
      kytest::Put32(image, at, static_cast<uint32_t>(value));
  }
  // Writes `image` and opens it (writable, or read-only in memory) with A.
  bool OpenA(const Bytes& image, bool inMemory) {
    kytest::WriteAll(path, image);
    storage.reset(inMemory ? OpenStorage(kModeReadShared, 16, 1)
                           : OpenStorage(kModeReadWriteShared, 16));
    if (storage != nullptr) a.reset(storage->OpenStream("A", kModeReadWriteShared));
    return a != nullptr;
  }
  void Close() {
    a.reset();
    storage.reset();
  }
  // The file's first `n` bytes with A's own blocks and header slot blanked:
  // what no operation on A may change.
  Bytes OthersOf(Bytes image, size_t n) const {
    image.resize(n);
    const int64_t w = B64() ? 92 : 80;
    for (auto span :
         {std::make_pair(a1, H() + 16), std::make_pair(a2, H() + 16), std::make_pair(headerA, w)})
      std::fill(image.begin() + span.first, image.begin() + span.first + span.second, 0);
    return image;
  }

  Bytes data, pristine;
  int64_t f1 = 0, a1 = 0, c1 = 0, a2 = 0, headerA = 0;
  kytest::Held<kyStorage> storage;
  kytest::Held<kyStream> a;
};

INSTANTIATE_TEST_SUITE_P(Widths, ChainRules, ::testing::Bool(), kytest::WidthName);

// Readers fail at a refused block or link.  A writer fails before writing a
// byte when the block it starts in is refused, and cuts a refused link and
// appends a fresh block in its place; either way, the bytes of every other
// stream and folder stay as they were.
TEST_P(ChainRules, RefusedBlocksAndLinksNeverReachOtherStreams) {
  struct Case {
    const char* what;
    std::function<void(Bytes&)> damage;
    bool writeRefused;
  };
  const int64_t end = static_cast<int64_t>(pristine.size());
  const Case cases[] = {
      {"room past the end of the file", [&](Bytes& im) { PutBlockField(im, a1, 2, end + 1000); },
       true},
      {"data beyond the room", [&](Bytes& im) { PutBlockField(im, a1, 2, H() + 8); }, true},
      {"block linked to itself", [&](Bytes& im) { PutBlockField(im, a2, 4, a2); }, false},
      {"link back to its own chain", [&](Bytes& im) { PutBlockField(im, a2, 4, a1); }, false},
      {"link back into another stream", [&](Bytes& im) { PutBlockField(im, a2, 4, c1); }, false},
      {"link back into a folder", [&](Bytes& im) { PutBlockField(im, a2, 4, f1); }, false},
      {"link into its own room", [&](Bytes& im) { PutBlockField(im, a1, 4, a1 + H() + 4); }, false},
      {"link past the end of the file", [&](Bytes& im) { PutBlockField(im, a1, 4, end + 100); },
       false},
      {"link to the last bytes of the file", [&](Bytes& im) { PutBlockField(im, a1, 4, end - 4); },
       false},
      {"negative link", [&](Bytes& im) { PutBlockField(im, a1, 4, -40); }, false},
  };
  const Bytes put = Pattern(50, 9);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Bytes damaged = pristine;
    c.damage(damaged);
    for (int mem = 0; mem < 2; ++mem) {
      ASSERT_TRUE(OpenA(damaged, mem));
      Bytes buf(100);
      EXPECT_EQ(a->Read(buf.data(), 100), -1);
      const kytest::Cursor before = kytest::CursorOf(a);
      EXPECT_EQ(a->Seek(100, 0), -1);
      EXPECT_EQ(kytest::CursorOf(a), before);
      Close();
    }
    // What `kystore put` does: write the whole stream from its start.
    ASSERT_TRUE(OpenA(damaged, false));
    const int64_t written = a->Write(put.data(), 50, true);
    const Bytes after = kytest::ReadAll(path);
    EXPECT_EQ(OthersOf(after, damaged.size()), OthersOf(damaged, damaged.size()));
    if (c.writeRefused) {
      EXPECT_EQ(written, -1);
      EXPECT_EQ(after, damaged);
    } else {
      EXPECT_EQ(written, 50);
      EXPECT_EQ(Contents(a, 50), put);
    }
    Close();
  }
}

// A recorded length is used only when it lies between 0 and the file's size.
// A damaged one fails the seek from the end (the cursor stays), the copy,
// the check of the size prefix and every call that would write; reads, which
// go by the blocks, still work.  Erase makes the stream usable again.
TEST_P(ChainRules, DamagedLengthsAreNeverComputedWith) {
  const int64_t end = static_cast<int64_t>(pristine.size());
  const std::vector<int64_t> lengths =
      B64() ? std::vector<int64_t>{static_cast<int64_t>(0x80000000000000EFULL), INT64_MAX,
                                   INT64_MIN, -1, end + 1}
            : std::vector<int64_t>{0x800000EF, 0xFFFFFFFF, 0x80000000, end + 1};
  for (int64_t length : lengths) {
    SCOPED_TRACE(length);
    Bytes damaged = pristine;
    SetLength(damaged, length);
    damaged[static_cast<size_t>(headerA) + 67] = kSizePrefixFlag;
    for (int mem = 0; mem < 2; ++mem) {
      ASSERT_TRUE(OpenA(damaged, mem));
      const kytest::Cursor start = kytest::CursorOf(a);
      EXPECT_EQ(a->Seek(0, 1), -1);
      EXPECT_EQ(a->Seek2(-3, 0), -1);
      EXPECT_EQ(kytest::CursorOf(a), start);
      BYTE* copy = reinterpret_cast<BYTE*>(1);
      EXPECT_EQ(a->CopyStreamToBuffer(copy, TRUE), 0u);
      EXPECT_EQ(copy, nullptr);
      long long len = 7;
      EXPECT_FALSE(a->GetVerifiedDataLength(len));
      EXPECT_EQ(len, 0);
      EXPECT_EQ(kytest::CursorOf(a), start);
      if (!mem) {
        EXPECT_EQ(a->Write("abc", 3), -1);
        EXPECT_FALSE(a->PrependSize(3));
        EXPECT_FALSE(a->SetLength(0));
        EXPECT_EQ(kytest::ReadAll(path), damaged);
      }
      EXPECT_EQ(Contents(a, 20), data);
      if (!mem) {
        EXPECT_TRUE(a->Erase());
        EXPECT_EQ(a->Write("abc", 3), 3);
        EXPECT_EQ(a->GetLength(), 3);
      }
      Close();
    }
  }
}

// Another storage object over the same file grows it: this object finds the
// new blocks (its idea of the file's size is refreshed when a check fails),
// and the block it last appended no longer grows in place once another
// object has linked a block behind it.
TEST_P(ChainRules, AnotherObjectGrowsTheFile) {
  auto first = Hold(OpenStorage(kModeReadWriteShared, 16));
  ASSERT_NE(first, nullptr);
  auto b = Hold(NewStream(first, "B"));
  const int64_t b1 = Size();
  ASSERT_EQ(b->Write(data.data(), 16), 16);
  ASSERT_EQ(Contents(b, 16), Slice(data, 0, 16));
  {
    auto second = Hold(OpenStorage(kModeReadWriteShared, 16));
    ASSERT_EQ(Hold(NewStream(second, "D"))->Write("d", 1), 1);
    auto b2 = Hold(second->OpenStream("B", kModeReadWriteShared));
    ASSERT_EQ(b2->Seek(0, 1), 0);
    ASSERT_EQ(b2->Write(data.data() + 16, 4), 4);
  }
  const int64_t d1 = b1 + H() + 16;
  const Bytes dBlock = Range(d1, static_cast<size_t>(H() + 16));
  b.reset(first->OpenStream("B", kModeReadWriteShared));
  EXPECT_EQ(Contents(b, 20), data);
  ASSERT_EQ(b->Seek(16, 0), 0);
  const Bytes more = Pattern(10, 3);
  ASSERT_EQ(b->Write(more.data(), 10), 10);
  EXPECT_EQ(Range(d1, static_cast<size_t>(H() + 16)), dBlock);
  EXPECT_EQ(Contents(b, 26), kytest::Concat(Slice(data, 0, 16), more));
}

// The root directory chain: a link is 0, or points behind the whole of its
// block to a block that lies whole in the file.  Any other link is damage
// for every walk: the open fails, creation writes nothing, the walks in
// directory order stop.
class DirectoryRules : public kytest::StreamTest {
 protected:
  int64_t DBS() const { return B64() ? 5904 : 5132; }
  // Stream "pad" holds the image of a directory block whose slot 0 is used
  // by "ghost"; then streams fill the first two directory blocks.
  void SetUp() override {
    auto s = Hold(CreateStorage(16));
    Bytes ghost(static_cast<size_t>(DBS()), 0);
    kytest::Put32(ghost, 0, kDirectoryBlockMagic);
    kytest::Put32(ghost, 4, 64);
    kytest::Put32(ghost, B64() ? 16 : 12, kStreamHeaderMagic);
    memcpy(&ghost[B64() ? 20 : 16], "ghost", 5);
    auto pad = Hold(NewStream(s, "pad"));
    ASSERT_EQ(pad->Write(ghost.data(), DBS()), DBS());
    inPad = kyTestAccess::Header(pad.get()).FirstBlock(B64()) + H();
    for (int i = 1; i < 58 + 64; ++i) {
      auto x = Hold(NewStream(s, ("s" + std::to_string(i)).c_str()));
      second = kyTestAccess::Offset(x.get()).blockOffset;
    }
    pristine = kytest::ReadAll(path);
    ASSERT_EQ(static_cast<int64_t>(pristine.size()), second + DBS());
  }
  void Link(Bytes& image, int64_t block, int64_t to) const {
    if (B64())
      kytest::Put64(image, static_cast<size_t>(block) + 8, to);
    else
      kytest::Put32(image, static_cast<size_t>(block) + 8, static_cast<uint32_t>(to));
  }

  Bytes pristine;
  int64_t inPad = 0, second = 0;
};

INSTANTIATE_TEST_SUITE_P(Widths, DirectoryRules, ::testing::Bool(), kytest::WidthName);

TEST_P(DirectoryRules, EveryWalkRefusesTheSameLinks) {
  const int64_t end = static_cast<int64_t>(pristine.size());
  // A block earlier in the file that is not in the chain: no loop, but
  // still a link backwards.
  for (int64_t to : {inPad, second, second + 100, end}) {
    SCOPED_TRACE(to);
    Bytes damaged = pristine;
    Link(damaged, second, to);
    kytest::WriteAll(path, damaged);
    EXPECT_EQ(OpenStorage(kModeReadWriteShared, 16), nullptr);
    EXPECT_EQ(OpenStorage(kModeReadShared, 16, 1), nullptr);
    auto fast = Hold(kyStorage::OpenFast(path.c_str(), kModeReadWriteShared, 16));
    ASSERT_NE(fast, nullptr);
    EXPECT_EQ(NewStream(fast, "new"), nullptr);
    fast.reset();
    EXPECT_EQ(kytest::ReadAll(path), damaged);
    // A storage opened while the chain was sound meets the damage later.
    kytest::WriteAll(path, pristine);
    auto s = Hold(OpenStorage(kModeReadWriteShared, 16));
    ASSERT_NE(s, nullptr);
    auto last = Hold(s->OpenStream("s121", kModeReadShared));
    ASSERT_NE(last, nullptr);
    kytest::WriteAll(path, damaged);
    EXPECT_EQ(NewStream(s, "new"), nullptr);
    EXPECT_FALSE(last->GoNext());
    EXPECT_STREQ(last->GetName(), "s121");
    int cursor = 0;
    EXPECT_EQ(s->OpenStreamFirst2(cursor, kModeReadShared), nullptr);
    EXPECT_EQ(kyTestAccess::StreamNames(s.get()).GetSize(), 0);
    EXPECT_EQ(kytest::ReadAll(path), damaged);
  }
}

}  // namespace
