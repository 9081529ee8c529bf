// Finding, opening and walking children, listing their names, and moving a
// root stream object along the root directory.

#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;

class ChildWalkTest : public FolderTest {
 protected:
  // Top with children a, b, c, the middle one removed: slots 0 and 2 used.
  kyStream* TopWithGap() {
    kyStream* top = Root("Top");
    Child(top, "a", 0, "1");
    Child(top, "b", 0, "22");
    Child(top, "c", 1);
    kyStream* b = top->OpenStream("b", kModeReadWriteShared);
    freeSlot = HeaderOffset(b);
    EXPECT_TRUE(b->Remove());
    return top;
  }
  int64_t freeSlot = 0;
  t_OpenStream* ChildRecord(kyStream* folder, const char* name) {
    return folder->IsStreamOpen(name);
  }
};

TEST_P(ChildWalkTest, LookupMatchesNamesExactly) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  Child(top, "abc");
  Child(top, "Abcd");
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_FALSE(top->FindStream("Abc", h, o));
  EXPECT_EQ(nullptr, top->OpenStream("Abc", kModeReadShared));
  Child(top, "Abc");
  top->Release();
  ASSERT_NE(nullptr, Reopen());
  top = storage->OpenStream("Top", kModeReadShared);
  ASSERT_TRUE(top->FindStream("Abc", h, o));
  EXPECT_EQ(FirstBlock(top) + H() + 4 + 2 * W(), o.headerOffset);
  kyStream* abc = top->OpenStream("abc", kModeReadShared);
  ASSERT_NE(nullptr, abc);
  EXPECT_STREQ("abc", abc->GetName());
  abc->Release();
  top->Release();
}

TEST_P(ChildWalkTest, EmptyNameFindsAFreeSlotButOpensNothing) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = TopWithGap();
  t_kyStreamU h;
  tag_kyStreamOffset o;
  ASSERT_TRUE(top->FindStream("", h, o));
  EXPECT_EQ(kStreamHeaderMagic, h.Magic());
  EXPECT_TRUE(h.IsFree());
  EXPECT_EQ(freeSlot, o.headerOffset);
  EXPECT_EQ(nullptr, top->OpenStream("", kModeReadWriteShared));
  top->Release();
}

TEST_P(ChildWalkTest, FirstAndNextSkipFreeSlotsWithTheirCursor) {
  ASSERT_NE(nullptr, Create());
  TopWithGap()->Release();
  ASSERT_NE(nullptr, Reopen());
  kyStream* top = storage->OpenStream("Top", kModeReadShared);
  int64_t cursor = -7;
  kyStream* first = top->OpenStreamFirst(&cursor, kModeReadShared);
  ASSERT_NE(nullptr, first);
  EXPECT_STREQ("a", first->GetName());
  EXPECT_EQ(4 + W(), cursor);
  EXPECT_EQ(3u, top->GetNumChildren());
  EXPECT_EQ("1", Text(first));
  kyStream* next = top->OpenStreamNext(&cursor, kModeReadShared);
  ASSERT_NE(nullptr, next);
  EXPECT_STREQ("c", next->GetName());
  EXPECT_EQ(4 + 3 * W(), cursor);
  EXPECT_TRUE(next->IsFolder());
  EXPECT_EQ(nullptr, top->OpenStreamNext(&cursor, kModeReadShared));
  EXPECT_EQ(nullptr, top->OpenStreamFirst(nullptr, kModeReadShared));
  EXPECT_EQ(nullptr, top->OpenStreamNext(nullptr, kModeReadShared));
  next->Release();
  first->Release();
  top->Release();
}

TEST_P(ChildWalkTest, EmptyFolderAndDataStreamGiveNothing) {
  ASSERT_NE(nullptr, Create());
  kyStream* empty = Root("Empty");
  t_kyStreamU h;
  tag_kyStreamOffset o;
  int64_t cursor = 0;
  EXPECT_FALSE(empty->FindStream("x", h, o));
  EXPECT_EQ(nullptr, empty->OpenStreamFirst(&cursor, kModeReadShared));
  EXPECT_EQ(0u, empty->GetNumChildren());

  // Data that look exactly like a child table are still no children.
  kyStream* data = Root("Data", 0);
  kyStream* top = Root("Top");
  Child(top, "x");
  const Bytes table = DataOf(top);
  ASSERT_EQ(static_cast<int64_t>(table.size()), data->Write(table.data(), table.size()));
  ASSERT_EQ(0, data->Seek(0, 0));
  const int64_t pos = kyTestAccess::BlockPos(data);
  cursor = 4;
  EXPECT_EQ(nullptr, data->OpenStreamFirst(&cursor, kModeReadShared));
  EXPECT_EQ(nullptr, data->OpenStreamNext(&cursor, kModeReadShared));
  EXPECT_EQ(nullptr, data->OpenStream("x", kModeReadShared));
  EXPECT_EQ(pos, kyTestAccess::BlockPos(data));  // nothing was read
  EXPECT_EQ(4, cursor);
  data->Release();
  top->Release();
  empty->Release();
}

TEST_P(ChildWalkTest, OpensAreCountedAndAdmittedByTheFirstMode) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  Child(top, "k");
  Child(top, "x");
  kyStream* one = top->OpenStream("k", kModeReadWriteShared);
  kyStream* two = top->OpenStream("k", kModeReadShared);
  ASSERT_NE(nullptr, one);
  ASSERT_NE(nullptr, two);
  EXPECT_NE(one, two);
  ASSERT_NE(nullptr, ChildRecord(top, "k"));
  EXPECT_EQ(2, ChildRecord(top, "k")->m_nCount);
  EXPECT_EQ(1, kyTestAccess::Children(top).GetCount());
  kyStream* three = top->OpenStream("k", 0x36);
  ASSERT_NE(nullptr, three);
  EXPECT_EQ(3, three->Release());
  EXPECT_EQ(2, two->Release());
  EXPECT_EQ(1, one->Release());
  EXPECT_EQ(nullptr, ChildRecord(top, "k"));

  kyStream* exclusive = top->OpenStream("x", 0x36);
  ASSERT_NE(nullptr, exclusive);
  EXPECT_EQ(nullptr, top->OpenStream("x", kModeReadShared));
  exclusive->Release();
  top->Release();
}

TEST_P(ChildWalkTest, EnumStreamsAppendsInSlotOrder) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  Child(top, "one");
  Child(top, "two", 1);
  CStringArray names;
  names.Add("x");
  names.Add("y");
  top->EnumStreams(names);
  ASSERT_EQ(4, names.GetSize());
  EXPECT_STREQ("one", names[2]);
  EXPECT_STREQ("two", names[3]);

  kyStream* held = top->OpenStream("two", 0x36);
  CStringArray some;
  some.Add("x");
  some.Add("y");
  top->EnumStreams(some);
  EXPECT_EQ(3, some.GetSize());  // the walk ends at the child it may not open
  held->Release();
  top->Release();
}

// Roots fill slots 6 to 63 of the first directory block; the next goes to
// slot 0 of a second block.
TEST_P(ChildWalkTest, GoNextFollowsTheRootDirectoryAcrossBlocks) {
  ASSERT_NE(nullptr, Create());
  for (int i = 0; i < 59; ++i) Root(("r" + std::to_string(i)).c_str(), 0)->Release();
  ASSERT_NE(nullptr, Reopen());
  kyStream* s = storage->OpenStream("r57", kModeReadShared);
  ASSERT_NE(nullptr, s);
  const tag_kyStreamOffset first = kyTestAccess::Offset(s);
  kyStream* other = storage->OpenStream("r58", kModeReadShared);
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
  EXPECT_STREQ("r58", s->GetName());
  EXPECT_EQ(0, memcmp(&before, &kyTestAccess::Header(s), sizeof(before)));
  EXPECT_EQ(2, s->Release());
  EXPECT_EQ(1, other->Release());
}

TEST_P(ChildWalkTest, GoNextWithinABlockAndNotWithChildrenOpen) {
  ASSERT_NE(nullptr, Create());
  Root("F")->Release();
  Root("G", 0)->Release();
  kyStream* f = storage->OpenStream("F", kModeReadWriteShared);
  Child(f, "c");
  kyStream* c = f->OpenStream("c", kModeReadShared);
  EXPECT_FALSE(f->GoNext());  // c's parent must stay what it is
  c->Release();
  f->PreloadChildren();
  ASSERT_TRUE(f->GoNext());
  EXPECT_STREQ("G", f->GetName());
  EXPECT_EQ(nullptr, kyTestAccess::PreloadMap(f));
  EXPECT_FALSE(f->IsFolder());
  f->Release();
}

INSTANTIATE_TEST_SUITE_P(Widths, ChildWalkTest, ::testing::Bool());

}  // namespace
