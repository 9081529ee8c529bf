// Opening root streams by name, through the fast slots and by locator, the
// three ways of walking them, the searches for the first root stream or
// folder, and the child count of a root folder.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "kystore.h"
#include "support/test_access.h"
#include "support/test_util.h"

namespace {

using kytest::Bytes;

const DWORD kRW = kModeReadWriteShared;
const DWORD kRO = kModeReadShared;

typedef std::vector<std::string> Names;

// The framework map's walk, computed on its own: 17 buckets by
// h = h * 33 + (signed char)c, newest first within a bucket.
Names ExpectedHashOrder(const Names& insertionOrder) {
  std::map<uint32_t, Names> buckets;
  for (const std::string& n : insertionOrder) {
    uint32_t h = 0;
    for (char c : n)
      h = h * 33u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(c)));
    Names& b = buckets[h % 17];
    b.insert(b.begin(), n);
  }
  Names out;
  for (const auto& b : buckets) out.insert(out.end(), b.second.begin(), b.second.end());
  return out;
}

class RootOpenTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    kyStorage::g_bUse64BitOffsets = B64() ? 1 : 0;
    path = dir.File("open.kys");
  }
  bool B64() const { return GetParam(); }
  int64_t HW() const { return B64() ? 92 : 80; }
  int64_t DBS() const { return B64() ? 5904 : 5132; }
  int64_t Slot(int64_t block, int64_t i) const { return block + (B64() ? 16 : 12) + HW() * i; }
  kyStorage* Make() { return kyStorage::Create(path.c_str(), kRW, 64); }
  static void Add(kyStorage* s, const std::string& name, DWORD type = 0, bool fast = false) {
    kyStream* stm = fast ? s->CreateStreamFast(name.c_str(), type, kRW)
                         : s->CreateStream(name.c_str(), type, kRW);
    ASSERT_NE(nullptr, stm) << name;
    stm->Release();
  }
  // Releases every stream of a map walk and returns their names.
  static Names MapWalk(kyStorage* s) {
    Names out;
    void* cursor = nullptr;
    for (kyStream* stm = s->OpenStreamFirst(cursor, kRO); stm != nullptr;
         stm = s->OpenStreamNext(cursor, kRO)) {
      out.push_back(stm->GetName());
      EXPECT_EQ(1, stm->Release());
    }
    return out;
  }
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
  // Clears a slot's name on disk and drops it from the map, as a removal does.
  void Unlink(kyStorage* s, const char* name) {
    tag_kyStreamOffset where;
    ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, name, where));
    Bytes img = kytest::ReadAll(path);
    std::fill(img.begin() + where.headerOffset + 4, img.begin() + where.headerOffset + 65, 0);
    kytest::WriteAll(path, img);
    ASSERT_TRUE(s->RemoveStream(name));
  }

  kytest::GlobalsGuard globals;
  kytest::TempDir dir;
  std::string path;
};

TEST_P(RootOpenTest, ByNameFastAndMap) {
  kyStorage* s = Make();
  Add(s, "fast", 0, true);
  Add(s, "ordinary");
  s->Release();

  for (int how = 0; how < 3; ++how) {
    SCOPED_TRACE(how);
    kyStorage* r = how == 2 ? kyStorage::OpenFast(path.c_str(), kRO, 64)
                            : kyStorage::Open(path.c_str(), kRO, 64, how);
    ASSERT_NE(nullptr, r);
    kyStream* f = r->OpenStreamFast("fast", kRO);
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(Slot(32, 0), kyTestAccess::Offset(f).headerOffset);
    EXPECT_EQ(kRO, kyTestAccess::OpenMode(f));
    EXPECT_EQ(1, f->Release());
    EXPECT_EQ(nullptr, r->OpenStreamFast("ordinary", kRO));
    EXPECT_EQ(nullptr, r->OpenStreamFast("Fast", kRO));
    // Free fast slots have empty names; an empty name opens none of them.
    EXPECT_EQ(nullptr, r->OpenStreamFast("", kRO));
    EXPECT_EQ(nullptr, r->OpenStreamFast(nullptr, kRO));
    EXPECT_EQ(nullptr, r->OpenStream("ORDINARY", kRO));
    EXPECT_EQ(nullptr, r->OpenStream(nullptr, kRO));
    kyStream* o = r->OpenStream("ordinary", kRO);
    kyStream* f2 = r->OpenStream("fast", kRO);
    if (how == 2) {  // no name map after OpenFast
      EXPECT_EQ(nullptr, o);
      EXPECT_EQ(nullptr, f2);
    } else {
      ASSERT_NE(nullptr, o);
      ASSERT_NE(nullptr, f2);
      EXPECT_STREQ("ordinary", o->GetName());
      EXPECT_EQ(Slot(32, 6), kyTestAccess::Offset(o).headerOffset);
      o->Release();
      f2->Release();
    }
    EXPECT_EQ(0, kyTestAccess::Registry(r).GetCount());
    r->Release();
  }
}

TEST_P(RootOpenTest, DamagedHeaderOrLocatorOpensNothing) {
  kyStorage* s = Make();
  Add(s, "a");
  tag_kyStreamOffset where;
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, "a", where));
  Bytes img = kytest::ReadAll(path);
  kytest::Put32(img, static_cast<size_t>(where.headerOffset), 0xFCFCFC00);
  kytest::WriteAll(path, img);
  EXPECT_EQ(nullptr, s->OpenStream("a", kRO));
  tag_kyStreamOffset past = where;
  past.headerOffset = static_cast<int64_t>(img.size()) + 10;
  EXPECT_EQ(nullptr, s->OpenStreamByOffset(past, "a", kRO));
  past.headerOffset = static_cast<int64_t>(img.size()) - 10;  // a short read
  EXPECT_EQ(nullptr, s->OpenStreamByOffset(past, "a", kRO));
  past.headerOffset = 0;
  EXPECT_EQ(nullptr, s->OpenStreamByOffset(past, "a", kRO));
  EXPECT_EQ(0, kyTestAccess::Registry(s).GetCount());  // failed opens register nothing
  s->Release();
}

TEST_P(RootOpenTest, FirstOrdinarySlotWhateverItHolds) {
  kyStorage* s = Make();
  const Bytes before = kytest::ReadAll(path);
  kyStream* empty = s->OpenStreamFirst(kRO);
  ASSERT_NE(nullptr, empty);
  EXPECT_STREQ("", empty->GetName());
  EXPECT_EQ(0, empty->GetLength());
  EXPECT_EQ(Slot(32, 6), kyTestAccess::Offset(empty).headerOffset);
  EXPECT_EQ(0, kyTestAccess::Registry(s).GetCount());
  EXPECT_EQ(0, empty->Release());
  EXPECT_EQ(before, kytest::ReadAll(path));
  Add(s, "x");
  s->Release();

  kyStorage* r = kyStorage::Open(path.c_str(), kRO, 64, 1);
  ASSERT_NE(nullptr, r);
  kyStream* x = r->OpenStreamFirst(kRO);
  ASSERT_NE(nullptr, x);
  EXPECT_STREQ("x", x->GetName());
  EXPECT_EQ(1, x->Release());
  r->Release();
}

TEST_P(RootOpenTest, MapWalkFollowsTheHashTable) {
  kyStorage* s = Make();
  EXPECT_EQ(Names(), MapWalk(s));
  Names created;
  for (int i = 0; i < 40; ++i) {
    std::string n = "s" + std::to_string(i * 7);
    if (i % 5 == 0) n += "\xe9";  // bytes from 0x80 hash as negative values
    created.push_back(n);
    Add(s, n);
  }
  const Names expected = ExpectedHashOrder(created);
  EXPECT_EQ(expected, MapWalk(s));
  s->Release();
  // Reopened, the map is filled in directory order, which is creation order
  // here.
  for (int load = 0; load < 2; ++load) {
    kyStorage* r = kyStorage::Open(path.c_str(), kRO, 64, load);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(expected, MapWalk(r));
    EXPECT_EQ(0, kyTestAccess::Registry(r).GetCount());
    r->Release();
  }
}

TEST_P(RootOpenTest, OneStreamThenTheEnd) {
  kyStorage* s = Make();
  Add(s, "only");
  for (int sorted = 0; sorted < 2; ++sorted) {
    s->EnableSorting(sorted, 0);
    void* cursor = reinterpret_cast<void*>(0x1234);
    kyStream* first = s->OpenStreamFirst(cursor, kRO);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(sorted ? reinterpret_cast<void*>(-1) : nullptr, cursor);
    EXPECT_EQ(nullptr, s->OpenStreamNext(cursor, kRO));
    first->Release();
  }
  s->Release();
}

TEST_P(RootOpenTest, DirectoryOrderWalk) {
  kyStorage* s = Make();
  Names expected = {"f0", "f1"};
  for (int i = 0; i < 60; ++i) {
    Add(s, "o" + std::to_string(i));  // o58 and o59 in the second block
    expected.push_back("o" + std::to_string(i));
  }
  Add(s, "f0", 0, true);
  Add(s, "f1", 1, true);
  EXPECT_EQ(expected, DirectoryWalk(s));
  Unlink(s, "o3");
  expected.erase(expected.begin() + 5);
  EXPECT_EQ(expected, DirectoryWalk(s));
  EXPECT_EQ(expected.size(), static_cast<size_t>(kyTestAccess::StreamNames(s).GetSize()));

  int cursor = static_cast<int>(expected.size()) - 1;
  EXPECT_EQ(nullptr, s->OpenStreamNext2(cursor, kRO));
  EXPECT_EQ(static_cast<int>(expected.size()) - 1, cursor);
  cursor = -2;
  EXPECT_EQ(nullptr, s->OpenStreamNext2(cursor, kRO));
  s->Release();

  kyStorage* r = kyStorage::Open(path.c_str(), kRO, 64, 1);
  ASSERT_NE(nullptr, r);
  EXPECT_EQ(expected, DirectoryWalk(r));
  r->Release();
  // Without a name map, the names on disk cannot be opened this way.
  kyStorage* f = kyStorage::OpenFast(path.c_str(), kRO, 64);
  ASSERT_NE(nullptr, f);
  int untouched = 5;
  EXPECT_EQ(nullptr, f->OpenStreamFirst2(untouched, kRO));
  EXPECT_EQ(0, untouched);
  f->Release();
}

TEST_P(RootOpenTest, DirectoryWalkOnAnEmptyOrDamagedChain) {
  kyStorage* s = Make();
  int cursor = 9;
  EXPECT_EQ(nullptr, s->OpenStreamFirst2(cursor, kRO));
  EXPECT_EQ(9, cursor);
  for (int i = 0; i < 58; ++i) Add(s, "o" + std::to_string(i));
  const Bytes good = kytest::ReadAll(path);
  for (int64_t link : {int64_t{32}, int64_t{0x7FFFFFF0}}) {  // a loop, past the end
    Bytes img = good;
    if (B64())
      kytest::Put64(img, 40, link);
    else
      kytest::Put32(img, 40, static_cast<uint32_t>(link));
    kytest::WriteAll(path, img);
    EXPECT_EQ(nullptr, s->OpenStreamFirst2(cursor, kRO));
    EXPECT_EQ(0, kyTestAccess::StreamNames(s).GetSize());
  }
  s->Release();
}

TEST_P(RootOpenTest, FindRootStreamsAndFolders) {
  kyStorage* s = Make();
  Add(s, "d1");
  Add(s, "F1", 1);
  Add(s, "d2");
  Add(s, "F2", 1);
  // In hash order: d1 d2 F1 F2 lie in buckets 0, 1, 13, 14.
  ASSERT_EQ((Names{"d1", "d2", "F1", "F2"}), MapWalk(s));

  kyStream* d = s->FindRootStream("");
  ASSERT_NE(nullptr, d);
  EXPECT_STREQ("d1", d->GetName());
  EXPECT_EQ(1, kyTestAccess::Registry(s).GetCount());  // the others were released
  EXPECT_EQ(kRO, kyTestAccess::OpenMode(d));
  d->Release();
  kyStream* f = s->FindRootStorage(nullptr);
  ASSERT_NE(nullptr, f);
  EXPECT_STREQ("F1", f->GetName());
  f->Release();
  kyStream* named = s->FindRootStorageWrite("F2");
  ASSERT_NE(nullptr, named);
  EXPECT_STREQ("F2", named->GetName());
  EXPECT_EQ(kRW, kyTestAccess::OpenMode(named));
  named->Release();
  EXPECT_EQ(nullptr, s->FindRootStream("F2"));
  EXPECT_EQ(nullptr, s->FindRootStorage("d2"));
  EXPECT_EQ(nullptr, s->FindRootStorage("f2"));

  s->EnableSorting(1, 1);  // descending: d2 d1 F2 F1
  kyStream* last = s->FindRootStorage("");
  ASSERT_NE(nullptr, last);
  EXPECT_STREQ("F2", last->GetName());
  last->Release();
  kyStream* d2 = s->FindRootStream("");
  ASSERT_NE(nullptr, d2);
  EXPECT_STREQ("d2", d2->GetName());
  d2->Release();
  // A stream held exclusively ends the search where the walk meets it.
  kyStream* held = s->OpenStream("d2", 0x36);
  EXPECT_EQ(nullptr, s->FindRootStorage("F1"));
  held->Release();
  EXPECT_EQ(0, kyTestAccess::Registry(s).GetCount());
  s->Release();
}

TEST_P(RootOpenTest, SubfolderCountComesFromTheFolderData) {
  kyStorage* s = Make();
  Add(s, "folder", 1);
  Add(s, "data");
  EXPECT_EQ(0u, s->GetSubfolderCount("folder"));
  kyStream* f = s->OpenStream("folder", kRW);
  const DWORD three = 3;
  ASSERT_EQ(4, f->Write(&three, 4));
  f->Release();
  kyStream* d = s->OpenStream("data", kRW);
  ASSERT_EQ(4, d->Write(&three, 4));
  d->Release();
  EXPECT_EQ(3u, s->GetSubfolderCount("folder"));
  EXPECT_EQ(0u, s->GetSubfolderCount("data"));  // not a folder
  EXPECT_EQ(0u, s->GetSubfolderCount("missing"));
  kyStream* held = s->OpenStream("folder", 0x36);
  EXPECT_EQ(0u, s->GetSubfolderCount("folder"));  // cannot be opened
  held->Release();
  EXPECT_EQ(0, kyTestAccess::Registry(s).GetCount());
  s->Release();
  kyStorage* r = kyStorage::Open(path.c_str(), kRO, 64, 1);
  ASSERT_NE(nullptr, r);
  EXPECT_EQ(3u, r->GetSubfolderCount("folder"));
  r->Release();
}

INSTANTIATE_TEST_SUITE_P(Widths, RootOpenTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& i) {
                           return i.param ? "Offsets64" : "Offsets32";
                         });

}  // namespace
