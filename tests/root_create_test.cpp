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
  // Length, last and first block of the header at `at`, by width.
  int64_t Field(const Bytes& img, int64_t at, int i) const {
    return B64() ? Get64(img, at + 68 + 8 * i) : Get32(img, at + 68 + 4 * i);
  }
  // Writes the bytes a new header slot should hold into `img`.
  void PutHeader(Bytes& img, int64_t at, const char* name, WORD duration) const {
    std::fill(img.begin() + at, img.begin() + at + HW(), 0);
    Put32(img, at, kStreamHeaderMagic);
    memcpy(&img[at + 4], name, strlen(name));
    Put16(img, at + 65, duration);
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
  kyStream* ord = Must(s->CreateStream("ordinary", kRW));
  kyStream* fast = Must(s->CreateStreamFast("fast", 0x00030000, kRW));
  EXPECT_EQ(Slot(32, 6), HeaderOffset(ord));
  EXPECT_EQ(Slot(32, 0), HeaderOffset(fast));
  PutHeader(expected, Slot(32, 6), "ordinary", 0);
  PutHeader(expected, Slot(32, 0), "fast", 3);
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
  // Taken (also in the other area), the fast area full, a name too long,
  // and empty names, which would leave slots that look free.
  const std::string n61(61, 'm');
  for (const char* name : {"a", "f0", "f6", n61.c_str(), "", static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(name ? name : "null");
    const std::string n = name ? name : "";
    if (n != "f6") {
      EXPECT_EQ(nullptr, s->CreateStream(name, 1, kRW));
    }
    EXPECT_EQ(nullptr, s->CreateStreamFast(name, kRW));
    if (n != "f0") {
      EXPECT_EQ(nullptr, s->OpenOrCreateStreamFast(name, 0));
    }
  }
  EXPECT_EQ(nullptr, s->OpenOrCreateStream("", 0));
  EXPECT_EQ(before, ReadAll(path));
  EXPECT_EQ(7, kyTestAccess::Map(s).GetCount());
  kyStream* ord = Must(s->CreateStream("f6", kRW));  // an ordinary slot is still free
  EXPECT_EQ(Slot(32, 7), HeaderOffset(ord));
  ord->Release();
  Add("A");  // names differ by case
  Add(std::string(60, 'n'));
  EXPECT_EQ(0, ReadAll(path)[Slot(32, 9) + 4 + 60]);  // the terminator fills the field
}

TEST_P(RootCreateTest, SecondDirectoryBlockAfterFiftyEightStreams) {
  Make();
  FillOrdinary(58);
  Bytes expected = ReadAll(path);
  const int64_t P = 32 + DBS();
  ASSERT_EQ(P, static_cast<int64_t>(expected.size()));
  kyStream* stm = Must(storage->CreateStream("o58", kRW));
  EXPECT_EQ(Slot(P, 0), HeaderOffset(stm));
  EXPECT_EQ(P + DBS(), kyTestAccess::LastAppended(storage));
  stm->Release();
  // The old bytes change only in the link; the new block is all zeros but
  // for its head and the new header (no slot magic elsewhere, no link).
  PutNextLink(expected, P);
  expected.resize(static_cast<size_t>(P + DBS()), 0);
  Put32(expected, P, kDirectoryBlockMagic);
  Put32(expected, P + 4, 64);
  PutHeader(expected, Slot(P, 0), "o58", 0);
  EXPECT_EQ(expected, ReadAll(path));
  Add("o59");
  for (int load = 0; load < 2; ++load) {
    kyStorage* r = Reopen(kRO, load);
    EXPECT_EQ(60, kyTestAccess::Map(r).GetCount());
    tag_kyStreamOffset where;
    ASSERT_TRUE(kyTestAccess::FindStreamOffset(r, "o59", where));
    EXPECT_EQ(Slot(P, 1), where.headerOffset);
    EXPECT_EQ(P, where.blockOffset);
    Must(r->OpenStream("o58", kRO))->Release();
  }
}

// A data block that ended the file before a directory block was appended
// must not grow in place over it.
TEST_P(RootCreateTest, NewDirectoryBlockStopsInPlaceGrowth) {
  kyStream* a = Must(Make()->CreateStream("a", kRW));
  const std::string data = std::string(50, 'x') + std::string(300, 'y');
  ASSERT_EQ(50, a->Write(data.data(), 50));
  FillOrdinary(58);             // o57 is the 59th: it appends the second block
  ASSERT_EQ(0, a->Seek(0, 1));  // the shared position moved: back to the end
  ASSERT_EQ(300, a->Write(data.data() + 50, 300));
  a->Release();
  kyStream* back = Must(Reopen(kRO, 1)->OpenStream("a", kRO));
  std::string got(350, '\0');
  EXPECT_EQ(350, back->Read(&got[0], 350));
  EXPECT_EQ(data, got);
  back->Release();
}

TEST_P(RootCreateTest, FolderWithDuration) {
  Make();
  Add("cfg", 0x00050001);
  Add("odd", 0x00007F80);    // any nonzero low byte makes a folder,
  Add("plain", 0x0002FF00);  // the bits between are ignored
  const Bytes img = ReadAll(path);
  EXPECT_EQ(5, Get16(img, Slot(32, 6) + 65));
  EXPECT_EQ(4, Field(img, Slot(32, 6), 0));
  EXPECT_EQ(2, Get16(img, Slot(32, 8) + 65));
  EXPECT_EQ(Bytes({1, 1, 0}),
            Bytes({img[Slot(32, 6) + 67], img[Slot(32, 7) + 67], img[Slot(32, 8) + 67]}));
  kyStream* back = Must(Reopen(kRO, 1)->OpenStream("cfg", kRO));
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
  const std::string fc(300, '\xFC');         // old bytes that look like slot magic
  for (const char* name : {"a", "other"}) {  // the old chain no longer ends the file
    kyStream* stm = Must(s->CreateStream(name, kRW));
    ASSERT_EQ(300, stm->Write(fc.data(), 300));
    stm->Release();
  }
  const Bytes old = ReadAll(path);
  ASSERT_NE(0, Field(old, at, 2));
  FreeSlot(at, "a");
  Add("c");
  Bytes img = ReadAll(path);
  EXPECT_EQ(Field(old, at, 2), Field(img, at, 2));
  EXPECT_EQ(Field(old, at, 1), Field(img, at, 1));
  EXPECT_EQ(0, Field(img, at, 0));
  EXPECT_EQ('c', img[at + 4]);
  FreeSlot(at, "c");
  kyStream* f = Must(s->CreateStream("f", 1, kRW));
  EXPECT_EQ(at, HeaderOffset(f));
  EXPECT_EQ(4, f->GetLength());
  f->Release();
  img = ReadAll(path);
  EXPECT_GT(Field(img, at, 2), Field(old, at, 2));  // a fresh block at the end of the file
  EXPECT_EQ(Field(img, at, 2), Field(img, at, 1));
}

TEST_P(RootCreateTest, OpenFastLooksForTheNameOnDisk) {
  Make();
  FillOrdinary(59);  // o58 lies in the second block
  Add("fast", 0, true);
  const Bytes before = ReadAll(path);
  kyStorage* r = Reopen(kRW, 2);
  for (const char* taken : {"o0", "o58", "fast"}) {
    EXPECT_EQ(nullptr, r->CreateStream(taken, kRW)) << taken;
    EXPECT_EQ(nullptr, r->CreateStreamFast(taken, kRW)) << taken;
  }
  EXPECT_EQ(before, ReadAll(path));
  kyStream* fresh = Must(r->CreateStream("fresh", kRW));
  EXPECT_EQ(Slot(32 + DBS(), 1), HeaderOffset(fresh));
  fresh->Release();
  EXPECT_EQ(nullptr, r->CreateStream("fresh", kRW));  // now in the map
  kyStream* again = Must(r->OpenOrCreateStreamFast("fast", 0));
  EXPECT_EQ(Slot(32, 0), HeaderOffset(again));
  again->Release();
}

TEST_P(RootCreateTest, OpenOrCreate) {
  kyStorage* s = Make();
  EXPECT_EQ(-1, Must(s->OpenOrCreateStream("dir", 1))->Release());  // created: not registered
  kyStream* opened = Must(s->OpenOrCreateStream("dir", 0));
  EXPECT_TRUE(opened->IsFolder());
  EXPECT_EQ(kRW, kyTestAccess::OpenMode(opened));
  EXPECT_EQ(1, opened->Release());
  kyStream* e = Must(s->OpenOrCreateStreamFast("entry", 0));
  EXPECT_EQ(Slot(32, 0), HeaderOffset(e));
  ASSERT_EQ(10, e->Write("0123456789", 10));
  e->Release();
  for (int atEnd = 0; atEnd < 2; ++atEnd) {
    kyStream* o = Must(s->OpenOrCreateStreamFast("entry", atEnd));
    EXPECT_EQ(atEnd ? 10 : 0, o->GetCurDataPos());
    EXPECT_EQ(1, o->Release());
  }
}

// With the first block full, the next creation needs a new block: refused
// past the size limit, on a chain damaged while the storage is open (the
// fast area still works), and by read-only or in-memory storages.  None of
// them changes a byte.
TEST_P(RootCreateTest, RefusedNewBlockChangesNothing) {
  Make();
  FillOrdinary(58);
  const Bytes good = ReadAll(path);
  if (B64()) {  // the 32-bit limit is fixed at 4 GiB
    kyStorage::g_iMaxTolvarSize = static_cast<int64_t>(good.size()) + DBS() - 1;
    EXPECT_EQ(nullptr, storage->CreateStream("big", kRW));
    EXPECT_EQ(good, ReadAll(path));
    kyStorage::g_iMaxTolvarSize += 1;
    Add("big");
    storage->Release();
    storage = nullptr;
    WriteAll(path, good);
    Reopen(kRW, 0);
  }
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
    EXPECT_EQ(nullptr, storage->CreateStream("new", kRW));
    EXPECT_EQ(img, ReadAll(path));
    Add("fastok", 0, true);
    ASSERT_TRUE(storage->RemoveStream("fastok"));
  }
  storage->Release();
  storage = nullptr;
  WriteAll(path, good);
  for (int load = 0; load < 2; ++load) {
    SCOPED_TRACE(load ? "in memory" : "read-only file");
    kyStorage* r = Reopen(kRO, load);
    EXPECT_EQ(nullptr, r->CreateStream("new", kRW));
    EXPECT_EQ(nullptr, r->CreateStreamFast("newfast", kRW));
    EXPECT_EQ(nullptr, r->OpenOrCreateStream("new", 1));
    EXPECT_EQ(nullptr, r->OpenOrCreateStreamFast("newfast", 1));
    EXPECT_EQ(58, kyTestAccess::Map(r).GetCount());
    EXPECT_EQ(good, ReadAll(path));
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
    kyStream* f = Must(i < 2 ? s->CreateStreamFast(names[i], kRW) : s->CreateStream(names[i], kRW));
    EXPECT_EQ(26 + 12 + 80 * i, kyTestAccess::Offset(f).headerOffset);
    f->Release();
  }
  EXPECT_EQ(nullptr, s->CreateStreamFast("f2", kRW));
  kyStream* first = Must(s->OpenStreamFirst(kRO));  // the first ordinary slot is slot 2
  EXPECT_STREQ("ord", first->GetName());
  first->Release();
  s->Release();
  kyStorage* r = kyStorage::OpenFast(path.c_str(), kRO, 64);
  ASSERT_NE(nullptr, r);
  Must(r->OpenStreamFast("f1", kRO))->Release();
  EXPECT_EQ(nullptr, r->OpenStreamFast("ord", kRO));  // slot 2 is not a fast slot here
  r->Release();
}

INSTANTIATE_TEST_SUITE_P(Widths, RootCreateTest, ::testing::Bool(), RootWidthName);

}  // namespace
