// Folders and their child slots: the bytes of a folder's data, reuse of
// free slots, what creation refuses, finding, opening and walking children
// (also through a preloaded map), and moving a root stream object along the
// root directory.

#include <string>

#include "support/folder_fixture.h"

namespace {

using namespace kytest;

class Folders : public FolderTest {
 protected:
  // The names a walk over the preloaded map hands out, opening each child
  // (released again) or not.
  template <class P>
  static Names MapWalk(const P& folder, bool open) {
    Names out;
    void* cursor = nullptr;
    t_kyStreamWithOffset v;
    CString name;
    for (kyStream* c = open ? folder->OpenPreloadChildrenFirst(&cursor, RO) : nullptr; c != nullptr;
         c = folder->OpenPreloadChildrenNext(&cursor, RO)) {
      out.push_back(c->GetName());
      c->Release();
    }
    if (open) return out;
    for (int more = folder->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name); more;
         more = folder->GetPreloadChildrenOffsetNext(&cursor, 0, v, name))
      out.push_back(name.GetString());
    return out;
  }
};

TEST_P(Folders, FolderDataHoldsCountAndSlotsAcrossReopen) {
  {
    auto top = Hold(Root("Top"));
    EXPECT_EQ(0u, top->GetNumChildren());  // not read yet
    Child(top, "a");
    Child(top, "sub", 0x00050001);  // folder, 5 minutes
    EXPECT_EQ(2u, top->GetNumChildren());
    t_kyStreamU h;
    tag_kyStreamOffset o = {};
    ASSERT_TRUE(Hold(Root("Other"))->AddStreamHeader("f", 0x00050001, h, o, 1));
    EXPECT_EQ(300u, o.dwDuration);  // the locator counts seconds
    EXPECT_EQ(5, h.Duration());
  }
  for (int pass = 0; pass < 2; ++pass, Reopen()) {
    ASSERT_NE(nullptr, storage);
    auto t = Open("Top");
    auto sub = OpenIn(t, "sub");
    ASSERT_NE(nullptr, sub);
    EXPECT_EQ(Bytes(4, 0), DataOf(sub));  // a new folder holds the count 0
    EXPECT_EQ(5, sub->GetDuration());
    const int64_t b = FirstBlock(sub);
    EXPECT_EQ(
        Concat(Bytes{2, 0, 0, 0}, Concat(Slot("a", 0, 0, 0, 0, 0), Slot("sub", 5, 1, 4, b, b))),
        DataOf(t));
  }
}

// A data stream in a freed slot takes the old chain; a folder starts a
// chain of its own, so that its slots are not mixed with the old bytes.
TEST_P(Folders, FreedSlotsAreReused) {
  auto top = Hold(Root("Top"));
  Child(top, "A", 0, std::string(200, 'x'));
  Child(top, "B", 0, "bbbbbbbb");
  Child(top, "Z", 0, "z");
  kyStream* a = top->OpenStream("A", RW);
  ASSERT_EQ(0, a->Seek(0, 1));  // A's chain: two blocks, the first with room left
  ASSERT_EQ(100, a->Write(std::string(100, 'y').data(), 100));
  const int64_t oldChain = FirstBlock(a);
  kyStream* b = top->OpenStream("B", RW);
  const t_kyStreamU bHeader = kyTestAccess::Header(b);
  ASSERT_TRUE(b->Remove());
  Child(top, "D");
  ASSERT_TRUE(a->Remove());
  auto f = Hold(top->CreateStream("F", 1, RW, 1));
  ASSERT_NE(nullptr, f);
  EXPECT_NE(oldChain, FirstBlock(f));
  Child(f, "x", 0, "1");
  Child(f, "y", 0, "2");
  f.reset();
  top.reset();
  ASSERT_NE(nullptr, Reopen());
  top = Open("Top");
  const Bytes data = DataOf(top);
  EXPECT_EQ(3u, Get32(data, 0));
  EXPECT_EQ(Slot("D", 0, 0, 0, bHeader.LastBlock(B64()), bHeader.FirstBlock(B64())),
            SlotIn(data, 1));
  f = OpenIn(top, "F");
  Bytes all(4096, 0);  // nothing of the old chain follows the last slot
  EXPECT_EQ(4 + 2 * W(), f->Read(all.data(), 4096));
  EXPECT_EQ((Names{"x", "y"}), ChildNames(f));
}

TEST_P(Folders, CreationRefusesBadNamesHeldChildrenAndNonFolders) {
  auto top = Hold(Root("Top"));
  const std::string sixty(60, 'n'), longer(61, 'n');
  Child(top, sixty.c_str());
  const Bytes before = ReadAll(path);
  for (const char* bad : {longer.c_str(), "", static_cast<const char*>(nullptr), sixty.c_str()})
    EXPECT_EQ(nullptr, top->CreateStream(bad, 0, RW, 1));
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_FALSE(top->AddStreamHeader("", 0, h, o, 1));
  // A child held exclusively is not made a second time.
  top->PreloadChildren();
  auto held = OpenIn(top, sixty.c_str(), 0x36);
  EXPECT_EQ(nullptr, top->OpenOrCreateStream(sixty.c_str(), 0, RW));
  EXPECT_EQ(nullptr, top->OpenOrCreateStream(sixty.c_str(), 0));
  EXPECT_EQ(before, ReadAll(path));
  held.reset();
  EXPECT_NE(nullptr, Hold(top->OpenOrCreateStream(sixty.c_str(), 0, RW)));
  EXPECT_TRUE(Hold(top->OpenOrCreateStream("New", 1))->IsFolder());
  EXPECT_EQ(2u, top->GetNumChildren());
  auto data = Hold(Root("Data", 0x100));  // bits 8 to 15 make no folder
  EXPECT_FALSE(data->IsFolder());
  EXPECT_EQ(nullptr, data->CreateStream("x", 0, RW, 1));
  kyTestAccess::Header(top.get()).Flags() = 3;  // folder bit with the size-prefix mark
  EXPECT_EQ(nullptr, top->CreateStream("x", 0, RW, 1));
}

// Lookups compare whole names, case and all; the empty name finds a free
// slot but opens nothing; walks skip free slots and leave the cursor past
// the slot they handed out.
TEST_P(Folders, LookupsMatchExactlyAndWalksSkipFreeSlots) {
  {
    auto top = Hold(Root("Top"));
    for (const char* n : {"abc", "Abcd", "b"}) Child(top, n);
    Child(top, "Abc", 1);
    ASSERT_TRUE(top->OpenStream("b", RW)->Remove());
  }
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top");
  t_kyStreamU h;
  tag_kyStreamOffset o;
  ASSERT_TRUE(top->FindStream("Abc", h, o));
  const int64_t slot0 = FirstBlock(top) + H() + 4;
  EXPECT_EQ(slot0 + 3 * W(), o.headerOffset);
  ASSERT_TRUE(top->FindStream("", h, o));
  EXPECT_EQ(kStreamHeaderMagic, h.Magic());
  EXPECT_TRUE(h.IsFree());
  EXPECT_EQ(slot0 + 2 * W(), o.headerOffset);
  EXPECT_EQ(nullptr, top->OpenStream("", RW));
  __int64 cursor = -7;
  auto step = [&](bool first) {
    auto c = Hold(first ? top->OpenStreamFirst(&cursor, RO) : top->OpenStreamNext(&cursor, RO));
    return c ? c->GetName() + std::string(c->IsFolder() ? "/" : "") : "-";
  };
  EXPECT_EQ("abc", step(true));
  EXPECT_EQ(4 + W(), cursor);
  EXPECT_EQ(4u, top->GetNumChildren());
  EXPECT_EQ("Abcd", step(false));
  EXPECT_EQ("Abc/", step(false));
  EXPECT_EQ(4 + 4 * W(), cursor);
  EXPECT_EQ("-", step(false));
  EXPECT_EQ(nullptr, top->OpenStreamFirst(nullptr, RO));
  EXPECT_EQ(nullptr, top->OpenStreamNext(nullptr, RO));
  CStringArray names;
  names.Add("x");
  top->EnumStreams(names);
  EXPECT_EQ(4, names.GetSize());  // appends
}

TEST_P(Folders, EmptyFolderAndDataStreamGiveNothing) {
  auto empty = Hold(Root("Empty"));
  __int64 cursor = 0;
  EXPECT_FALSE(Finds(empty, "x"));
  EXPECT_EQ(nullptr, empty->OpenStreamFirst(&cursor, RO));
  EXPECT_EQ(0u, empty->GetNumChildren());
  // Data that look exactly like a child table are still no children.
  auto data = Hold(Root("Data", 0));
  auto top = Hold(Root("Top"));
  Child(top, "x");
  const Bytes table = DataOf(top);
  ASSERT_EQ(int64_t(table.size()), data->Write(table.data(), table.size()));
  ASSERT_EQ(0, data->Seek(0, 0));
  const int64_t pos = kyTestAccess::BlockPos(data.get());
  cursor = 4;
  EXPECT_EQ(nullptr, data->OpenStreamFirst(&cursor, RO));
  EXPECT_EQ(nullptr, data->OpenStreamNext(&cursor, RO));
  EXPECT_EQ(nullptr, data->OpenStream("x", RO));
  EXPECT_EQ(pos, kyTestAccess::BlockPos(data.get()));  // nothing was read
  EXPECT_EQ(4, cursor);
}

TEST_P(Folders, OpensAreCountedInOneRecord) {
  auto top = Hold(Root("Top"));
  Child(top, "k");
  Child(top, "x", 1);
  kyStream* one = top->OpenStream("k", RW);
  kyStream* two = top->OpenStream("k", RO);
  ASSERT_NE(nullptr, two);
  EXPECT_NE(one, two);
  ASSERT_NE(nullptr, top->IsStreamOpen("k"));
  EXPECT_EQ(2, top->IsStreamOpen("k")->m_nCount);
  EXPECT_EQ(1, kyTestAccess::Children(top.get()).GetCount());
  kyStream* three = top->OpenStream("k", 0x36);  // admitted by the first mode
  ASSERT_NE(nullptr, three);
  EXPECT_EQ(3, three->Release());
  EXPECT_EQ(2, two->Release());
  EXPECT_EQ(1, one->Release());
  EXPECT_EQ(nullptr, top->IsStreamOpen("k"));
  auto exclusive = OpenIn(top, "x", 0x36);
  EXPECT_EQ(nullptr, top->OpenStream("x", RO));
  EXPECT_EQ((Names{"k"}), ChildNames(top));  // the walk ends at the child it may not open
}

// Roots fill slots 6 to 63 of the first directory block; the next goes to
// slot 0 of a second block.
TEST_P(Folders, GoNextFollowsTheRootDirectory) {
  for (int i = 0; i < 59; ++i) Root(("r" + std::to_string(i)).c_str(), i == 0)->Release();
  ASSERT_NE(nullptr, Reopen());
  kyStream* s = storage->OpenStream("r57", RO);
  ASSERT_NE(nullptr, s);
  const tag_kyStreamOffset first = kyTestAccess::Offset(s);
  kyStream* other = storage->OpenStream("r58", RO);
  ASSERT_TRUE(s->GoNext());
  EXPECT_STREQ("r58", s->GetName());
  const tag_kyStreamOffset& now = kyTestAccess::Offset(s);
  EXPECT_NE(first.blockOffset, now.blockOffset);
  EXPECT_EQ(now.blockOffset + (B64() ? 16 : 12), now.headerOffset);
  EXPECT_EQ(64u, now.dwBlockSlots);
  EXPECT_EQ(nullptr, kyTestAccess::IsStreamOpen(storage, "r57"));
  ASSERT_NE(nullptr, kyTestAccess::IsStreamOpen(storage, "r58"));
  EXPECT_EQ(2, kyTestAccess::IsStreamOpen(storage, "r58")->m_nCount);  // one record
  EXPECT_EQ(1, kyTestAccess::Registry(storage).GetCount());
  // Slot 1 of the second block is free: the walk ends and nothing changes.
  const t_kyStreamU before = kyTestAccess::Header(s);
  EXPECT_FALSE(s->GoNext());
  EXPECT_EQ(0, memcmp(&before, &kyTestAccess::Header(s), sizeof(before)));
  EXPECT_EQ(2, s->Release());
  EXPECT_EQ(1, other->Release());
  // A folder with a child open may not move: the child's parent must stay.
  auto f = Open("r0", RW);
  Child(f, "c");
  kyStream* c = f->OpenStream("c", RO);
  EXPECT_FALSE(f->GoNext());
  c->Release();
  f->PreloadChildren();
  ASSERT_TRUE(f->GoNext());
  EXPECT_STREQ("r1", f->GetName());
  EXPECT_EQ(nullptr, kyTestAccess::PreloadMap(f.get()));
  EXPECT_FALSE(f->IsFolder());
}

// --- preloaded children ------------------------------------------------------

TEST_P(Folders, PreloadedMapHoldsUsedChildrenWithTheirLocators) {
  {
    auto top = Hold(Root("Top"));
    Child(top, "a", 0x00020000);
    Child(top, "gone");
    Child(top, "b", 1);
    ASSERT_TRUE(top->OpenStream("gone", RW)->Remove());
  }
  ASSERT_NE(nullptr, Reopen());
  auto plain = Open("Top");
  auto top = Open("Top");
  top->PreloadChildren();
  EXPECT_EQ(0u, top->GetNumChildren());  // the preload leaves the cached count alone
  void* cursor = nullptr;
  t_kyStreamWithOffset v;
  CString name;
  Names seen;
  for (int more = top->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name); more;
       more = top->GetPreloadChildrenOffsetNext(&cursor, 0, v, name)) {
    seen.push_back(name.GetString());
    t_kyStreamU h;
    tag_kyStreamOffset o, vo;
    ASSERT_TRUE(plain->FindStream(name, h, o));
    memcpy(&vo, &v.offset, sizeof(vo));  // the value is packed
    EXPECT_EQ(o.headerOffset, vo.headerOffset);
    EXPECT_EQ(0, vo.blockOffset + vo.dwBlockSlots);
    EXPECT_EQ(name == "a" ? 120u : 0u, vo.dwDuration);
    EXPECT_EQ(0, memcmp(&h, &v.hdr, static_cast<size_t>(W())));
  }
  EXPECT_EQ((Names{"a", "b"}), seen);
  // At the end of the walk, and without a map or with an empty one: 0, the
  // value zeroed, the name emptied, nothing opened.
  auto empty = Hold(Root("Empty"));
  for (int step = 0; step < 4; ++step) {
    SCOPED_TRACE(step);
    memset(&v, 0x5A, sizeof(v));
    name = "stale";
    if (step == 2) empty->PreloadChildren();
    if (step == 3) empty->EnableSorting(1, 0);
    EXPECT_EQ(0, step == 0 ? top->GetPreloadChildrenOffsetNext(&cursor, 0, v, name)
                           : empty->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name));
    EXPECT_EQ(Bytes(sizeof(v), 0),
              Bytes(reinterpret_cast<BYTE*>(&v), reinterpret_cast<BYTE*>(&v + 1)));
    EXPECT_TRUE(name.IsEmpty());
    if (step > 0) {
      EXPECT_EQ(nullptr, empty->OpenPreloadChildrenFirst(&cursor, RO));
    }
  }
  // A folder whose data end before the count has no map at all.
  auto shortData = Hold(Root("Short", 0));
  ASSERT_EQ(2, shortData->Write("ab", 2));
  kyTestAccess::Header(shortData.get()).Flags() = kFolderFlag;
  shortData->PreloadChildren();
  EXPECT_EQ(nullptr, kyTestAccess::PreloadMap(shortData.get()));
}

TEST_P(Folders, PreloadedMapWalksInHashAndNameOrder) {
  auto top = Hold(Root("Top"));
  for (const char* n : {"b", "a", "C"}) Child(top, n);
  top->PreloadChildren();
  const struct {
    int sort, order;
    Names names;
  } cases[] = {{0, 0, {"a", "b", "C"}},  // framework hash buckets: "a" 12, "b" 13, "C" 16
               {1, 0, {"C", "a", "b"}},
               {1, 1, {"b", "a", "C"}}};
  for (const auto& c : cases) {
    top->EnableSorting(c.sort, c.order);
    EXPECT_EQ(c.names, MapWalk(top, true));
    EXPECT_EQ(c.names, MapWalk(top, false));
  }
}

// A creation through a preloaded map appends a slot without looking for a
// free one. The map's copy of a child's header is older than the child's
// writes; an open through the map must still reach the child's data and
// keep its chain. A second preload keeps the map it has.
TEST_P(Folders, PreloadedMapAppendsAndOpensTheChildAsWritten) {
  {
    auto top = Hold(Root("Top"));
    Child(top, "A");
    Child(top, "B");
    ASSERT_TRUE(top->OpenStream("B", RW)->Remove());
    top->PreloadChildren();
    int64_t chain = 0;
    {
      auto x = Hold(top->CreateStream("x", 0, RW, 0));
      ASSERT_EQ(5, x->Write("hello", 5));
      chain = FirstBlock(x);
      EXPECT_EQ(FirstBlock(top) + H() + 4 + 2 * W(), HeaderOffset(x));  // slot 2, not B's
    }
    EXPECT_EQ(3u, top->GetNumChildren());
    auto x = OpenIn(top, "x", RW);
    EXPECT_EQ(chain, FirstBlock(x));
    EXPECT_EQ("hello", Text(x));
    ASSERT_EQ(0, x->Seek(0, 1));
    ASSERT_EQ(3, x->Write("!!!", 3));
    x.reset();
    EXPECT_EQ((Names{"x", "A"}), MapWalk(top, true));
    void* cursor = nullptr;
    EXPECT_EQ("hello!!!", Text(Hold(top->OpenPreloadChildrenFirst(&cursor, RO))));
    Child(Open("Top", RW), "y");
    top->PreloadChildren();
    EXPECT_FALSE(Finds(top, "y"));
  }
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top");
  EXPECT_EQ((Names{"A", "y", "x"}), ChildNames(top));
  EXPECT_EQ("hello!!!", Text(OpenIn(top, "x")));
}

TEST_P(Folders, RemoveAndRenameKeepThePreloadedMapTrue) {
  auto top = Hold(Root("Top"));
  for (const char* n : {"a", "b", "c", "d"}) Child(top, n, 0, n);
  top->PreloadChildren();
  top->EnableSorting(1, 0);
  // Through this object.
  ASSERT_TRUE(top->OpenStream("a", RW)->Remove());
  ASSERT_TRUE(OpenIn(top, "b", RW)->Rename("bee"));
  EXPECT_FALSE(Finds(top, "a") || Finds(top, "b"));
  EXPECT_EQ((Names{"bee", "c", "d"}), MapWalk(top, false));
  // Through another object of the folder: the slot tells.
  auto other = Open("Top", RW);
  ASSERT_TRUE(other->OpenStream("c", RW)->Remove());
  EXPECT_EQ(nullptr, top->OpenStream("c", RO));
  EXPECT_EQ((Names{"bee", "d"}), MapWalk(top, true));
  ASSERT_TRUE(OpenIn(other, "d", RW)->Rename("dee"));
  // The map still holds "d" with its slot; the slot no longer says "d".
  void* cursor = nullptr;
  t_kyStreamWithOffset v;
  CString name;
  ASSERT_EQ(1, top->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name));
  ASSERT_EQ(1, top->GetPreloadChildrenOffsetNext(&cursor, 0, v, name));
  ASSERT_STREQ("d", name);
  tag_kyStreamOffset vo;  // the value is packed
  memcpy(&vo, &v.offset, sizeof(vo));
  EXPECT_EQ(nullptr, top->OpenPreloadChildrenByOffset(v.hdr, vo, "d", RO));
  EXPECT_FALSE(Finds(top, "d"));
  EXPECT_EQ("d", Text(Hold(top->OpenPreloadChildrenByOffset(v.hdr, vo, "dee", RO))));
}

TEST_P(Folders, RemovingDuringAPreloadedWalkKeepsTheWalkGoing) {
  for (int sorted = 0; sorted < 2; ++sorted) {
    auto top = Hold(Root(sorted ? "Sorted" : "Hashed"));
    for (const char* n : {"w", "x", "y", "z"}) Child(top, n);
    top->PreloadChildren();
    top->EnableSorting(sorted, 0);
    int removed = 0;
    void* cursor = nullptr;
    for (kyStream* c = top->OpenPreloadChildrenFirst(&cursor, RW); c != nullptr;
         c = top->OpenPreloadChildrenNext(&cursor, RW))
      removed += c->Remove() ? 1 : 0;
    EXPECT_EQ(4, removed) << sorted;
    EXPECT_TRUE(MapWalk(top, false).empty() && ChildNames(top).empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, Folders, ::testing::Bool(), WidthName);

}  // namespace
