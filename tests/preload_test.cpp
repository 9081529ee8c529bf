// A folder's children preloaded into a map: what the map holds, walks in
// hash and name order, and the map staying true while children are
// created, written, removed and renamed.

#include <string>
#include <vector>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;
using kytest::Hold;

class PreloadTest : public FolderTest {
 protected:
  // The names an open walk hands out (children are released again).
  template <class P>
  static std::vector<std::string> OpenWalk(const P& folder) {
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
  template <class P>
  static std::vector<std::string> OffsetWalk(const P& folder) {
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
  {
    auto top = Hold(Root("Top"));
    Child(top, "a", 0x00020000);
    Child(top, "gone");
    Child(top, "b", 1);
    Child(top, "c");
    ASSERT_TRUE(top->OpenStream("gone", kModeReadWriteShared)->Remove());
  }
  ASSERT_NE(nullptr, Reopen());
  auto plain = Open("Top");
  auto top = Open("Top");
  top->PreloadChildren();
  ASSERT_NE(nullptr, kyTestAccess::PreloadMap(top.get()));
  EXPECT_EQ(3, kyTestAccess::PreloadMap(top.get())->GetCount());
  EXPECT_EQ(0u, top->GetNumChildren());  // the preload leaves the cached count alone
  void* cursor = nullptr;
  t_kyStreamWithOffset v;
  CString name;
  int seen = 0;
  for (int more = top->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name); more;
       more = top->GetPreloadChildrenOffsetNext(&cursor, 0, v, name), ++seen) {
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
  EXPECT_EQ(0, top->GetPreloadChildrenOffsetNext(&cursor, 0, v, name));
  EXPECT_TRUE(name.IsEmpty());
}

TEST_P(PreloadTest, WalksInHashAndNameOrder) {
  auto top = Hold(Root("Top"));
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
}

TEST_P(PreloadTest, NoMapOrEmptyMapGiveNothing) {
  auto top = Hold(Root("Top"));
  void* cursor = nullptr;
  t_kyStreamWithOffset v;
  memset(&v, 0x5A, sizeof(v));
  CString name = "stale";
  EXPECT_EQ(0, top->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name));
  EXPECT_EQ(Bytes(sizeof(v), 0),
            Bytes(reinterpret_cast<BYTE*>(&v), reinterpret_cast<BYTE*>(&v + 1)));
  EXPECT_TRUE(name.IsEmpty());
  for (int step = 0; step < 3; ++step) {
    if (step == 1) top->PreloadChildren();
    if (step == 2) top->EnableSorting(1, 0);
    EXPECT_EQ(nullptr, top->OpenPreloadChildrenFirst(&cursor, kModeReadShared)) << step;
  }
  EXPECT_EQ(0, kyTestAccess::PreloadMap(top.get())->GetCount());
  // A folder whose data end before the count has no map at all.
  auto shortData = Hold(Root("Short", 0));
  ASSERT_EQ(2, shortData->Write("ab", 2));
  kyTestAccess::Header(shortData.get()).Flags() = kFolderFlag;
  shortData->PreloadChildren();
  EXPECT_EQ(nullptr, kyTestAccess::PreloadMap(shortData.get()));
}

// The map's copy of a child's header is older than the child's writes; an
// open through the map must still reach the child's data and keep its chain.
// A second preload keeps the map it has.
TEST_P(PreloadTest, OpensThroughTheMapSeeTheChildAsWritten) {
  {
    auto top = Hold(Root("Top"));
    top->PreloadChildren();
    int64_t chain = 0;
    {
      auto x = Hold(top->CreateStream("x", 0, kModeReadWriteShared, 0));
      ASSERT_EQ(5, x->Write("hello", 5));
      chain = FirstBlock(x);
    }
    auto x = OpenIn(top, "x", kModeReadWriteShared);
    EXPECT_EQ(chain, FirstBlock(x));
    EXPECT_EQ("hello", Text(x));
    ASSERT_EQ(0, x->Seek(0, 1));
    ASSERT_EQ(3, x->Write("!!!", 3));
    x.reset();
    void* cursor = nullptr;
    EXPECT_EQ("hello!!!", Text(Hold(top->OpenPreloadChildrenFirst(&cursor, kModeReadShared))));
    Child(Open("Top", kModeReadWriteShared), "y");
    top->PreloadChildren();
    EXPECT_EQ(1, kyTestAccess::PreloadMap(top.get())->GetCount());
    EXPECT_FALSE(Finds(top, "y"));
  }
  ASSERT_NE(nullptr, Reopen());
  EXPECT_EQ("hello!!!", Text(OpenIn(Open("Top"), "x")));
}

TEST_P(PreloadTest, RemoveAndRenameKeepTheMapTrue) {
  auto top = Hold(Root("Top"));
  for (const char* n : {"a", "b", "c", "d"}) Child(top, n, 0, n);
  top->PreloadChildren();
  // Through this object.
  ASSERT_TRUE(top->OpenStream("a", kModeReadWriteShared)->Remove());
  ASSERT_TRUE(OpenIn(top, "b", kModeReadWriteShared)->Rename("bee"));
  EXPECT_FALSE(Finds(top, "a"));
  EXPECT_FALSE(Finds(top, "b"));
  ASSERT_TRUE(Finds(top, "bee"));
  top->EnableSorting(1, 0);
  EXPECT_EQ((Names{"bee", "c", "d"}), OffsetWalk(top));

  // Through another object of the folder: the slot tells.
  auto other = Open("Top", kModeReadWriteShared);
  ASSERT_TRUE(other->OpenStream("c", kModeReadWriteShared)->Remove());
  EXPECT_EQ(nullptr, top->OpenStream("c", kModeReadShared));
  EXPECT_EQ((Names{"bee", "d"}), OpenWalk(top));
  ASSERT_TRUE(OpenIn(other, "d", kModeReadWriteShared)->Rename("dee"));
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
  EXPECT_FALSE(Finds(top, "d"));
  EXPECT_EQ("d", Text(Hold(top->OpenPreloadChildrenByOffset(v.hdr, vo, "dee", kModeReadShared))));
}

TEST_P(PreloadTest, RemovingDuringAWalkKeepsTheWalkGoing) {
  for (int sorted = 0; sorted < 2; ++sorted) {
    SCOPED_TRACE(sorted);
    auto top = Hold(Root(sorted ? "Sorted" : "Hashed"));
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
    EXPECT_TRUE(ChildNames(top).empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, PreloadTest, ::testing::Bool());

}  // namespace
