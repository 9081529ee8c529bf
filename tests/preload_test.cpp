// A folder's children preloaded into a map: what the map holds, walks in
// hash and name order, and the map staying true while children are
// created, written, removed and renamed.

#include <string>
#include <vector>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;

class PreloadTest : public FolderTest {
 protected:
  // The names an open walk hands out (children are released again).
  static std::vector<std::string> OpenWalk(kyStream* folder) {
    std::vector<std::string> names;
    void* cursor = nullptr;
    for (kyStream* c = folder->OpenPreloadChildrenFirst(&cursor, kModeReadShared); c != nullptr;
         c = folder->OpenPreloadChildrenNext(&cursor, kModeReadShared)) {
      names.push_back(c->GetName());
      c->Release();
    }
    return names;
  }
  // The names the walk without opens hands out.
  static std::vector<std::string> OffsetWalk(kyStream* folder) {
    std::vector<std::string> names;
    void* cursor = nullptr;
    t_kyStreamWithOffset v;
    CString name;
    for (int more = folder->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name); more;
         more = folder->GetPreloadChildrenOffsetNext(&cursor, 0, v, name))
      names.push_back(name.GetString());
    return names;
  }
  typedef std::vector<std::string> Names;
};

TEST_P(PreloadTest, MapHoldsUsedChildrenWithTheirLocators) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  Child(top, "a", 0x00020000);
  Child(top, "gone");
  Child(top, "b", 1);
  Child(top, "c");
  kyStream* gone = top->OpenStream("gone", kModeReadWriteShared);
  ASSERT_TRUE(gone->Remove());
  top->Release();
  ASSERT_NE(nullptr, Reopen());
  kyStream* plain = storage->OpenStream("Top", kModeReadShared);
  kyStream* top2 = storage->OpenStream("Top", kModeReadShared);
  top2->PreloadChildren();
  ASSERT_NE(nullptr, kyTestAccess::PreloadMap(top2));
  EXPECT_EQ(3, kyTestAccess::PreloadMap(top2)->GetCount());
  EXPECT_EQ(0u, top2->GetNumChildren());  // the preload leaves the cached count alone

  void* cursor = nullptr;
  t_kyStreamWithOffset v;
  CString name;
  int seen = 0;
  for (int more = top2->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name); more;
       more = top2->GetPreloadChildrenOffsetNext(&cursor, 0, v, name), ++seen) {
    t_kyStreamU h;
    tag_kyStreamOffset o;
    ASSERT_TRUE(plain->FindStream(name, h, o)) << name.GetString();
    tag_kyStreamOffset vo;  // the value is packed
    memcpy(&vo, &v.offset, sizeof(vo));
    EXPECT_EQ(o.headerOffset, vo.headerOffset);
    EXPECT_EQ(0, vo.blockOffset);
    EXPECT_EQ(0u, vo.dwBlockSlots);
    EXPECT_EQ(name == "a" ? 120u : 0u, vo.dwDuration);
    EXPECT_EQ(0, memcmp(&h, &v.hdr, static_cast<size_t>(W())));
  }
  EXPECT_EQ(3, seen);
  EXPECT_EQ(0, top2->GetPreloadChildrenOffsetNext(&cursor, 0, v, name));
  EXPECT_TRUE(name.IsEmpty());
  top2->Release();
  plain->Release();
}

TEST_P(PreloadTest, WalksInHashAndNameOrder) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  for (const char* n : {"b", "a", "C"}) Child(top, n);
  top->PreloadChildren();
  // Buckets of the framework hash: "a" 12, "b" 13, "C" 16.
  EXPECT_EQ((Names{"a", "b", "C"}), OpenWalk(top));
  EXPECT_EQ((Names{"a", "b", "C"}), OffsetWalk(top));
  top->EnableSorting(1, 0);
  EXPECT_EQ((Names{"C", "a", "b"}), OpenWalk(top));
  EXPECT_EQ((Names{"C", "a", "b"}), OffsetWalk(top));
  top->EnableSorting(1, 1);
  EXPECT_EQ((Names{"b", "a", "C"}), OpenWalk(top));
  top->Release();
}

TEST_P(PreloadTest, NoMapOrEmptyMapGiveNothing) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  void* cursor = nullptr;
  t_kyStreamWithOffset v;
  memset(&v, 0x5A, sizeof(v));
  CString name = "stale";
  EXPECT_EQ(0, top->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name));
  EXPECT_EQ(Bytes(sizeof(v), 0),
            Bytes(reinterpret_cast<BYTE*>(&v), reinterpret_cast<BYTE*>(&v + 1)));
  EXPECT_TRUE(name.IsEmpty());
  EXPECT_EQ(nullptr, top->OpenPreloadChildrenFirst(&cursor, kModeReadShared));
  top->PreloadChildren();
  ASSERT_NE(nullptr, kyTestAccess::PreloadMap(top));
  EXPECT_EQ(0, kyTestAccess::PreloadMap(top)->GetCount());
  EXPECT_EQ(nullptr, top->OpenPreloadChildrenFirst(&cursor, kModeReadShared));
  top->EnableSorting(1, 0);
  EXPECT_EQ(nullptr, top->OpenPreloadChildrenFirst(&cursor, kModeReadShared));

  // A folder whose data end before the count has no map at all.
  kyStream* shortData = Root("Short", 0);
  ASSERT_EQ(2, shortData->Write("ab", 2));
  kyTestAccess::Header(shortData).Flags() = kFolderFlag;
  shortData->PreloadChildren();
  EXPECT_EQ(nullptr, kyTestAccess::PreloadMap(shortData));
  shortData->Release();
  top->Release();
}

// The map's copy of a child's header is older than the child's writes; an
// open through the map must still reach the child's data and keep its chain.
TEST_P(PreloadTest, OpensThroughTheMapSeeTheChildAsWritten) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  top->PreloadChildren();
  kyStream* x = top->CreateStream("x", 0, kModeReadWriteShared, 0);
  ASSERT_NE(nullptr, x);
  ASSERT_EQ(5, x->Write("hello", 5));
  const int64_t chain = FirstBlock(x);
  x->Release();
  x = top->OpenStream("x", kModeReadWriteShared);
  ASSERT_NE(nullptr, x);
  EXPECT_EQ(chain, FirstBlock(x));
  EXPECT_EQ("hello", Text(x));
  ASSERT_EQ(0, x->Seek(0, 1));
  ASSERT_EQ(3, x->Write("!!!", 3));
  x->Release();
  void* cursor = nullptr;
  x = top->OpenPreloadChildrenFirst(&cursor, kModeReadShared);
  ASSERT_NE(nullptr, x);
  EXPECT_EQ("hello!!!", Text(x));
  x->Release();
  top->Release();
  ASSERT_NE(nullptr, Reopen());
  top = storage->OpenStream("Top", kModeReadShared);
  x = top->OpenStream("x", kModeReadShared);
  EXPECT_EQ("hello!!!", Text(x));
  x->Release();
  top->Release();
}

TEST_P(PreloadTest, SecondPreloadKeepsTheMap) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  Child(top, "a");
  top->PreloadChildren();
  kyStream* other = storage->OpenStream("Top", kModeReadWriteShared);
  Child(other, "b");
  top->PreloadChildren();
  EXPECT_EQ(1, kyTestAccess::PreloadMap(top)->GetCount());
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_FALSE(top->FindStream("b", h, o));
  other->Release();
  top->Release();
}

TEST_P(PreloadTest, RemoveAndRenameKeepTheMapTrue) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  for (const char* n : {"a", "b", "c", "d"}) Child(top, n, 0, n);
  top->PreloadChildren();
  t_kyStreamU h;
  tag_kyStreamOffset o;

  // Through this object.
  ASSERT_TRUE(top->OpenStream("a", kModeReadWriteShared)->Remove());
  kyStream* b = top->OpenStream("b", kModeReadWriteShared);
  ASSERT_TRUE(b->Rename("bee"));
  b->Release();
  EXPECT_FALSE(top->FindStream("a", h, o));
  EXPECT_FALSE(top->FindStream("b", h, o));
  ASSERT_TRUE(top->FindStream("bee", h, o));
  top->EnableSorting(1, 0);
  EXPECT_EQ((Names{"bee", "c", "d"}), OffsetWalk(top));

  // Through another object of the folder: the slot tells.
  kyStream* other = storage->OpenStream("Top", kModeReadWriteShared);
  ASSERT_TRUE(other->OpenStream("c", kModeReadWriteShared)->Remove());
  EXPECT_EQ(nullptr, top->OpenStream("c", kModeReadShared));
  EXPECT_EQ((Names{"bee", "d"}), OpenWalk(top));
  kyStream* d = other->OpenStream("d", kModeReadWriteShared);
  ASSERT_TRUE(d->Rename("dee"));
  d->Release();
  // The map still holds "d" with its slot; the slot no longer says "d".
  void* cursor = nullptr;
  t_kyStreamWithOffset v;
  CString name;
  ASSERT_EQ(1, top->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name));
  ASSERT_EQ(1, top->GetPreloadChildrenOffsetNext(&cursor, 0, v, name));
  ASSERT_STREQ("d", name);
  tag_kyStreamOffset vo;  // the value is packed
  memcpy(&vo, &v.offset, sizeof(vo));
  EXPECT_EQ(nullptr, top->OpenPreloadChildrenByOffset(v.hdr, vo, "d", kModeReadShared));
  EXPECT_FALSE(top->FindStream("d", h, o));
  kyStream* dee = top->OpenPreloadChildrenByOffset(v.hdr, vo, "dee", kModeReadShared);
  ASSERT_NE(nullptr, dee);
  EXPECT_EQ("d", Text(dee));
  dee->Release();
  other->Release();
  top->Release();
}

TEST_P(PreloadTest, RemovingDuringAWalkKeepsTheWalkGoing) {
  ASSERT_NE(nullptr, Create());
  for (int sorted = 0; sorted < 2; ++sorted) {
    SCOPED_TRACE(sorted);
    kyStream* top = Root(sorted ? "Sorted" : "Hashed");
    for (const char* n : {"w", "x", "y", "z"}) Child(top, n);
    top->PreloadChildren();
    top->EnableSorting(sorted, 0);
    int removed = 0;
    void* cursor = nullptr;
    for (kyStream* c = top->OpenPreloadChildrenFirst(&cursor, kModeReadWriteShared); c != nullptr;
         c = top->OpenPreloadChildrenNext(&cursor, kModeReadWriteShared))
      removed += c->Remove() ? 1 : 0;
    EXPECT_EQ(4, removed);
    EXPECT_TRUE(OffsetWalk(top).empty());
    CStringArray left;
    top->EnumStreams(left);
    EXPECT_EQ(0, left.GetSize());
    top->Release();
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, PreloadTest, ::testing::Bool());

}  // namespace
