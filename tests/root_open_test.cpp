// Opening root streams by name, through the fast slots and by locator, the
// three ways of walking them, the searches for the first root stream or
// folder, the child count of a root folder, and the open-stream registry:
// counting opens, the admission rule and what Release reports.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/win_file.h"
#include "support/root_fixture.h"

namespace {

using namespace kytest;

class RootOpenTest : public RootTest {
 protected:
  static Names DirectoryWalk(kyStorage* s) {
    Names out;
    int cursor = -7;
    for (kyStream* stm = s->OpenStreamFirst2(cursor, kRO); stm != nullptr;
         stm = s->OpenStreamNext2(cursor, kRO)) {
      out.push_back(stm->GetName());
      stm->Release();
    }
    return out;
  }
};

TEST_P(RootOpenTest, ByNameFastAndMap) {
  Make();
  Add("fast", 0, true);
  Add("ordinary");
  for (int how = 0; how < 3; ++how) {  // from the file, in memory, OpenFast
    SCOPED_TRACE(how);
    Reopen(kRO, how);
    kyStream* f = Must(storage->OpenStreamFast("fast", kRO));
    EXPECT_EQ(Slot(32, 0), HeaderOffset(f));
    EXPECT_EQ(kRO, kyTestAccess::OpenMode(f));
    EXPECT_EQ(1, f->Release());
    // Free fast slots have empty names; an empty name opens none of them.
    for (const char* bad : {"ordinary", "Fast", "", static_cast<const char*>(nullptr)})
      EXPECT_EQ(nullptr, storage->OpenStreamFast(bad, kRO)) << (bad ? bad : "null");
    EXPECT_EQ(nullptr, storage->OpenStream("ORDINARY", kRO));
    EXPECT_EQ(nullptr, storage->OpenStream(nullptr, kRO));
    for (const char* name : {"ordinary", "fast"}) {
      kyStream* o = storage->OpenStream(name, kRO);
      EXPECT_EQ(how != 2, o != nullptr) << name;  // no name map after OpenFast
      if (o != nullptr) o->Release();
    }
    EXPECT_EQ(0, Records());
  }
}

TEST_P(RootOpenTest, DamagedHeaderOrLocatorOpensNothing) {
  Make();
  Add("a");
  tag_kyStreamOffset where;
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(storage, "a", where));
  Bytes img = ReadAll(path);
  Put32(img, static_cast<size_t>(where.headerOffset), 0xFCFCFC00);
  WriteAll(path, img);
  EXPECT_EQ(nullptr, storage->OpenStream("a", kRO));
  const int64_t size = static_cast<int64_t>(img.size());
  for (int64_t at : {size + 10, size - 10, int64_t{0}}) {  // past the end, short, file header
    where.headerOffset = at;
    EXPECT_EQ(nullptr, storage->OpenStreamByOffset(where, "a", kRO)) << at;
  }
  EXPECT_EQ(0, Records());  // failed opens register nothing
}

TEST_P(RootOpenTest, FirstOrdinarySlotWhateverItHolds) {
  Make();
  const Bytes before = ReadAll(path);
  kyStream* empty = Must(storage->OpenStreamFirst(kRO));
  EXPECT_STREQ("", empty->GetName());
  EXPECT_EQ(Slot(32, 6), HeaderOffset(empty));
  EXPECT_EQ(0, empty->Release());  // never registered
  EXPECT_EQ(before, ReadAll(path));
  Add("x");
  kyStream* x = Must(Reopen(kRO, 1)->OpenStreamFirst(kRO));
  EXPECT_STREQ("x", x->GetName());
  EXPECT_EQ(1, x->Release());
}

TEST_P(RootOpenTest, MapWalkFollowsTheHashTable) {
  Make();
  EXPECT_EQ(Names(), MapWalk(storage));
  WalkModel model;
  for (int i = 0; i < 40; ++i) {
    std::string n = "s" + std::to_string(i * 7);
    if (i % 5 == 0) n += "\xe9";  // bytes from 0x80 hash as negative values
    model.Insert(n);
    Add(n);
  }
  EXPECT_EQ(model.Walk(), MapWalk(storage));
  // Reopened, the map is filled in directory order: creation order here.
  for (int load = 0; load < 2; ++load) EXPECT_EQ(model.Walk(), MapWalk(Reopen(kRO, load)));
  EXPECT_EQ(0, Records());
  // One stream, then the end; the cursor tells the sorted walk apart.
  Make();
  Add("only");
  for (int sorted = 0; sorted < 2; ++sorted) {
    storage->EnableSorting(sorted, 0);
    void* cursor = reinterpret_cast<void*>(0x1234);
    kyStream* first = Must(storage->OpenStreamFirst(cursor, kRO));
    EXPECT_EQ(sorted ? reinterpret_cast<void*>(-1) : nullptr, cursor);
    EXPECT_EQ(nullptr, storage->OpenStreamNext(cursor, kRO));
    first->Release();
  }
}

TEST_P(RootOpenTest, DirectoryOrderWalk) {
  kyStorage* s = Make();
  int cursor = 9;
  EXPECT_EQ(nullptr, s->OpenStreamFirst2(cursor, kRO));  // nothing to walk
  EXPECT_EQ(9, cursor);
  Names expected = {"f0", "f1"};
  for (int i = 0; i < 60; ++i) expected.push_back("o" + std::to_string(i));
  FillOrdinary(60);  // o58 and o59 in the second block
  Add("f0", 0, true);
  Add("f1", 1, true);
  EXPECT_EQ(expected, DirectoryWalk(s));
  // A slot freed on disk drops out of the walk.
  tag_kyStreamOffset where;
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, "o3", where));
  Bytes img = ReadAll(path);
  std::fill(img.begin() + where.headerOffset + 4, img.begin() + where.headerOffset + 65, 0);
  WriteAll(path, img);
  ASSERT_TRUE(s->RemoveStream("o3"));
  expected.erase(expected.begin() + 5);
  EXPECT_EQ(expected, DirectoryWalk(s));
  for (int start : {static_cast<int>(expected.size()) - 1, -2}) {  // at the end, out of range
    cursor = start;
    EXPECT_EQ(nullptr, s->OpenStreamNext2(cursor, kRO));
    EXPECT_EQ(start, cursor);
  }
  EXPECT_EQ(expected, DirectoryWalk(Reopen(kRO, 1)));
  cursor = 5;  // without a name map, the names on disk cannot be opened
  EXPECT_EQ(nullptr, Reopen(kRO, 2)->OpenStreamFirst2(cursor, kRO));
  EXPECT_EQ(0, cursor);
  // A loop or a link past the end, made while the storage is open, ends
  // the walk empty.
  const Bytes good = ReadAll(path);
  for (int64_t link : {int64_t{32}, int64_t{0x7FFFFFF0}}) {
    WriteAll(path, good);
    Reopen(kRO, 0);
    Must(storage->OpenStreamFirst2(cursor, kRO))->Release();  // sound before the damage
    img = good;
    PutNextLink(img, link);
    WriteAll(path, img);
    EXPECT_EQ(nullptr, storage->OpenStreamFirst2(cursor, kRO)) << link;
    EXPECT_EQ(0, kyTestAccess::StreamNames(storage).GetSize());
  }
}

TEST_P(RootOpenTest, FindRootStreamsAndFolders) {
  kyStorage* s = Make();
  for (const char* n : {"d1", "F1", "d2", "F2"}) Add(n, n[0] == 'F');
  // In hash order: d1 d2 F1 F2 lie in buckets 0, 1, 13, 14.
  ASSERT_EQ((Names{"d1", "d2", "F1", "F2"}), MapWalk(s));
  const char* const expected[] = {"d1", "F1", "F2", "F2", "d2"};
  for (int i = 0; i < 5; ++i) {
    if (i == 3) s->EnableSorting(1, 1);  // descending: d2 d1 F2 F1
    kyStream* got = Must(i == 0 || i == 4 ? s->FindRootStream("")
                         : i == 1         ? s->FindRootStorage(nullptr)
                         : i == 2         ? s->FindRootStorageWrite("F2")
                                          : s->FindRootStorage(""));
    EXPECT_STREQ(expected[i], got->GetName());
    EXPECT_EQ(i == 2 ? kRW : kRO, kyTestAccess::OpenMode(got));
    EXPECT_EQ(1, Records());  // the streams passed over were released
    got->Release();
  }
  EXPECT_EQ(nullptr, s->FindRootStream("F2"));
  EXPECT_EQ(nullptr, s->FindRootStorage("d2"));
  EXPECT_EQ(nullptr, s->FindRootStorage("f2"));
  // A stream held exclusively ends the search where the walk meets it.
  kyStream* held = s->OpenStream("d2", 0x36);
  EXPECT_EQ(nullptr, s->FindRootStorage("F1"));
  held->Release();
  EXPECT_EQ(0, Records());
}

TEST_P(RootOpenTest, SubfolderCountComesFromTheFolderData) {
  kyStorage* s = Make();
  Add("folder", 1);
  Add("data");
  EXPECT_EQ(0u, s->GetSubfolderCount("folder"));
  const DWORD three = 3;
  for (const char* name : {"folder", "data"}) {
    kyStream* f = Must(s->OpenStream(name, kRW));
    ASSERT_EQ(4, f->Write(&three, 4));
    f->Release();
  }
  EXPECT_EQ(3u, s->GetSubfolderCount("folder"));
  EXPECT_EQ(0u, s->GetSubfolderCount("data"));  // not a folder
  EXPECT_EQ(0u, s->GetSubfolderCount("missing"));
  kyStream* held = s->OpenStream("folder", 0x36);
  EXPECT_EQ(0u, s->GetSubfolderCount("folder"));  // cannot be opened
  held->Release();
  EXPECT_EQ(0, Records());
  EXPECT_EQ(3u, Reopen(kRO, 1)->GetSubfolderCount("folder"));
}

// --- the open-stream registry, over a storage holding the stream "data" ---

class RegistryTest : public RootTest {
 protected:
  void SetUp() override {
    RootTest::SetUp();
    Make();
    Add("data");
  }
  t_OpenStream* Record(const char* name) { return kyTestAccess::IsStreamOpen(storage, name); }
};

TEST_P(RegistryTest, RecordsCountOpensOfOneName) {
  EXPECT_EQ(-1, kyTestAccess::CloseStream(storage, "never"));
  t_OpenStream* a = kyTestAccess::AddNewOpenStream(storage, "x", 0x12);
  t_OpenStream* b = kyTestAccess::AddNewOpenStream(storage, "x", 0x16);  // as GoNext may do
  ASSERT_NE(nullptr, a);
  EXPECT_EQ(1, a->m_nCount);
  EXPECT_EQ(a, Record("x"));  // the older record is found first
  EXPECT_EQ(nullptr, Record("X"));
  EXPECT_EQ(1, kyTestAccess::CloseStream(storage, "x"));
  EXPECT_EQ(b, Record("x"));
  EXPECT_EQ(1, kyTestAccess::CloseStream(storage, "x"));
  EXPECT_EQ(-1, kyTestAccess::CloseStream(storage, "x"));
}

TEST_P(RegistryTest, AdmissionRule) {
  struct Case {
    DWORD held, asked;
    bool admitted;
  } cases[] = {
      {0x36, 0x02, false}, {0x36, 0x12, false}, {0x36, 0x16, false}, {0x36, 0x36, false},
      {0x0A, 0x12, false}, {0x0A, 0x16, false}, {0x0A, 0x2A, false}, {0x0A, 0x02, true},
      {0x0A, 0x0A, true},  {0x16, 0x36, true},  {0x16, 0x12, true},  {0x12, 0x36, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.held << " then " << c.asked);
    kyStream* holder = Must(storage->OpenStream("data", c.held));
    kyStream* second = storage->OpenStream("data", c.asked);
    EXPECT_EQ(c.admitted, second != nullptr);
    EXPECT_EQ(1, Records());  // opens of one name share a record
    EXPECT_EQ(c.admitted ? 2 : 1, Record("data")->m_nCount);
    EXPECT_EQ(c.held, Record("data")->m_dwMode);  // later opens never change it
    if (second) {
      EXPECT_EQ(2, second->Release());
    }
    EXPECT_EQ(1, holder->Release());
  }
  // The record keeps the first mode, so an exclusive open admitted after a
  // shared one does not keep out a third.
  kyStream* holder = Must(storage->OpenStream("data", 0x16));
  kyStream* exclusive = Must(storage->OpenStream("data", 0x36));
  EXPECT_EQ(3, Must(storage->OpenStream("data", 0x12))->Release());
  EXPECT_EQ(2, exclusive->Release());
  EXPECT_EQ(1, holder->Release());
}

TEST_P(RegistryTest, RefusedOpenReadsNothing) {
  kyStream* holder = Must(storage->OpenStream("data", 0x36));
  ASSERT_EQ(5, kyTestAccess::SetFilePointer(storage, 5, FILE_BEGIN));
  EXPECT_EQ(nullptr, storage->OpenStream("data", 0x12));
  EXPECT_EQ(5, kyTestAccess::SetFilePointer(storage, 0, FILE_CURRENT));
  void* cursor = nullptr;  // the map walk meets the held stream and stops
  EXPECT_EQ(nullptr, storage->OpenStreamFirst(cursor, 0x12));
  EXPECT_EQ(1, holder->Release());
}

TEST_P(RegistryTest, CreatedAndEmptyNamedStreamsAreNotRegistered) {
  kyStream* created = Must(storage->CreateStream("fresh", kRW));
  EXPECT_EQ(nullptr, Record("fresh"));
  EXPECT_EQ(1, Must(storage->OpenStream("fresh", 0x12))->Release());
  EXPECT_EQ(-1, created->Release());
  // Slot 8 is free: two exclusive opens of it by locator both succeed.
  tag_kyStreamOffset where;
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(storage, "data", where));
  where.headerOffset = Slot(32, 8);
  kyStream* empty = Must(storage->OpenStreamByOffset(where, "", 0x36));
  kyStream* another = Must(storage->OpenStreamByOffset(where, "", 0x36));
  EXPECT_EQ(0, Records());
  EXPECT_EQ(0, another->Release());
  EXPECT_EQ(0, empty->Release());
  EXPECT_EQ(nullptr, storage->OpenStreamByOffset(where, nullptr, 0x12));
}

TEST_P(RegistryTest, ChildReleaseClosesOnTheParentsList) {
  kyStream* parent = Must(storage->CreateStream("folder", 1, kRW));
  t_kyStreamU h;
  memset(&h, 0, sizeof(h));
  h.Magic() = kStreamHeaderMagic;
  strcpy(h.Name(), "child");
  t_OpenStream* rec = new t_OpenStream("child", 0x16);
  rec->m_nCount = 2;
  kyTestAccess::Children(parent).AddTail(rec);
  kyStream* a = kyTestAccess::MakeChildStream(parent, h, 1000);
  kyStream* b = kyTestAccess::MakeChildStream(parent, h, 1000);
  kyTestAccess::MarkCounted(a);
  kyTestAccess::MarkCounted(b);
  EXPECT_EQ(2, a->Release());
  EXPECT_EQ(1, b->Release());
  EXPECT_EQ(nullptr, parent->IsStreamOpen("child"));
  EXPECT_EQ(0, Records());  // nothing went to the storage's list
  EXPECT_EQ(-1, parent->Release());
}

INSTANTIATE_TEST_SUITE_P(Widths, RootOpenTest, ::testing::Bool(), RootWidthName);
INSTANTIATE_TEST_SUITE_P(Widths, RegistryTest, ::testing::Bool(), RootWidthName);

}  // namespace
