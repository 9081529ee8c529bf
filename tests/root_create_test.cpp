// Creating root streams: slot choice, the bytes of new headers and of a new
// directory block, refusals that must leave the file as it was, and the
// open-or-create operations.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

class RootCreateTest : public RootTest {
 protected:
  int64_t FirstBlockAt(const Bytes& img, size_t at) const {
    return B64() ? Get64(img, at + 84) : Get32(img, at + 76);
  }
  int64_t LastBlockAt(const Bytes& img, size_t at) const {
    return B64() ? Get64(img, at + 76) : Get32(img, at + 72);
  }
  int64_t LengthAt(const Bytes& img, size_t at) const {
    return B64() ? Get64(img, at + 68) : Get32(img, at + 68);
  }
  // Writes the bytes a new header slot should hold into `img`.
  void PutHeader(Bytes& img, int64_t at, const char* name, WORD duration, BYTE flags) const {
    std::fill(img.begin() + at, img.begin() + at + HW(), 0);
    Put32(img, at, kStreamHeaderMagic);
    memcpy(&img[at + 4], name, strlen(name));
    Put16(img, at + 65, duration);
    img[at + 67] = flags;
  }
  // Frees a slot the way a removal does: name, duration, flags and length
  // cleared, magic and block links kept.
  void FreeSlot(int64_t at, const char* name) {
    Bytes img = ReadAll(path);
    std::fill(img.begin() + at + 4, img.begin() + at + 68 + (B64() ? 8 : 4), 0);
    WriteAll(path, img);
    ASSERT_TRUE(storage->RemoveStream(name));
  }
};

TEST_P(RootCreateTest, OrdinaryGoesToSlotSixFastToSlotZero) {
  kyStorage* s = Make();
  Bytes expected = ReadAll(path);
  kyStream* ord = s->CreateStream("ordinary", kRW);
  kyStream* fast = s->CreateStreamFast("fast", 0x00030000, kRW);
  ASSERT_NE(nullptr, ord);
  ASSERT_NE(nullptr, fast);
  EXPECT_EQ(Slot(32, 6), HeaderOffset(ord));
  EXPECT_EQ(Slot(32, 0), HeaderOffset(fast));
  PutHeader(expected, Slot(32, 6), "ordinary", 0, 0);
  PutHeader(expected, Slot(32, 0), "fast", 3, 0);
  EXPECT_EQ(expected, ReadAll(path));  // a data stream writes no data yet
  tag_kyStreamOffset where;
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, "fast", where));
  EXPECT_EQ(180u, where.dwDuration);
  ord->Release();
  fast->Release();
}

TEST_P(RootCreateTest, RefusalsChangeNothing) {
  kyStorage* s = Make();
  Add("a");
  for (int i = 0; i < 6; ++i) Add("f" + std::to_string(i), 0, true);
  const Bytes before = ReadAll(path);
  const std::string n61(61, 'm');
  struct Refusal {
    const char* name;
    bool fast, openOrCreate;
  } refusals[] = {
      {"a", false, false},  // taken
      {"a", true, false},   // taken in the ordinary area
      {"f6", true, false},  // the fast area is full
      {"f6", true, true},   // likewise
      {"", false, false},   // an empty name would leave a slot that looks free
      {nullptr, false, false},     {"", true, false}, {nullptr, true, false},
      {"", false, true},           {"", true, true},  {nullptr, true, true},
      {n61.c_str(), false, false},
  };
  for (const Refusal& r : refusals) {
    SCOPED_TRACE(testing::Message() << (r.name ? r.name : "null") << r.fast << r.openOrCreate);
    kyStream* got =
        r.openOrCreate
            ? (r.fast ? s->OpenOrCreateStreamFast(r.name, 0) : s->OpenOrCreateStream(r.name, 0))
            : (r.fast ? s->CreateStreamFast(r.name, kRW) : s->CreateStream(r.name, 1, kRW));
    EXPECT_EQ(nullptr, got);
  }
  EXPECT_EQ(before, ReadAll(path));
  EXPECT_EQ(7, kyTestAccess::Map(s).GetCount());
  kyStream* ord = s->CreateStream("f6", kRW);  // an ordinary slot is still free
  ASSERT_NE(nullptr, ord);
  EXPECT_EQ(Slot(32, 7), HeaderOffset(ord));
  ord->Release();
  Add("A");  // names differ by case
  const std::string n60(60, 'n');
  Add(n60);
  EXPECT_EQ(0, ReadAll(path)[Slot(32, 9) + 4 + 60]);  // the terminator fills the field
}

TEST_P(RootCreateTest, SecondDirectoryBlockAfterFiftyEightStreams) {
  Make();
  FillOrdinary(58);
  Bytes expected = ReadAll(path);
  const int64_t P = 32 + DBS();
  ASSERT_EQ(P, static_cast<int64_t>(expected.size()));
  kyStream* stm = storage->CreateStream("o58", kRW);
  ASSERT_NE(nullptr, stm);
  EXPECT_EQ(Slot(P, 0), HeaderOffset(stm));
  EXPECT_EQ(P + DBS(), kyTestAccess::LastAppended(storage));
  stm->Release();
  // The old bytes change only in the link; the new block is all zeros but
  // for its head and the new header in slot 0 (later blocks carry no slot
  // magic, and its own link is zero).
  PutNextLink(expected, P);
  expected.resize(static_cast<size_t>(P + DBS()), 0);
  Put32(expected, P, kDirectoryBlockMagic);
  Put32(expected, P + 4, 64);
  PutHeader(expected, Slot(P, 0), "o58", 0, 0);
  EXPECT_EQ(expected, ReadAll(path));
  kyStream* next = storage->CreateStream("o59", kRW);
  ASSERT_NE(nullptr, next);
  EXPECT_EQ(Slot(P, 1), HeaderOffset(next));
  next->Release();
  for (int load = 0; load < 2; ++load) {
    kyStorage* r = Reopen(kRO, load);
    EXPECT_EQ(60, kyTestAccess::Map(r).GetCount());
    tag_kyStreamOffset where;
    ASSERT_TRUE(kyTestAccess::FindStreamOffset(r, "o59", where));
    EXPECT_EQ(Slot(P, 1), where.headerOffset);
    EXPECT_EQ(P, where.blockOffset);
    kyStream* o = r->OpenStream("o58", kRO);
    ASSERT_NE(nullptr, o);
    o->Release();
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
  FillOrdinary(58);             // o57 is the 59th: it appends the second block
  ASSERT_EQ(0, a->Seek(0, 1));  // the shared position moved: back to the end
  ASSERT_EQ(300, a->Write(second.data(), 300));
  a->Release();
  kyStorage* r = Reopen(kRO, 1);
  EXPECT_EQ(59, kyTestAccess::Map(r).GetCount());
  kyStream* back = r->OpenStream("a", kRO);
  ASSERT_NE(nullptr, back);
  std::string got(350, '\0');
  EXPECT_EQ(350, back->Read(&got[0], 350));
  EXPECT_EQ(first + second, got);
  back->Release();
}

TEST_P(RootCreateTest, FolderWithDuration) {
  kyStorage* s = Make();
  kyStream* folder = s->CreateStream("cfg", 0x00050001, kRW);
  ASSERT_NE(nullptr, folder);
  EXPECT_EQ(4, folder->GetLength());
  folder->Release();
  // Any nonzero low byte makes a folder; the bits between are ignored.
  Add("odd", 0x00007F80);
  Add("plain", 0x0002FF00);
  const Bytes img = ReadAll(path);
  EXPECT_EQ(5, Get16(img, Slot(32, 6) + 65));
  EXPECT_EQ(1, img[Slot(32, 6) + 67]);
  EXPECT_EQ(4, LengthAt(img, Slot(32, 6)));
  EXPECT_EQ(1, img[Slot(32, 7) + 67]);
  EXPECT_EQ(0, img[Slot(32, 8) + 67]);
  EXPECT_EQ(2, Get16(img, Slot(32, 8) + 65));
  kyStream* back = Reopen(kRO, 1)->OpenStream("cfg", kRO);
  ASSERT_NE(nullptr, back);
  DWORD count = 0xFFFFFFFF;
  EXPECT_EQ(4, back->Read(&count, 4));
  EXPECT_EQ(0u, count);
  back->Release();
}

// A freed slot is reused with its blocks by a data stream; a folder there
// starts a chain of its own, whatever the old blocks hold.
TEST_P(RootCreateTest, FreedSlotReuse) {
  kyStorage* s = Make();
  const int64_t at = Slot(32, 6);
  kyStream* a = s->CreateStream("a", kRW);
  ASSERT_NE(nullptr, a);
  char data[300];
  memset(data, 0xFC, sizeof(data));  // old bytes that look like slot magic
  ASSERT_EQ(300, a->Write(data, sizeof(data)));
  a->Release();
  kyStream* other = s->CreateStream("other", kRW);
  ASSERT_EQ(1, other->Write(data, 1));  // the old chain no longer ends the file
  other->Release();
  Bytes img = ReadAll(path);
  const int64_t first = FirstBlockAt(img, at), last = LastBlockAt(img, at);
  ASSERT_NE(0, first);
  FreeSlot(at, "a");

  kyStream* c = s->CreateStream("c", kRW);
  ASSERT_NE(nullptr, c);
  EXPECT_EQ(at, HeaderOffset(c));
  EXPECT_EQ(0, c->GetLength());
  c->Release();
  img = ReadAll(path);
  EXPECT_EQ(first, FirstBlockAt(img, at));
  EXPECT_EQ(last, LastBlockAt(img, at));
  EXPECT_EQ(0, LengthAt(img, at));
  EXPECT_EQ('c', img[at + 4]);

  FreeSlot(at, "c");
  kyStream* f = s->CreateStream("f", 1, kRW);
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(at, HeaderOffset(f));
  EXPECT_EQ(4, f->GetLength());
  f->Release();
  img = ReadAll(path);
  EXPECT_GT(FirstBlockAt(img, at), first);  // a fresh block at the end of the file
  EXPECT_EQ(FirstBlockAt(img, at), LastBlockAt(img, at));
}

TEST_P(RootCreateTest, ReadOnlyAndInMemoryStoragesCreateNothing) {
  Make();
  FillOrdinary(58);  // the next ordinary creation would append a block
  const Bytes before = ReadAll(path);
  for (int load = 0; load < 2; ++load) {
    SCOPED_TRACE(load ? "in memory" : "read-only file");
    kyStorage* r = Reopen(kRO, load);
    EXPECT_EQ(nullptr, r->CreateStream("new", kRW));
    EXPECT_EQ(nullptr, r->CreateStreamFast("newfast", kRW));
    EXPECT_EQ(nullptr, r->OpenOrCreateStream("new", 1));
    EXPECT_EQ(nullptr, r->OpenOrCreateStreamFast("newfast", 1));
    EXPECT_EQ(58, kyTestAccess::Map(r).GetCount());
    r->Release();
    storage = nullptr;
    EXPECT_EQ(before, ReadAll(path));
  }
}

TEST_P(RootCreateTest, OpenFastLooksForTheNameOnDisk) {
  Make();
  FillOrdinary(59);  // o58 lies in the second block
  Add("fast", 0, true);
  storage->Release();
  const Bytes before = ReadAll(path);
  kyStorage* r = storage = kyStorage::OpenFast(path.c_str(), kRW, 64);
  ASSERT_NE(nullptr, r);
  for (const char* taken : {"o0", "o58", "fast"}) {
    EXPECT_EQ(nullptr, r->CreateStream(taken, kRW)) << taken;
    EXPECT_EQ(nullptr, r->CreateStreamFast(taken, kRW)) << taken;
  }
  EXPECT_EQ(before, ReadAll(path));
  kyStream* fresh = r->CreateStream("fresh", kRW);
  ASSERT_NE(nullptr, fresh);
  EXPECT_EQ(Slot(32 + DBS(), 1), HeaderOffset(fresh));
  fresh->Release();
  EXPECT_EQ(nullptr, r->CreateStream("fresh", kRW));  // now in the map
  kyStream* again = r->OpenOrCreateStreamFast("fast", 0);
  ASSERT_NE(nullptr, again);
  EXPECT_EQ(Slot(32, 0), HeaderOffset(again));
  again->Release();
}

TEST_P(RootCreateTest, OpenOrCreate) {
  kyStorage* s = Make();
  kyStream* made = s->OpenOrCreateStream("dir", 1);
  ASSERT_NE(nullptr, made);
  EXPECT_EQ(-1, made->Release());  // created, so not registered
  kyStream* opened = s->OpenOrCreateStream("dir", 0);
  ASSERT_NE(nullptr, opened);
  EXPECT_TRUE(opened->IsFolder());
  EXPECT_EQ(kRW, kyTestAccess::OpenMode(opened));
  EXPECT_EQ(1, opened->Release());
  kyStream* e = s->OpenOrCreateStreamFast("entry", 0);
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(Slot(32, 0), HeaderOffset(e));
  ASSERT_EQ(10, e->Write("0123456789", 10));
  e->Release();
  for (int atEnd = 0; atEnd < 2; ++atEnd) {
    kyStream* o = s->OpenOrCreateStreamFast("entry", atEnd);
    ASSERT_NE(nullptr, o);
    EXPECT_EQ(atEnd ? 10 : 0, o->GetCurDataPos());
    EXPECT_EQ(1, o->Release());
  }
}

TEST_P(RootCreateTest, NewBlockMustFitTheSizeLimit) {
  if (!B64()) GTEST_SKIP() << "the 32-bit limit is fixed at 4 GiB";
  kyStorage* s = Make();
  FillOrdinary(58);
  const Bytes before = ReadAll(path);
  kyStorage::g_iMaxTolvarSize = static_cast<int64_t>(before.size()) + DBS() - 1;
  EXPECT_EQ(nullptr, s->CreateStream("big", kRW));
  EXPECT_EQ(before, ReadAll(path));
  kyStorage::g_iMaxTolvarSize += 1;
  Add("big");
}

// A chain damaged while the storage is open: the creation walk ends with
// null and writes nothing.
TEST_P(RootCreateTest, DamagedChainFailsCleanly) {
  kyStorage* s = Make();
  FillOrdinary(58);
  const Bytes good = ReadAll(path);
  const int64_t P = 32 + DBS();
  for (int64_t link : {int64_t{32}, P + 1000000, P}) {  // a loop, past the end, bad magic
    SCOPED_TRACE(link);
    Bytes img = good;
    if (link == P) {
      img.resize(static_cast<size_t>(P + DBS()), 0);
      Put32(img, P, 0xFBFBFBFA);
      Put32(img, P + 4, 64);
    }
    PutNextLink(img, link);
    WriteAll(path, img);
    EXPECT_EQ(nullptr, s->CreateStream("new", kRW));
    EXPECT_EQ(img, ReadAll(path));
    Add("fastok", 0, true);  // the fast area is still fine
    ASSERT_TRUE(s->RemoveStream("fastok"));
  }
}

// A file with the older 26-byte header: 32-bit offsets, the root directory
// at 26 and two fast slots.
TEST(LegacyRootTest, TwoFastSlotsAndTheDirectoryAtTwentySix) {
  TempDir dir;
  const std::string path = dir.File("legacy.kys");
  Bytes img(26 + 5132, 0);
  memcpy(img.data(), "@_RK_Structured_Storage@_", 25);
  Put32(img, 26, kDirectoryBlockMagic);
  Put32(img, 30, 64);
  for (int i = 0; i < 64; ++i) Put32(img, 26 + 12 + 80 * i, kStreamHeaderMagic);
  WriteAll(path, img);

  kyStorage* s = kyStorage::Open(path.c_str(), kRW, 64, 0);
  ASSERT_NE(nullptr, s);
  const char* names[] = {"f0", "f1", "ord"};
  for (int i = 0; i < 3; ++i) {
    kyStream* f = i < 2 ? s->CreateStreamFast(names[i], kRW) : s->CreateStream(names[i], kRW);
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(26 + 12 + 80 * i, kyTestAccess::Offset(f).headerOffset);
    f->Release();
  }
  EXPECT_EQ(nullptr, s->CreateStreamFast("f2", kRW));
  kyStream* first = s->OpenStreamFirst(kRO);  // the first ordinary slot is slot 2
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

INSTANTIATE_TEST_SUITE_P(Widths, RootCreateTest, ::testing::Bool(), RootWidthName);

}  // namespace
