// Creating root streams: slot choice, the bytes of new headers and of a new
// directory block, refusals that must leave the file as it was, and the
// open-or-create operations.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kystore.h"
#include "support/test_access.h"
#include "support/test_util.h"

namespace {

using kytest::Bytes;
using kytest::Get16;
using kytest::Get32;
using kytest::Get64;

const DWORD kRW = kModeReadWriteShared;
const DWORD kRO = kModeReadShared;

class RootCreateTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    kyStorage::g_bUse64BitOffsets = B64() ? 1 : 0;
    path = dir.File("create.kys");
  }
  bool B64() const { return GetParam(); }
  int64_t HW() const { return B64() ? 92 : 80; }
  int64_t DH() const { return B64() ? 16 : 12; }
  int64_t DBS() const { return B64() ? 5904 : 5132; }
  int64_t Slot(int64_t block, int64_t i) const { return block + DH() + HW() * i; }
  int64_t FirstBlockAt(const Bytes& img, size_t at) const {
    return B64() ? Get64(img, at + 84) : Get32(img, at + 76);
  }
  int64_t LastBlockAt(const Bytes& img, size_t at) const {
    return B64() ? Get64(img, at + 76) : Get32(img, at + 72);
  }
  int64_t LengthAt(const Bytes& img, size_t at) const {
    return B64() ? Get64(img, at + 68) : Get32(img, at + 68);
  }
  int64_t NextBlockAt(const Bytes& img, size_t block) const {
    return B64() ? Get64(img, block + 8) : Get32(img, block + 8);
  }
  // Writes the bytes a header slot should hold into `img`.
  void PutHeader(Bytes& img, int64_t at, const char* name, WORD duration, BYTE flags) const {
    std::fill(img.begin() + at, img.begin() + at + HW(), 0);
    kytest::Put32(img, at, kStreamHeaderMagic);
    memcpy(&img[at + 4], name, strlen(name));
    kytest::Put16(img, at + 65, duration);
    img[at + 67] = flags;
  }
  kyStorage* Make() { return kyStorage::Create(path.c_str(), kRW, 64); }
  static int64_t HeaderOffset(kyStream* s) { return kyTestAccess::Offset(s).headerOffset; }
  // Creates and releases ordinary root streams o0, o1, ...
  static void FillOrdinary(kyStorage* s, int n) {
    for (int i = 0; i < n; ++i) {
      kyStream* stm = s->CreateStream(("o" + std::to_string(i)).c_str(), kRW);
      ASSERT_NE(nullptr, stm);
      stm->Release();
    }
  }

  kytest::GlobalsGuard globals;
  kytest::TempDir dir;
  std::string path;
};

TEST_P(RootCreateTest, OrdinaryGoesToSlotSixFastToSlotZero) {
  kyStorage* s = Make();
  ASSERT_NE(nullptr, s);
  Bytes expected = kytest::ReadAll(path);
  kyStream* ord = s->CreateStream("ordinary", kRW);
  kyStream* fast = s->CreateStreamFast("fast", 0x00030000, kRW);
  ASSERT_NE(nullptr, ord);
  ASSERT_NE(nullptr, fast);
  EXPECT_EQ(Slot(32, 6), HeaderOffset(ord));
  EXPECT_EQ(Slot(32, 0), HeaderOffset(fast));
  EXPECT_EQ(32, kyTestAccess::Offset(ord).blockOffset);
  EXPECT_EQ(64u, kyTestAccess::Offset(ord).dwBlockSlots);
  EXPECT_EQ(kRW, kyTestAccess::OpenMode(ord));
  EXPECT_EQ(0, ord->GetLength());
  EXPECT_EQ(3, fast->GetDuration());
  PutHeader(expected, Slot(32, 6), "ordinary", 0, 0);
  PutHeader(expected, Slot(32, 0), "fast", 3, 0);
  EXPECT_EQ(expected, kytest::ReadAll(path));  // a data stream writes no data yet
  tag_kyStreamOffset where;
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, "fast", where));
  EXPECT_EQ(Slot(32, 0), where.headerOffset);
  EXPECT_EQ(180u, where.dwDuration);
  ord->Release();
  fast->Release();
  s->Release();
}

TEST_P(RootCreateTest, FullFastAreaRefusesFastCreation) {
  kyStorage* s = Make();
  for (int i = 0; i < 6; ++i) {
    kyStream* f = s->CreateStreamFast(("f" + std::to_string(i)).c_str(), kRW);
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(Slot(32, i), HeaderOffset(f));
    f->Release();
  }
  const Bytes before = kytest::ReadAll(path);
  EXPECT_EQ(nullptr, s->CreateStreamFast("f6", kRW));
  EXPECT_EQ(nullptr, s->OpenOrCreateStreamFast("f6", 0));
  EXPECT_EQ(before, kytest::ReadAll(path));
  kyStream* ord = s->CreateStream("f6", kRW);
  ASSERT_NE(nullptr, ord);
  EXPECT_EQ(Slot(32, 6), HeaderOffset(ord));
  ord->Release();
  s->Release();
}

TEST_P(RootCreateTest, RefusedNamesChangeNothing) {
  kyStorage* s = Make();
  kyStream* a = s->CreateStream("a", kRW);
  ASSERT_NE(nullptr, a);
  a->Release();
  const Bytes before = kytest::ReadAll(path);
  EXPECT_EQ(nullptr, s->CreateStream("a", 1, kRW));
  EXPECT_EQ(nullptr, s->CreateStreamFast("a", kRW));  // taken in the ordinary area
  // An empty name would leave a slot that looks free.
  EXPECT_EQ(nullptr, s->CreateStream("", kRW));
  EXPECT_EQ(nullptr, s->CreateStream(nullptr, kRW));
  EXPECT_EQ(nullptr, s->CreateStreamFast("", kRW));
  EXPECT_EQ(nullptr, s->CreateStreamFast(nullptr, kRW));
  EXPECT_EQ(nullptr, s->OpenOrCreateStream("", 0));
  EXPECT_EQ(nullptr, s->OpenOrCreateStreamFast("", 0));
  EXPECT_EQ(nullptr, s->OpenOrCreateStreamFast(nullptr, 0));
  EXPECT_EQ(before, kytest::ReadAll(path));
  EXPECT_EQ(1, kyTestAccess::Map(s).GetCount());
  kyStream* upper = s->CreateStream("A", kRW);  // names differ by case
  ASSERT_NE(nullptr, upper);
  upper->Release();
  s->Release();
}

TEST_P(RootCreateTest, SixtyCharactersFitSixtyOneDoNot) {
  kyStorage* s = Make();
  const std::string n60(60, 'n');
  kyStream* stm = s->CreateStream(n60.c_str(), kRW);
  ASSERT_NE(nullptr, stm);
  EXPECT_EQ(n60, stm->GetName());
  const Bytes img = kytest::ReadAll(path);
  EXPECT_EQ(0, img[Slot(32, 6) + 4 + 60]);  // the terminator fills the field
  stm->Release();
  const Bytes before = kytest::ReadAll(path);
  EXPECT_EQ(nullptr, s->CreateStream(std::string(61, 'm').c_str(), kRW));
  EXPECT_EQ(before, kytest::ReadAll(path));
  s->Release();
}

TEST_P(RootCreateTest, SecondDirectoryBlockAfterFiftyEightStreams) {
  kyStorage* s = Make();
  FillOrdinary(s, 58);
  Bytes expected = kytest::ReadAll(path);
  const int64_t P = 32 + DBS();
  ASSERT_EQ(P, static_cast<int64_t>(expected.size()));
  kyStream* stm = s->CreateStream("o58", kRW);
  ASSERT_NE(nullptr, stm);
  EXPECT_EQ(Slot(P, 0), HeaderOffset(stm));
  EXPECT_EQ(P, kyTestAccess::Offset(stm).blockOffset);
  EXPECT_EQ(P + DBS(), kyTestAccess::LastAppended(s));
  stm->Release();

  // The old bytes change only in the link; the new block is all zeros but
  // for its head and the new header in slot 0.
  if (B64())
    kytest::Put64(expected, 40, P);
  else
    kytest::Put32(expected, 40, static_cast<uint32_t>(P));
  expected.resize(static_cast<size_t>(P + DBS()), 0);
  kytest::Put32(expected, P, kDirectoryBlockMagic);
  kytest::Put32(expected, P + 4, 64);
  PutHeader(expected, Slot(P, 0), "o58", 0, 0);
  const Bytes img = kytest::ReadAll(path);
  EXPECT_EQ(expected, img);
  EXPECT_EQ(0, NextBlockAt(img, P));
  EXPECT_EQ(0u, Get32(img, Slot(P, 1)));  // later blocks carry no slot magic

  kyStream* next = s->CreateStream("o59", kRW);
  ASSERT_NE(nullptr, next);
  EXPECT_EQ(Slot(P, 1), HeaderOffset(next));
  next->Release();
  s->Release();

  for (int load = 0; load < 2; ++load) {
    kyStorage* r = kyStorage::Open(path.c_str(), 0x12, 64, load);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(60, kyTestAccess::Map(r).GetCount());
    tag_kyStreamOffset where;
    ASSERT_TRUE(kyTestAccess::FindStreamOffset(r, "o59", where));
    EXPECT_EQ(Slot(P, 1), where.headerOffset);
    EXPECT_EQ(P, where.blockOffset);
    kyStream* o = r->OpenStream("o58", 0x12);
    ASSERT_NE(nullptr, o);
    EXPECT_STREQ("o58", o->GetName());
    o->Release();
    r->Release();
  }
}

// A data block that ended the file before a directory block was appended
// must not grow in place over it.
TEST_P(RootCreateTest, NewDirectoryBlockStopsInPlaceGrowth) {
  kyStorage* s = Make();
  kyStream* a = s->CreateStream("a", kRW);
  ASSERT_NE(nullptr, a);
  const std::string first(50, 'x'), second(300, 'y');
  ASSERT_EQ(50, a->Write(first.data(), 50));
  FillOrdinary(s, 58);  // o57 is the 59th: it appends the second block
  const int64_t dirEnd = kytest::FileSize(path);
  ASSERT_EQ(dirEnd, kyTestAccess::LastAppended(s));
  ASSERT_EQ(0, a->Seek(0, 1));  // the shared position moved: back to the end
  ASSERT_EQ(50, a->GetCurDataPos());
  ASSERT_EQ(300, a->Write(second.data(), 300));
  a->Release();
  s->Release();

  kyStorage* r = kyStorage::Open(path.c_str(), kRO, 64, 1);
  ASSERT_NE(nullptr, r);
  EXPECT_EQ(59, kyTestAccess::Map(r).GetCount());
  kyStream* back = r->OpenStream("a", kRO);
  ASSERT_NE(nullptr, back);
  std::string got(350, '\0');
  EXPECT_EQ(350, back->Read(&got[0], 350));
  EXPECT_EQ(first + second, got);
  back->Release();
  r->Release();
}

TEST_P(RootCreateTest, FolderWithDuration) {
  kyStorage* s = Make();
  const int64_t sizeBefore = kytest::FileSize(path);
  kyStream* folder = s->CreateStream("cfg", 0x00050001, kRW);
  ASSERT_NE(nullptr, folder);
  EXPECT_TRUE(folder->IsFolder());
  EXPECT_EQ(5, folder->GetDuration());
  EXPECT_EQ(4, folder->GetLength());
  tag_kyStreamOffset where;
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, "cfg", where));
  EXPECT_EQ(300u, where.dwDuration);
  folder->Release();
  // A type whose low byte is anything nonzero makes a folder; the bits
  // between are ignored.
  kyStream* other = s->CreateStream("odd", 0x00007F80, kRW);
  ASSERT_NE(nullptr, other);
  EXPECT_TRUE(other->IsFolder());
  other->Release();
  kyStream* plain = s->CreateStream("plain", 0x0002FF00, kRW);
  ASSERT_NE(nullptr, plain);
  EXPECT_FALSE(plain->IsFolder());
  EXPECT_EQ(2, plain->GetDuration());
  plain->Release();
  s->Release();

  const Bytes img = kytest::ReadAll(path);
  EXPECT_GT(static_cast<int64_t>(img.size()), sizeBefore);
  EXPECT_EQ(5, Get16(img, Slot(32, 6) + 65));
  EXPECT_EQ(1, img[Slot(32, 6) + 67]);
  EXPECT_EQ(4, LengthAt(img, Slot(32, 6)));
  EXPECT_EQ(0, img[Slot(32, 8) + 67]);

  kyStorage* r = kyStorage::Open(path.c_str(), 0x12, 64, 1);
  ASSERT_NE(nullptr, r);
  kyStream* back = r->OpenStream("cfg", 0x12);
  ASSERT_NE(nullptr, back);
  DWORD count = 0xFFFFFFFF;
  EXPECT_EQ(4, back->Read(&count, 4));
  EXPECT_EQ(0u, count);
  back->Release();
  r->Release();
}

TEST_P(RootCreateTest, FreedSlotIsReusedWithItsBlocks) {
  kyStorage* s = Make();
  kyStream* a = s->CreateStream("a", kRW);
  ASSERT_NE(nullptr, a);
  char data[100];
  memset(data, 'd', sizeof(data));
  ASSERT_EQ(100, a->Write(data, sizeof(data)));
  a->Release();
  kyStream* b = s->CreateStream("b", kRW);
  b->Release();

  // Free slot 6 the way a removal does: magic and block links stay.
  Bytes img = kytest::ReadAll(path);
  const int64_t at = Slot(32, 6);
  const int64_t first = FirstBlockAt(img, at), last = LastBlockAt(img, at);
  ASSERT_NE(0, first);
  std::fill(img.begin() + at + 4, img.begin() + at + 68 + (B64() ? 8 : 4), 0);
  kytest::WriteAll(path, img);
  ASSERT_TRUE(s->RemoveStream("a"));

  kyStream* c = s->CreateStream("c", kRW);
  ASSERT_NE(nullptr, c);
  EXPECT_EQ(at, HeaderOffset(c));
  EXPECT_EQ(0, c->GetLength());
  c->Release();
  img = kytest::ReadAll(path);
  EXPECT_EQ(first, FirstBlockAt(img, at));
  EXPECT_EQ(last, LastBlockAt(img, at));
  EXPECT_EQ(0, LengthAt(img, at));
  EXPECT_EQ('c', img[at + 4]);
  s->Release();
}

TEST_P(RootCreateTest, FolderInAFreedSlotStartsAChainOfItsOwn) {
  kyStorage* s = Make();
  kyStream* a = s->CreateStream("a", kRW);
  ASSERT_NE(nullptr, a);
  char data[300];
  memset(data, 0xFC, sizeof(data));  // old bytes that look like slot magic
  ASSERT_EQ(300, a->Write(data, sizeof(data)));
  a->Release();
  kyStream* other = s->CreateStream("other", kRW);
  ASSERT_EQ(1, other->Write(data, 1));  // the old chain no longer ends the file
  other->Release();

  Bytes img = kytest::ReadAll(path);
  const int64_t at = Slot(32, 6);
  const int64_t oldFirst = FirstBlockAt(img, at);
  ASSERT_NE(0, oldFirst);
  std::fill(img.begin() + at + 4, img.begin() + at + 68 + (B64() ? 8 : 4), 0);
  kytest::WriteAll(path, img);
  ASSERT_TRUE(s->RemoveStream("a"));

  kyStream* f = s->CreateStream("f", 1, kRW);
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(at, HeaderOffset(f));
  EXPECT_EQ(4, f->GetLength());
  f->Release();
  img = kytest::ReadAll(path);
  const int64_t first = FirstBlockAt(img, at);
  EXPECT_NE(oldFirst, first);
  EXPECT_GT(first, oldFirst);  // a fresh block at the end of the file
  EXPECT_EQ(first, LastBlockAt(img, at));
  s->Release();
}

TEST_P(RootCreateTest, ReadOnlyAndInMemoryStoragesCreateNothing) {
  kyStorage* s = Make();
  FillOrdinary(s, 58);  // the next ordinary creation would append a block
  s->Release();
  const Bytes before = kytest::ReadAll(path);
  for (int load = 0; load < 2; ++load) {
    SCOPED_TRACE(load ? "in memory" : "read-only file");
    kyStorage* r = kyStorage::Open(path.c_str(), 0x12, 64, load);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(load != 0, kyTestAccess::InMemory(r) != 0);
    EXPECT_EQ(nullptr, r->CreateStream("new", kRW));
    EXPECT_EQ(nullptr, r->CreateStreamFast("newfast", kRW));
    EXPECT_EQ(nullptr, r->OpenOrCreateStream("new", 1));
    EXPECT_EQ(nullptr, r->OpenOrCreateStreamFast("newfast", 1));
    EXPECT_EQ(58, kyTestAccess::Map(r).GetCount());
    r->Release();
    EXPECT_EQ(before, kytest::ReadAll(path));
  }
}

TEST_P(RootCreateTest, OpenFastLooksForTheNameOnDisk) {
  kyStorage* s = Make();
  FillOrdinary(s, 59);  // o58 lies in the second block
  kyStream* f = s->CreateStreamFast("fast", kRW);
  f->Release();
  s->Release();
  const Bytes before = kytest::ReadAll(path);

  kyStorage* r = kyStorage::OpenFast(path.c_str(), kRW, 64);
  ASSERT_NE(nullptr, r);
  for (const char* taken : {"o0", "o58", "fast"}) {
    EXPECT_EQ(nullptr, r->CreateStream(taken, kRW)) << taken;
    EXPECT_EQ(nullptr, r->CreateStreamFast(taken, kRW)) << taken;
  }
  EXPECT_EQ(before, kytest::ReadAll(path));
  kyStream* fresh = r->CreateStream("fresh", kRW);
  ASSERT_NE(nullptr, fresh);
  EXPECT_EQ(Slot(32 + DBS(), 1), HeaderOffset(fresh));
  fresh->Release();
  EXPECT_EQ(nullptr, r->CreateStream("fresh", kRW));  // now in the map
  kyStream* again = r->OpenOrCreateStreamFast("fast", 0);
  ASSERT_NE(nullptr, again);
  EXPECT_EQ(Slot(32, 0), HeaderOffset(again));
  again->Release();
  r->Release();
}

TEST_P(RootCreateTest, OpenOrCreate) {
  kyStorage* s = Make();
  kyStream* made = s->OpenOrCreateStream("dir", 1);
  ASSERT_NE(nullptr, made);
  EXPECT_TRUE(made->IsFolder());
  EXPECT_EQ(-1, made->Release());  // created, so not registered
  kyStream* opened = s->OpenOrCreateStream("dir", 0);
  ASSERT_NE(nullptr, opened);
  EXPECT_TRUE(opened->IsFolder());
  EXPECT_EQ(Slot(32, 6), HeaderOffset(opened));
  EXPECT_EQ(kRW, kyTestAccess::OpenMode(opened));
  EXPECT_EQ(1, opened->Release());

  kyStream* e = s->OpenOrCreateStreamFast("entry", 0);
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(Slot(32, 0), HeaderOffset(e));
  ASSERT_EQ(10, e->Write("0123456789", 10));
  e->Release();
  kyStream* atEnd = s->OpenOrCreateStreamFast("entry", 1);
  ASSERT_NE(nullptr, atEnd);
  EXPECT_EQ(10, atEnd->GetCurDataPos());
  EXPECT_EQ(1, atEnd->Release());
  kyStream* atStart = s->OpenOrCreateStreamFast("entry", 0);
  ASSERT_NE(nullptr, atStart);
  EXPECT_EQ(0, atStart->GetCurDataPos());
  atStart->Release();
  s->Release();
}

TEST_P(RootCreateTest, NewBlockMustFitTheSizeLimit) {
  if (!B64()) GTEST_SKIP() << "the 32-bit limit is fixed at 4 GiB";
  kyStorage* s = Make();
  FillOrdinary(s, 58);
  const Bytes before = kytest::ReadAll(path);
  const int64_t size = static_cast<int64_t>(before.size());
  kyStorage::g_iMaxTolvarSize = size + DBS() - 1;
  EXPECT_EQ(nullptr, s->CreateStream("big", kRW));
  EXPECT_EQ(before, kytest::ReadAll(path));
  kyStorage::g_iMaxTolvarSize = size + DBS();
  kyStream* ok = s->CreateStream("big", kRW);
  ASSERT_NE(nullptr, ok);
  ok->Release();
  s->Release();
}

// A chain damaged while the storage is open: the creation walk ends with
// null and writes nothing.
TEST_P(RootCreateTest, DamagedChainFailsCleanly) {
  kyStorage* s = Make();
  FillOrdinary(s, 58);
  const Bytes good = kytest::ReadAll(path);
  const int64_t P = 32 + DBS();
  const int64_t links[] = {32, P + 1000000, P};  // a loop, past the end, bad magic
  for (int64_t link : links) {
    SCOPED_TRACE(link);
    Bytes img = good;
    if (link == P) {
      img.resize(static_cast<size_t>(P + DBS()), 0);
      kytest::Put32(img, P, 0xFBFBFBFA);
      kytest::Put32(img, P + 4, 64);
    }
    if (B64())
      kytest::Put64(img, 40, link);
    else
      kytest::Put32(img, 40, static_cast<uint32_t>(link));
    kytest::WriteAll(path, img);
    EXPECT_EQ(nullptr, s->CreateStream("new", kRW));
    EXPECT_EQ(img, kytest::ReadAll(path));
    kyStream* fast = s->CreateStreamFast("fastok", kRW);  // the fast area is still fine
    ASSERT_NE(nullptr, fast);
    fast->Release();
    ASSERT_TRUE(s->RemoveStream("fastok"));
  }
  s->Release();
}

// A file with the older 26-byte header: 32-bit offsets, the root directory
// at 26 and two fast slots.
TEST(LegacyRootTest, TwoFastSlotsAndTheDirectoryAtTwentySix) {
  kytest::TempDir dir;
  const std::string path = dir.File("legacy.kys");
  Bytes img(26 + 5132, 0);
  memcpy(img.data(), "@_RK_Structured_Storage@_", 25);
  kytest::Put32(img, 26, kDirectoryBlockMagic);
  kytest::Put32(img, 30, 64);
  for (int i = 0; i < 64; ++i) kytest::Put32(img, 26 + 12 + 80 * i, kStreamHeaderMagic);
  kytest::WriteAll(path, img);

  kyStorage* s = kyStorage::Open(path.c_str(), kRW, 64, 0);
  ASSERT_NE(nullptr, s);
  kyStream* ord = s->CreateStream("ord", kRW);
  ASSERT_NE(nullptr, ord);
  EXPECT_EQ(26 + 12 + 80 * 2, kyTestAccess::Offset(ord).headerOffset);
  ord->Release();
  for (int i = 0; i < 2; ++i) {
    kyStream* f = s->CreateStreamFast(("f" + std::to_string(i)).c_str(), kRW);
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(26 + 12 + 80 * i, kyTestAccess::Offset(f).headerOffset);
    f->Release();
  }
  EXPECT_EQ(nullptr, s->CreateStreamFast("f2", kRW));
  kyStream* first = s->OpenStreamFirst(kRO);
  ASSERT_NE(nullptr, first);
  EXPECT_STREQ("ord", first->GetName());
  first->Release();
  s->Release();

  kyStorage* r = kyStorage::OpenFast(path.c_str(), kRO, 64);
  ASSERT_NE(nullptr, r);
  kyStream* f1 = r->OpenStreamFast("f1", kRO);
  ASSERT_NE(nullptr, f1);
  f1->Release();
  EXPECT_EQ(nullptr, r->OpenStreamFast("ord", kRO));  // slot 2 is not a fast slot here
  r->Release();
}

INSTANTIATE_TEST_SUITE_P(Widths, RootCreateTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& i) {
                           return i.param ? "Offsets64" : "Offsets32";
                         });

}  // namespace
