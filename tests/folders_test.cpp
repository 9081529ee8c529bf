// Folders: child slots on disk, reuse, refusals, lookups, preloaded maps, damage.

#include <functional>
#include <string>

#include "support/folder_fixture.h"

namespace {

using namespace kytest;

class Folders : public FolderTest {
 protected:
  // The names a walk over the preloaded map hands out, opening each child or not.
  static Names MapWalk(kyStream* folder, bool open) {
    Names out;
    void* cursor = nullptr;
    t_kyStreamWithOffset v;
    CString name;
    for (kyStream* c = open ? folder->OpenPreloadChildrenFirst(&cursor, RO) : nullptr; c != nullptr;
         c = folder->OpenPreloadChildrenNext(&cursor, RO))
      out.push_back(Hold(c)->GetName());
    for (int more = open ? 0 : folder->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name); more;
         more = folder->GetPreloadChildrenOffsetNext(&cursor, 0, v, name))
      out.push_back(name.GetString());
    return out;
  }
  // Top with children a, b, c, each slot after the first in a block of its
  // own; closed.  Returns the slots; `topBlock` is Top's first block.
  std::vector<int64_t> BuildTop() {
    std::vector<int64_t> slots;
    auto top = Hold(Root("Top"));
    for (const char* n : {"a", "b", "c"}) {
      Child(top, n, 0, n);
      slots.push_back(HeaderOffset(OpenIn(top, n).get()));
    }
    topBlock = FirstBlock(top.get());
    top.reset();
    Close();
    return slots;
  }
  int64_t topBlock = 0;
};

// The count, then one slot per child (duration from the type's high word).
TEST_P(Folders, FolderDataHoldsCountAndSlotsAcrossReopen) {
  {
    auto top = Hold(Root("Top"));
    Child(top, "a");
    Child(top, "sub", 0x00050001);  // folder, 5 minutes
    EXPECT_EQ(2u, top->GetNumChildren());
    t_kyStreamU h;
    tag_kyStreamOffset o = {};
    ASSERT_TRUE(Hold(Root("Other"))->AddStreamHeader("f", 0x00050001, h, o, 1));
    EXPECT_EQ(300u, o.dwDuration);
  }
  for (int pass = 0; pass < 2; ++pass, Reopen()) {
    auto t = Open("Top");
    auto sub = OpenIn(t, "sub");
    ASSERT_NE(nullptr, sub);
    EXPECT_EQ(Bytes(4, 0), DataOf(sub));  // a new folder holds the count 0
    const int64_t b = FirstBlock(sub.get());
    const Bytes slots = Concat(ChildSlot("a", 0, 0, 0, 0, 0), ChildSlot("sub", 5, 1, 4, b, b));
    EXPECT_EQ(Concat({2, 0, 0, 0}, slots), DataOf(t));
  }
}

// A data stream in a freed slot takes the old chain; a folder starts its own.
TEST_P(Folders, FreedSlotsAreReused) {
  auto top = Hold(Root("Top"));
  Child(top, "A", 0, std::string(200, 'x'));
  Child(top, "B", 0, "bbbbbbbb");
  Child(top, "Z", 0, "z");
  kyStream* a = top->OpenStream("A", RW);
  ASSERT_EQ(0, a->Seek(0, 1));  // A's chain: two blocks
  ASSERT_EQ(100, a->Write(std::string(100, 'y').data(), 100));
  kyStream* b = top->OpenStream("B", RW);
  const t_kyStreamU bHeader = kyTestAccess::Header(b);
  ASSERT_TRUE(b->Remove());
  Child(top, "D");
  ASSERT_TRUE(a->Remove());
  Child(top, "F", 1);
  Child(OpenIn(top, "F", RW), "x", 0, "1");
  Child(OpenIn(top, "F", RW), "y", 0, "2");
  top.reset();
  Reopen();
  top = Open("Top");
  const Bytes data = DataOf(top);
  EXPECT_EQ(3u, Get32(data, 0));
  EXPECT_EQ(ChildSlot("D", 0, 0, 0, bHeader.LastBlock(B64()), bHeader.FirstBlock(B64())),
            Bytes(data.begin() + 4 + W(), data.begin() + 4 + 2 * W()));
  auto f = OpenIn(top, "F");
  Bytes all(4096, 0);
  EXPECT_EQ(4 + 2 * W(), f->Read(all.data(), 4096));
  EXPECT_EQ((Names{"x", "y"}), ChildNames(f));
}

// Refused untouched: taken names, a child held exclusively, flags other than 1.
TEST_P(Folders, CreationRefusesBadNamesHeldChildrenAndNonFolders) {
  auto top = Hold(Root("Top"));
  const std::string sixty(60, 'n'), longer(61, 'n');
  Child(top, sixty.c_str());
  const Bytes before = ReadAll(path);
  for (const char* bad : {longer.c_str(), "", static_cast<const char*>(nullptr), sixty.c_str()})
    EXPECT_EQ(nullptr, top->CreateStream(bad, 0, RW, 1));
  top->PreloadChildren();
  auto held = OpenIn(top, sixty.c_str(), 0x36);
  EXPECT_EQ(nullptr, top->OpenOrCreateStream(sixty.c_str(), 0, RW));
  EXPECT_EQ(nullptr, top->OpenOrCreateStream(sixty.c_str(), 0));
  EXPECT_EQ(before, ReadAll(path));
  held.reset();
  EXPECT_NE(nullptr, Hold(top->OpenOrCreateStream(sixty.c_str(), 0, RW)));
  EXPECT_TRUE(Hold(top->OpenOrCreateStream("New", 1))->IsFolder());
  auto data = Hold(Root("Data", 0x100));  // bits 8 to 15 make no folder
  EXPECT_EQ(nullptr, data->CreateStream("x", 0, RW, 1));
  kyTestAccess::Header(top.get()).Flags() = 3;  // folder bit with the size-prefix mark
  EXPECT_EQ(nullptr, top->CreateStream("x", 0, RW, 1));
}

// "" finds a free slot, opens nothing; walks end at a child they may not open.
TEST_P(Folders, EmptyNameAndWalksStoppedByAHeldChild) {
  {
    auto top = Hold(Root("Top"));
    for (const char* n : {"abc", "b", "Abc", "X"}) Child(top, n);
    ASSERT_TRUE(top->OpenStream("b", RW)->Remove());
  }
  Reopen();
  auto top = Open("Top");
  t_kyStreamU h;
  tag_kyStreamOffset o;
  ASSERT_TRUE(top->FindStream("", h, o));
  EXPECT_TRUE(h.IsFree() && h.Magic() == kStreamHeaderMagic);
  EXPECT_EQ(FirstBlock(top.get()) + H() + 4 + W(), o.headerOffset);
  EXPECT_EQ(nullptr, top->OpenStream("", RW));
  __int64 cursor = -7;
  EXPECT_STREQ("abc", Hold(Must(top->OpenStreamFirst(&cursor, RO)))->GetName());
  EXPECT_EQ(4 + W(), cursor);
  EXPECT_STREQ("Abc", Hold(Must(top->OpenStreamNext(&cursor, RO)))->GetName());
  EXPECT_EQ(4 + 3 * W(), cursor);
  auto exclusive = OpenIn(top, "X", 0x36);
  EXPECT_EQ(nullptr, top->OpenStreamNext(&cursor, RO));
  CStringArray names;
  names.Add("x");
  top->EnumStreams(names);
  EXPECT_EQ(3, names.GetSize());  // appends, up to the child it may not open
}

// GoNext takes over the new name's record; a folder with a child open stays.
TEST_P(Folders, GoNextFollowsTheRootDirectory) {
  for (int i = 0; i < 59; ++i) Root(("r" + std::to_string(i)).c_str(), i == 0)->Release();
  Reopen();
  kyStream* s = Must(storage->OpenStream("r57", RO));
  kyStream* other = storage->OpenStream("r58", RO);
  ASSERT_TRUE(s->GoNext());
  EXPECT_STREQ("r58", s->GetName());
  const tag_kyStreamOffset& now = kyTestAccess::Offset(s);
  EXPECT_EQ(now.blockOffset + (B64() ? 16 : 12), now.headerOffset);
  EXPECT_EQ(64u, now.dwBlockSlots);
  EXPECT_TRUE(!kyTestAccess::IsStreamOpen(storage, "r57") &&
              kyTestAccess::Registry(storage).GetCount() == 1);
  EXPECT_EQ(2, s->Release());
  EXPECT_EQ(1, other->Release());
  auto f = Open("r0", RW);
  Child(f, "c");
  kyStream* c = f->OpenStream("c", RO);
  EXPECT_FALSE(f->GoNext());
  c->Release();
  f->PreloadChildren();
  ASSERT_TRUE(f->GoNext());
  EXPECT_STREQ("r1", f->GetName());
  EXPECT_TRUE(!kyTestAccess::PreloadMap(f.get()) && !f->IsFolder());
}

// The map holds the used children and walks them in hash or name order.
TEST_P(Folders, PreloadedMapHoldsUsedChildrenInHashOrNameOrder) {
  auto top = Hold(Root("Top"));
  for (const char* n : {"b", "gone", "a", "C"}) Child(top, n);
  ASSERT_TRUE(top->OpenStream("gone", RW)->Remove());
  top->PreloadChildren();
  const struct {
    int sort, order;
    Names names;
  } cases[] = {{0, 0, {"a", "b", "C"}},  // framework hash buckets: "a" 12, "b" 13, "C" 16
               {1, 0, {"C", "a", "b"}},
               {1, 1, {"b", "a", "C"}}};
  for (const auto& c : cases) {
    top->EnableSorting(c.sort, c.order);
    EXPECT_EQ(c.names, MapWalk(top.get(), true));
    EXPECT_EQ(c.names, MapWalk(top.get(), false));
  }
  auto empty = Hold(Root("Empty"));
  empty->PreloadChildren();
  EXPECT_TRUE(MapWalk(empty.get(), true).empty() && MapWalk(empty.get(), false).empty());
}

// Through a preloaded map a creation appends a slot; an open through the
// map's older copy of a header reaches the data written since (a defect).
// A second preload keeps the map it has.
TEST_P(Folders, PreloadedMapAppendsAndOpensTheChildAsWritten) {
  {
    auto top = Hold(Root("Top"));
    Child(top, "A");
    Child(top, "B");
    ASSERT_TRUE(top->OpenStream("B", RW)->Remove());
    top->PreloadChildren();
    auto x = Hold(top->CreateStream("x", 0, RW, 0));
    ASSERT_EQ(5, x->Write("hello", 5));
    const int64_t chain = FirstBlock(x.get());
    EXPECT_EQ(FirstBlock(top.get()) + H() + 4 + 2 * W(), HeaderOffset(x.get()));  // not B's
    x = OpenIn(top, "x", RW);
    EXPECT_EQ(chain, FirstBlock(x.get()));
    ASSERT_EQ(0, x->Seek(0, 1));
    ASSERT_EQ(3, x->Write("!!!", 3));
    x.reset();
    EXPECT_EQ((Names{"x", "A"}), MapWalk(top.get(), true));
    void* cursor = nullptr;
    EXPECT_EQ("hello!!!", Text(Hold(top->OpenPreloadChildrenFirst(&cursor, RO))));
    Child(Open("Top", RW), "y");
    top->PreloadChildren();
    EXPECT_FALSE(Finds(top, "y"));
  }
  Reopen();
  auto top = Open("Top");
  EXPECT_EQ((Names{"A", "y", "x"}), ChildNames(top));
  EXPECT_EQ("hello!!!", Text(OpenIn(top, "x")));
}

// Another object's removals and renames never leave a stale name in the map.
TEST_P(Folders, RemoveAndRenameKeepThePreloadedMapTrue) {
  auto top = Hold(Root("Top"));
  for (const char* n : {"bee", "c", "d"}) Child(top, n, 0, n);
  top->PreloadChildren();
  top->EnableSorting(1, 0);
  auto other = Open("Top", RW);
  ASSERT_TRUE(other->OpenStream("c", RW)->Remove());
  EXPECT_EQ(nullptr, top->OpenStream("c", RO));
  EXPECT_EQ((Names{"bee", "d"}), MapWalk(top.get(), true));
  ASSERT_TRUE(OpenIn(other, "d", RW)->Rename("dee"));
  void* cursor = nullptr;
  t_kyStreamWithOffset v;
  CString name;
  ASSERT_EQ(1, top->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name));
  ASSERT_EQ(1, top->GetPreloadChildrenOffsetNext(&cursor, 0, v, name));
  ASSERT_STREQ("d", name);  // the map still has it; the slot no longer says "d"
  tag_kyStreamOffset vo;
  memcpy(&vo, &v.offset, sizeof(vo));
  EXPECT_EQ(nullptr, top->OpenPreloadChildrenByOffset(v.hdr, vo, "d", RO));
  EXPECT_FALSE(Finds(top, "d"));
  EXPECT_EQ("d", Text(Hold(top->OpenPreloadChildrenByOffset(v.hdr, vo, "dee", RO))));
  for (int sorted = 0; sorted < 2; ++sorted) {
    auto f = Hold(Root(sorted ? "Sorted" : "Hashed"));
    for (const char* n : {"w", "x", "y", "z"}) Child(f, n);
    f->PreloadChildren();
    f->EnableSorting(sorted, 0);
    int removed = 0;
    for (kyStream* c = f->OpenPreloadChildrenFirst(&cursor, RW); c != nullptr;
         c = f->OpenPreloadChildrenNext(&cursor, RW))
      removed += c->Remove() ? 1 : 0;
    EXPECT_EQ(4, removed) << sorted;
    EXPECT_TRUE(MapWalk(f.get(), false).empty() && ChildNames(f).empty());
  }
}

// Walks stop at the data's end; a creation appends there with the true count.
TEST_P(Folders, DamagedCountLargerThanTheData) {
  const int64_t count = BuildTop()[0] - 4;
  Patch(count, 1000, false);
  Reopen();
  {
    auto top = Open("Top", RW);
    EXPECT_TRUE(Finds(top, "c") && !Finds(top, "missing"));
    Child(top, "d");
    EXPECT_EQ(4u, Get32(DataOf(top), 0));
    EXPECT_EQ((Names{"a", "b", "c", "d"}), ChildNames(top));
  }
  Patch(count, 0xFFFFFFFFu, false);
  Reopen();
  auto top = Open("Top");
  __int64 cursor = 0;
  EXPECT_EQ(nullptr, top->OpenStreamFirst(&cursor, RO));
  EXPECT_FALSE(Finds(top, "missing"));
  top->PreloadChildren();
  EXPECT_EQ((Names{"a", "b", "c", "d"}), MapWalk(top.get(), false));
}

// A child folder over its parent's chain is not opened below itself.
TEST_P(Folders, DamagedChildSlots) {
  const std::vector<int64_t> slots = BuildTop();
  Bytes image = ReadAll(path);
  memset(&image[size_t(slots[0]) + 4], 'n', 61);
  image[size_t(slots[1]) + 67] = kFolderFlag;  // b becomes a folder over Top's chain
  PutOff(image, slots[1] + (B64() ? 84 : 76), topBlock);
  PutOff(image, slots[1] + (B64() ? 76 : 72), topBlock);
  WriteAll(path, image);
  Reopen();
  const std::string sixty(60, 'n');
  kyStream* top = storage->OpenStream("Top", RW);
  EXPECT_EQ((Names{sixty, "b", "c"}), ChildNames(top));
  {
    auto b = OpenIn(top, "b", RW);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(nullptr, b->OpenStream("b", RO));  // its own slot
    EXPECT_EQ(Names{sixty}, ChildNames(b));      // the walk ends at b
    EXPECT_EQ(sixty, OpenIn(b, sixty.c_str())->GetName());
  }
  top->PreloadChildren();
  EXPECT_TRUE(Finds(top, sixty.c_str()));
  ASSERT_NE(nullptr, Other(true));
  top->CopyFolder(Hold(other->CreateStream("D", 1, RW)).get());  // ends, whatever it reports
  EXPECT_TRUE(top->Remove());
  Reopen();
  EXPECT_EQ(nullptr, storage->OpenStream("Top", RO));
}

// The library's own reads leave the shared position where a reader left it.
TEST_P(Folders, OwnReadsDoNotMoveAReadingStream) {
  Hold(Root("S", 0))->Write("0123456789", 10);
  Child(Hold(Root("F")), "D", 0, "child data");
  const std::function<void(kyStream*)> steps[] = {
      [](kyStream* f) { EXPECT_TRUE(Finds(f, "D")); },
      [](kyStream* f) {
        void* cursor = nullptr;
        EXPECT_NE(nullptr, Hold(f->OpenPreloadChildrenFirst(&cursor, RO)));
      },
      [](kyStream* f) {
        void* cursor = nullptr;
        t_kyStreamWithOffset v;
        CString name;
        ASSERT_EQ(1, f->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name));
        tag_kyStreamOffset o;
        memcpy(&o, &v.offset, sizeof(o));
        EXPECT_NE(nullptr, Hold(f->OpenPreloadChildrenByOffset(v.hdr, o, name, RO)));
      }};
  for (int i = 0; i < 6; ++i) {
    SCOPED_TRACE(i);
    Reopen(RO, i / 3);  // from the file, then in memory
    auto s = Open("S");
    auto f = Open("F");
    f->PreloadChildren();
    char buf[4] = {};
    ASSERT_EQ(3, s->Read(buf, 3));
    steps[i % 3](f.get());
    ASSERT_EQ(3, s->Read(buf, 3));
    EXPECT_EQ("345", std::string(buf, 3));
  }
}

// A creation through a second object of a folder, opened before children
// were added through the first, neither moves nor cuts the folder's end.
TEST_P(Folders, SecondObjectKeepsWhatTheFirstAdded) {
  auto a = Hold(Root("F"));
  Child(a, "b");
  auto b = Open("F", RW);  // knows one slot
  for (const char* n : {"x", "y", "z"}) Child(a, n);
  for (const char* n : {"x", "y"}) ASSERT_TRUE(OpenIn(a, n, RW).release()->Remove());
  Child(b, "c");  // into x's slot
  a.reset();
  b.reset();
  auto f = Open("F");
  EXPECT_EQ(4 + 4 * W(), f->GetLength());
  EXPECT_EQ(Names({"b", "c", "z"}), ChildNames(f));
}

INSTANTIATE_TEST_SUITE_P(Widths, Folders, ::testing::Bool(), WidthName);

}  // namespace
