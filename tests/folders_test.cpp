// Folders and their child slots: the bytes of a folder's data after
// creations, reuse of free slots, what creation refuses; finding, opening
// and walking children, and moving a root stream object along the root
// directory.

#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;
using kytest::Hold;
typedef std::vector<std::string> Names;

TEST_P(FolderTest, FolderDataHoldsCountAndSlotsAcrossReopen) {
  {
    auto top = Hold(Root("Top"));
    EXPECT_EQ(0u, top->GetNumChildren());  // not read yet
    Child(top, "a");
    Child(top, "sub", 0x00050001);  // folder, 5 minutes
    EXPECT_EQ(2u, top->GetNumChildren());
    auto other = Hold(Root("Other"));
    t_kyStreamU h;
    tag_kyStreamOffset o = {};
    ASSERT_TRUE(other->AddStreamHeader("f", 0x00050001, h, o, 1));
    EXPECT_EQ(300u, o.dwDuration);  // the locator counts seconds
    EXPECT_EQ(5, h.Duration());
  }
  for (int pass = 0; pass < 2; ++pass) {
    SCOPED_TRACE(pass);
    auto t = Open("Top");
    auto sub = OpenIn(t, "sub");
    ASSERT_NE(nullptr, sub);
    EXPECT_EQ(Bytes(4, 0), DataOf(sub));  // a new folder holds the count 0
    const int64_t subBlock = FirstBlock(sub);
    EXPECT_EQ(5, sub->GetDuration());
    Bytes expected = Bytes{2, 0, 0, 0};
    for (const Bytes& slot : {Slot("a", 0, 0, 0, 0, 0), Slot("sub", 5, 1, 4, subBlock, subBlock)})
      expected.insert(expected.end(), slot.begin(), slot.end());
    EXPECT_EQ(expected, DataOf(t));
    sub.reset();
    t.reset();
    ASSERT_NE(nullptr, Reopen());
  }
}

// A data stream in a freed slot takes the old chain; a folder starts a
// chain of its own, so that its slots are not mixed with the old bytes.
TEST_P(FolderTest, FreedSlotsAreReused) {
  auto top = Hold(Root("Top"));
  Child(top, "A", 0, std::string(200, 'x'));
  Child(top, "B", 0, "bbbbbbbb");
  Child(top, "Z", 0, "z");
  kyStream* a = top->OpenStream("A", kModeReadWriteShared);
  ASSERT_EQ(0, a->Seek(0, 1));  // A's chain: two blocks, the first with room left
  ASSERT_EQ(100, a->Write(std::string(100, 'y').data(), 100));
  const int64_t oldChain = FirstBlock(a);
  kyStream* b = top->OpenStream("B", kModeReadWriteShared);
  const int64_t bSlot = HeaderOffset(b);
  const t_kyStreamU bHeader = kyTestAccess::Header(b);
  ASSERT_TRUE(b->Remove());
  auto d = Hold(top->CreateStream("D", 0, kModeReadWriteShared, 1));
  ASSERT_TRUE(a->Remove());
  auto f = Hold(top->CreateStream("F", 1, kModeReadWriteShared, 1));
  ASSERT_NE(nullptr, d);
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(bSlot, HeaderOffset(d));
  EXPECT_NE(oldChain, FirstBlock(f));
  EXPECT_EQ(3u, top->GetNumChildren());
  Child(f, "x", 0, "1");
  Child(f, "y", 0, "2");
  d.reset();
  f.reset();
  top.reset();

  ASSERT_NE(nullptr, Reopen());
  top = Open("Top");
  const Bytes data = DataOf(top);
  EXPECT_EQ(3u, kytest::Get32(data, 0));
  EXPECT_EQ(Slot("D", 0, 0, 0, bHeader.LastBlock(B64()), bHeader.FirstBlock(B64())),
            SlotIn(data, 1));
  f = OpenIn(top, "F");
  // Nothing of the old chain follows the last slot.
  EXPECT_EQ(4 + 2 * W(), f->GetLength());
  Bytes all(4096, 0);
  ASSERT_EQ(0, f->Seek(0, 0, true));
  EXPECT_EQ(4 + 2 * W(), f->Read(all.data(), 4096));
  EXPECT_EQ((Names{"x", "y"}), ChildNames(f));
}

TEST_P(FolderTest, PreloadedFolderAppendsWithoutScanning) {
  {
    auto top = Hold(Root("Top"));
    Child(top, "A");
    Child(top, "B");
    ASSERT_TRUE(top->OpenStream("B", kModeReadWriteShared)->Remove());
    top->PreloadChildren();
    auto d = Hold(top->CreateStream("D", 0, kModeReadWriteShared, 0));
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(3u, top->GetNumChildren());
    EXPECT_EQ(FirstBlock(top) + H() + 4 + 2 * W(), HeaderOffset(d));  // slot 2, not B's
    EXPECT_TRUE(Finds(top, "D"));
  }
  ASSERT_NE(nullptr, Reopen());
  const Bytes data = DataOf(Open("Top"));
  EXPECT_EQ(3u, kytest::Get32(data, 0));
  EXPECT_EQ('D', SlotIn(data, 2)[4]);
}

TEST_P(FolderTest, OpenOrCreateDoesNotDuplicateAHeldChild) {
  auto top = Hold(Root("Top"));
  Child(top, "A");
  top->PreloadChildren();
  auto held = OpenIn(top, "A", 0x36);  // exclusive
  ASSERT_NE(nullptr, held);
  EXPECT_EQ(nullptr, top->OpenOrCreateStream("A", 0, kModeReadWriteShared));
  EXPECT_EQ(nullptr, top->OpenOrCreateStream("A", 0));
  held.reset();
  EXPECT_NE(nullptr, Hold(top->OpenOrCreateStream("A", 0, kModeReadWriteShared)));
  EXPECT_TRUE(Hold(top->OpenOrCreateStream("New", 1))->IsFolder());
  EXPECT_EQ(2u, top->GetNumChildren());
}

TEST_P(FolderTest, CreationRefusesBadNamesAndNonFolders) {
  auto top = Hold(Root("Top"));
  const std::string sixty(60, 'n'), longer(61, 'n');
  Child(top, sixty.c_str());
  const Bytes before = kytest::ReadAll(path);
  for (const char* bad :
       {longer.c_str(), "", static_cast<const char*>(nullptr), sixty.c_str() /* exists */}) {
    EXPECT_EQ(nullptr, top->CreateStream(bad, 0, 0x16, 1));
  }
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_FALSE(top->AddStreamHeader("", 0, h, o, 1));
  EXPECT_EQ(before, kytest::ReadAll(path));
  auto data = Hold(Root("Data", 0x100));  // bits 8 to 15 make no folder
  EXPECT_FALSE(data->IsFolder());
  EXPECT_EQ(nullptr, data->CreateStream("x", 0, 0x16, 1));
  kyTestAccess::Header(top.get()).Flags() = 3;  // folder bit with the size-prefix mark
  EXPECT_EQ(nullptr, top->CreateStream("x", 0, 0x16, 1));
}

TEST_P(FolderTest, LookupsMatchNamesExactlyAndEmptyNameFindsAFreeSlot) {
  {
    auto top = Hold(Root("Top"));
    Child(top, "abc");
    Child(top, "Abcd");
    EXPECT_FALSE(Finds(top, "Abc"));
    EXPECT_EQ(nullptr, top->OpenStream("Abc", kModeReadShared));
    Child(top, "b");
    Child(top, "Abc");
    ASSERT_TRUE(top->OpenStream("b", kModeReadWriteShared)->Remove());
  }
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top");
  t_kyStreamU h;
  tag_kyStreamOffset o;
  ASSERT_TRUE(top->FindStream("Abc", h, o));
  const int64_t slot0 = FirstBlock(top) + H() + 4;
  EXPECT_EQ(slot0 + 3 * W(), o.headerOffset);
  EXPECT_STREQ("abc", OpenIn(top, "abc")->GetName());
  ASSERT_TRUE(top->FindStream("", h, o));
  EXPECT_EQ(kStreamHeaderMagic, h.Magic());
  EXPECT_TRUE(h.IsFree());
  EXPECT_EQ(slot0 + 2 * W(), o.headerOffset);
  EXPECT_EQ(nullptr, top->OpenStream("", kModeReadWriteShared));
}

TEST_P(FolderTest, FirstAndNextSkipFreeSlotsWithTheirCursor) {
  {
    auto top = Hold(Root("Top"));
    Child(top, "a", 0, "1");
    Child(top, "b", 0, "22");
    Child(top, "c", 1);
    ASSERT_TRUE(top->OpenStream("b", kModeReadWriteShared)->Remove());
  }
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top");
  long long cursor = -7;
  auto first = Hold(top->OpenStreamFirst(&cursor, kModeReadShared));
  ASSERT_NE(nullptr, first);
  EXPECT_STREQ("a", first->GetName());
  EXPECT_EQ(4 + W(), cursor);
  EXPECT_EQ(3u, top->GetNumChildren());
  EXPECT_EQ("1", Text(first));
  auto next = Hold(top->OpenStreamNext(&cursor, kModeReadShared));
  ASSERT_NE(nullptr, next);
  EXPECT_STREQ("c", next->GetName());
  EXPECT_EQ(4 + 3 * W(), cursor);
  EXPECT_TRUE(next->IsFolder());
  EXPECT_EQ(nullptr, top->OpenStreamNext(&cursor, kModeReadShared));
  EXPECT_EQ(nullptr, top->OpenStreamFirst(nullptr, kModeReadShared));
  EXPECT_EQ(nullptr, top->OpenStreamNext(nullptr, kModeReadShared));
}

TEST_P(FolderTest, EmptyFolderAndDataStreamGiveNothing) {
  auto empty = Hold(Root("Empty"));
  long long cursor = 0;
  EXPECT_FALSE(Finds(empty, "x"));
  EXPECT_EQ(nullptr, empty->OpenStreamFirst(&cursor, kModeReadShared));
  EXPECT_EQ(0u, empty->GetNumChildren());
  // Data that look exactly like a child table are still no children.
  auto data = Hold(Root("Data", 0));
  auto top = Hold(Root("Top"));
  Child(top, "x");
  const Bytes table = DataOf(top);
  ASSERT_EQ(static_cast<int64_t>(table.size()), data->Write(table.data(), table.size()));
  ASSERT_EQ(0, data->Seek(0, 0));
  const long long pos = kyTestAccess::BlockPos(data.get());
  cursor = 4;
  EXPECT_EQ(nullptr, data->OpenStreamFirst(&cursor, kModeReadShared));
  EXPECT_EQ(nullptr, data->OpenStreamNext(&cursor, kModeReadShared));
  EXPECT_EQ(nullptr, data->OpenStream("x", kModeReadShared));
  EXPECT_EQ(pos, kyTestAccess::BlockPos(data.get()));  // nothing was read
  EXPECT_EQ(4, cursor);
}

TEST_P(FolderTest, OpensAreCountedAndEnumStreamsAppends) {
  auto top = Hold(Root("Top"));
  Child(top, "k");
  Child(top, "x", 1);
  kyStream* one = top->OpenStream("k", kModeReadWriteShared);
  kyStream* two = top->OpenStream("k", kModeReadShared);
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

  CStringArray names;
  names.Add("x");
  names.Add("y");
  top->EnumStreams(names);
  ASSERT_EQ(4, names.GetSize());
  EXPECT_STREQ("k", names[2]);
  EXPECT_STREQ("x", names[3]);
  auto exclusive = OpenIn(top, "x", 0x36);
  EXPECT_EQ(nullptr, top->OpenStream("x", kModeReadShared));
  EXPECT_EQ((Names{"k"}), ChildNames(top));  // the walk ends at the child it may not open
}

// Roots fill slots 6 to 63 of the first directory block; the next goes to
// slot 0 of a second block.
TEST_P(FolderTest, GoNextFollowsTheRootDirectoryAcrossBlocks) {
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

TEST_P(FolderTest, GoNextWithinABlockAndNotWithChildrenOpen) {
  Root("F")->Release();
  Root("G", 0)->Release();
  auto f = Open("F", kModeReadWriteShared);
  Child(f, "c");
  kyStream* c = f->OpenStream("c", kModeReadShared);
  EXPECT_FALSE(f->GoNext());  // c's parent must stay what it is
  c->Release();
  f->PreloadChildren();
  ASSERT_TRUE(f->GoNext());
  EXPECT_STREQ("G", f->GetName());
  EXPECT_EQ(nullptr, kyTestAccess::PreloadMap(f.get()));
  EXPECT_FALSE(f->IsFolder());
}

INSTANTIATE_TEST_SUITE_P(Widths, FolderTest, ::testing::Bool());

}  // namespace
