// Creating root streams: slots, header and directory bytes, refusals, bad links.

#include <cstring>
#include <string>
#include <vector>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

class RootCreateTest : public RootTest {
 protected:
  // Length, last and first block of the header at `at`.
  std::vector<int64_t> Links(const Bytes& img, int64_t at) const {
    const int64_t w = B64() ? 8 : 4;
    return {Off(img, at + 68), Off(img, at + 68 + w), Off(img, at + 68 + 2 * w)};
  }
  // Writes the bytes a new header slot should hold into `img`.
  void PutHeader(Bytes& img, int64_t at, const char* name, WORD duration) const {
    std::fill_n(img.begin() + at, W(), 0);
    Put32(img, at, kStreamHeaderMagic);
    memcpy(&img[at + 4], name, strlen(name));
    Put16(img, at + 65, duration);
  }
  // Frees a slot as a removal does: magic and block links kept.
  void FreeSlot(int64_t at, const char* name) {
    Bytes img = ReadAll(path);
    std::fill_n(img.begin() + at + 4, 64 + (B64() ? 8 : 4), 0);
    WriteAll(path, img);
    ASSERT_TRUE(storage->RemoveStream(name));
  }
};

TEST_P(RootCreateTest, OrdinaryGoesToSlotSixFastToSlotZero) {
  Make();
  Bytes expected = ReadAll(path);
  auto ord = Hold(New("ordinary"));
  auto fast = Hold(Must(storage->CreateStreamFast("fast", 0x00030000, kRW)));
  EXPECT_EQ(Slot(32, 6), HeaderOffset(ord.get()));
  EXPECT_EQ(Slot(32, 0), HeaderOffset(fast.get()));
  PutHeader(expected, Slot(32, 6), "ordinary", 0);
  PutHeader(expected, Slot(32, 0), "fast", 3);
  EXPECT_EQ(expected, ReadAll(path));  // a data stream writes no data yet
  EXPECT_EQ(180u, Locator("fast").dwDuration);
  // Any nonzero low byte of the type makes a folder; the bits between are ignored.
  Add("cfg", 0x00050001);
  Add("odd", 0x00007F80);
  Add("plain", 0x0002FF00);
  const Bytes img = ReadAll(path);
  EXPECT_EQ(Bytes({5, 0, 1}), Slice(img, Slot(32, 7) + 65, Slot(32, 7) + 68));
  EXPECT_EQ(4, Links(img, Slot(32, 7))[0]);
  EXPECT_EQ(1, img[Slot(32, 8) + 67]);
  EXPECT_EQ(Bytes({2, 0, 0}), Slice(img, Slot(32, 9) + 65, Slot(32, 9) + 68));
  ord.reset();
  fast.reset();
  EXPECT_EQ(Bytes(4, 0), Contents(Hold(Must(Reopen(kRO, 1)->OpenStream("cfg", kRO))).get(), 4));
}

TEST_P(RootCreateTest, RefusalsChangeNothing) {
  kyStorage* s = Make();
  Add("a");
  for (int i = 0; i < 6; ++i) Add("f" + std::to_string(i), 0, true);
  const Bytes before = ReadAll(path);
  // Taken (also in the other area), the fast area full, too long, empty.
  const std::string n61(61, 'm');
  for (const char* name : {"a", "f0", "f6", n61.c_str(), "", static_cast<const char*>(nullptr)}) {
    const std::string n = name ? name : "";
    EXPECT_TRUE(n == "f6" || s->CreateStream(name, 1, kRW) == nullptr) << n;
    EXPECT_EQ(nullptr, s->CreateStreamFast(name, kRW)) << n;
    EXPECT_TRUE(n == "f0" || s->OpenOrCreateStreamFast(name, 0) == nullptr) << n;
  }
  EXPECT_EQ(nullptr, s->OpenOrCreateStream("", 0));
  EXPECT_EQ(before, ReadAll(path));
  EXPECT_EQ(7, kyTestAccess::Map(s).GetCount());
  EXPECT_EQ(Slot(32, 7), HeaderOffset(Hold(New("f6")).get()));  // an ordinary slot is free
  Add("A");                                                     // names differ by case
  Add(std::string(60, 'n'));
  EXPECT_EQ(0, ReadAll(path)[Slot(32, 9) + 4 + 60]);  // the terminator fills the field
}

// With the first block full the next creation appends a second block;
// refused past the size limit and by read-only or in-memory storages.
TEST_P(RootCreateTest, SecondDirectoryBlockAfterFiftyEightStreams) {
  Make();
  FillOrdinary(58);
  Bytes expected = ReadAll(path);
  const int64_t P = 32 + DBS();
  ASSERT_EQ(P, static_cast<int64_t>(expected.size()));
  if (B64()) {
    kyStorage::g_iMaxTolvarSize = P + DBS() - 1;
    EXPECT_EQ(nullptr, storage->CreateStream("o58", kRW));
    EXPECT_EQ(expected, ReadAll(path));
    kyStorage::g_iMaxTolvarSize = P + DBS();
  }
  Add("o58");
  EXPECT_EQ(Slot(P, 0), Locator("o58").headerOffset);
  EXPECT_EQ(P + DBS(), kyTestAccess::LastAppended(storage));
  // The old bytes change only in the link; the new block holds its head and the header.
  PutOff(expected, 40, P);
  expected.resize(static_cast<size_t>(P + DBS()), 0);
  Put32(expected, P, kDirectoryBlockMagic);
  Put32(expected, P + 4, 64);
  PutHeader(expected, Slot(P, 0), "o58", 0);
  EXPECT_EQ(expected, ReadAll(path));
  for (int load = 0; load < 2; ++load) {
    kyStorage* r = Reopen(kRO, load);
    EXPECT_EQ(59, kyTestAccess::Map(r).GetCount());
    EXPECT_EQ(P, Locator("o58").blockOffset);
    OpenRoot("o58")->Release();
    EXPECT_EQ(nullptr, r->CreateStream("new", kRW));
    EXPECT_EQ(nullptr, r->CreateStreamFast("newfast", kRW));
    EXPECT_EQ(nullptr, r->OpenOrCreateStream("new", 1));
    EXPECT_EQ(nullptr, r->OpenOrCreateStreamFast("newfast", 1));
    EXPECT_EQ(expected, ReadAll(path));
  }
}

// A data block must not grow in place over a directory block appended after it.
TEST_P(RootCreateTest, NewDirectoryBlockStopsInPlaceGrowth) {
  Make();
  auto a = Hold(New("a"));
  const Bytes data = Pattern(350, 1);
  ASSERT_EQ(50, a->Write(data.data(), 50));
  FillOrdinary(58);             // o57 is the 59th: it appends the second block
  ASSERT_EQ(0, a->Seek(0, 1));  // the shared position moved: back to the end
  ASSERT_EQ(300, a->Write(data.data() + 50, 300));
  a.reset();
  EXPECT_EQ(data, Contents(Hold(Must(Reopen(kRO, 1)->OpenStream("a", kRO))).get(), 350));
}

// A data stream reuses a freed slot with its blocks; a folder starts its own chain.
TEST_P(RootCreateTest, FreedSlotReuse) {
  Make();
  const int64_t at = Slot(32, 6);
  const std::string fc(300, '\xFC');  // old bytes that look like slot magic
  for (const char* name : {"a", "other"}) ASSERT_EQ(300, Hold(New(name))->Write(fc.data(), 300));
  const std::vector<int64_t> old = Links(ReadAll(path), at);  // no longer ends the file
  FreeSlot(at, "a");
  Add("c");
  EXPECT_EQ((std::vector<int64_t>{0, old[1], old[2]}), Links(ReadAll(path), at));
  EXPECT_EQ('c', ReadAll(path)[at + 4]);
  FreeSlot(at, "c");
  EXPECT_EQ(at, HeaderOffset(Hold(New("f", 1)).get()));
  const std::vector<int64_t> now = Links(ReadAll(path), at);
  EXPECT_EQ(4, now[0]);
  EXPECT_GT(now[2], old[2]);  // a fresh block at the end of the file
  EXPECT_EQ(now[2], now[1]);
}

// A directory link is 0 or points forward to a whole block in the file.
// Anything else is damage to every walk: Open fails, creation writes
// nothing, directory-order walks stop; the fast area still works.
TEST_P(RootCreateTest, EveryWalkRefusesTheSameDirectoryLinks) {
  Make(16);
  // "pad" holds the image of a directory block using slot 0; then streams
  // fill two directory blocks.
  Bytes ghost(static_cast<size_t>(DBS()), 0);
  Put32(ghost, 0, kDirectoryBlockMagic);
  Put32(ghost, 4, 64);
  Put32(ghost, Slot(0, 0), kStreamHeaderMagic);
  memcpy(&ghost[Slot(0, 0) + 4], "ghost", 5);
  auto pad = Hold(New("pad"));
  ASSERT_EQ(DBS(), pad->Write(ghost.data(), DBS()));
  const int64_t inPad = kyTestAccess::Header(pad.get()).FirstBlock(B64()) + H();
  pad.reset();
  FillOrdinary(58 + 63);
  const int64_t second = Locator("o120").blockOffset, end = second + DBS();
  const Bytes pristine = ReadAll(path);
  ASSERT_EQ(end, static_cast<int64_t>(pristine.size()));
  // Back to a block outside the chain, to itself, to the first block, into
  // its own block; past the end; to a block without the magic.
  for (int64_t to : {inPad, second, int64_t{32}, second + 100, end, end + 1}) {
    SCOPED_TRACE(to);
    Bytes damaged = pristine;
    if (to == end + 1) {
      damaged.resize(damaged.size() + DBS());
      Put32(damaged, end, 0xFBFBFBFA);
      Put32(damaged, end + 4, 64);
    }
    PutOff(damaged, second + 8, to == end + 1 ? end : to);
    WriteAll(path, damaged);
    EXPECT_EQ(nullptr, kyStorage::Open(path.c_str(), kRW, 16, 0));
    EXPECT_EQ(nullptr, kyStorage::Open(path.c_str(), kRO, 16, 1));
    EXPECT_EQ(nullptr, Reopen(kRW, 2)->CreateStream("new", kRW));
    EXPECT_EQ(damaged, ReadAll(path));
    // A storage opened while the chain was sound meets the damage later.
    WriteAll(path, pristine);
    auto last = Hold(Must(Reopen(kRW)->OpenStream("o120", kRO)));
    WriteAll(path, damaged);
    EXPECT_EQ(nullptr, storage->CreateStream("new", kRW));
    EXPECT_FALSE(last->GoNext());
    EXPECT_STREQ("o120", last->GetName());
    int cursor = 0;
    EXPECT_EQ(nullptr, storage->OpenStreamFirst2(cursor, kRO));
    EXPECT_EQ(0, kyTestAccess::StreamNames(storage).GetSize());
    EXPECT_EQ(damaged, ReadAll(path));
    Add("fastok", 0, true);
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, RootCreateTest, ::testing::Bool(), WidthName);

}  // namespace
