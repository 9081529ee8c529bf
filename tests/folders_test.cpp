// Folders and their child slots: the bytes of a folder's data after
// creations, reuse of free slots, appending with a preloaded map, and what
// creation refuses.

#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;

TEST_P(FolderTest, FolderDataHoldsCountAndSlotsAcrossReopen) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  EXPECT_EQ(0u, top->GetNumChildren());  // not read yet
  Child(top, "a");
  Child(top, "sub", 0x00050001);  // folder, 5 minutes
  EXPECT_EQ(2u, top->GetNumChildren());
  top->Release();

  for (int pass = 0; pass < 2; ++pass) {
    SCOPED_TRACE(pass);
    kyStream* t = storage->OpenStream("Top", kModeReadShared);
    ASSERT_NE(nullptr, t);
    kyStream* sub = t->OpenStream("sub", kModeReadShared);
    ASSERT_NE(nullptr, sub);
    EXPECT_EQ(Bytes(4, 0), DataOf(sub));  // a new folder holds the count 0
    const int64_t subBlock = FirstBlock(sub);
    EXPECT_NE(0, subBlock);
    EXPECT_EQ(5, sub->GetDuration());

    Bytes expected(4, 0);
    kytest::Put32(expected, 0, 2);
    Bytes a = Slot("a", 0, 0, 0, 0, 0);
    Bytes s = Slot("sub", 5, 1, 4, subBlock, subBlock);
    expected.insert(expected.end(), a.begin(), a.end());
    expected.insert(expected.end(), s.begin(), s.end());
    EXPECT_EQ(expected, DataOf(t));
    sub->Release();
    t->Release();
    ASSERT_NE(nullptr, Reopen());
  }
}

TEST_P(FolderTest, FreedSlotIsReusedByDataStreamWithItsChain) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  Child(top, "A", 0, "aaaa");
  Child(top, "B", 0, "bbbbbbbb");
  Child(top, "C", 0, "cc");
  kyStream* b = top->OpenStream("B", kModeReadWriteShared);
  ASSERT_NE(nullptr, b);
  const int64_t bSlot = HeaderOffset(b);
  const t_kyStreamU bHeader = kyTestAccess::Header(b);
  ASSERT_TRUE(b->Remove());
  kyStream* d = top->CreateStream("D", 0, kModeReadWriteShared, 1);
  ASSERT_NE(nullptr, d);
  EXPECT_EQ(bSlot, HeaderOffset(d));
  EXPECT_EQ(3u, top->GetNumChildren());
  d->Release();
  top->Release();

  ASSERT_NE(nullptr, Reopen());
  top = storage->OpenStream("Top", kModeReadShared);
  Bytes data = DataOf(top);
  EXPECT_EQ(3u, kytest::Get32(data, 0));
  EXPECT_EQ(Slot("D", 0, 0, 0, bHeader.LastBlock(B64()), bHeader.FirstBlock(B64())),
            SlotIn(data, 1));
  top->Release();
}

// A folder in a freed slot starts a chain of its own, so that its slots
// are not mixed with the old stream's bytes.
TEST_P(FolderTest, FreedSlotIsReusedByFolderWithNewChain) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  // A's chain: two blocks, the first with room left.
  Child(top, "A", 0, std::string(200, 'x'));
  Child(top, "Z", 0, "z");
  kyStream* a = top->OpenStream("A", kModeReadWriteShared);
  ASSERT_EQ(0, a->Seek(0, 1));
  ASSERT_EQ(100, a->Write(std::string(100, 'y').data(), 100));
  const int64_t oldChain = FirstBlock(a);
  ASSERT_TRUE(a->Remove());
  kyStream* f = top->CreateStream("F", 1, kModeReadWriteShared, 1);
  ASSERT_NE(nullptr, f);
  EXPECT_NE(oldChain, FirstBlock(f));
  Child(f, "x", 0, "1");
  Child(f, "y", 0, "2");
  f->Release();
  top->Release();

  ASSERT_NE(nullptr, Reopen());
  top = storage->OpenStream("Top", kModeReadShared);
  f = top->OpenStream("F", kModeReadShared);
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(4 + 2 * W(), f->GetLength());
  // Nothing of the old chain follows the last slot.
  Bytes all(4096, 0);
  ASSERT_EQ(0, f->Seek(0, 0, true));
  EXPECT_EQ(4 + 2 * W(), f->Read(all.data(), 4096));
  CStringArray names;
  f->EnumStreams(names);
  ASSERT_EQ(2, names.GetSize());
  EXPECT_STREQ("y", names[1]);
  f->Release();
  top->Release();
}

TEST_P(FolderTest, PreloadedFolderAppendsWithoutScanning) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  Child(top, "A");
  Child(top, "B");
  kyStream* b = top->OpenStream("B", kModeReadWriteShared);
  ASSERT_TRUE(b->Remove());
  top->PreloadChildren();
  kyStream* d = top->CreateStream("D", 0, kModeReadWriteShared, 0);
  ASSERT_NE(nullptr, d);
  EXPECT_EQ(3u, top->GetNumChildren());
  EXPECT_EQ(FirstBlock(top) + H() + 4 + 2 * W(), HeaderOffset(d));  // slot 2, not B's
  d->Release();
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_TRUE(top->FindStream("D", h, o));
  top->Release();

  ASSERT_NE(nullptr, Reopen());
  top = storage->OpenStream("Top", kModeReadShared);
  Bytes data = DataOf(top);
  EXPECT_EQ(3u, kytest::Get32(data, 0));
  EXPECT_EQ('D', SlotIn(data, 2)[4]);
  top->Release();
}

TEST_P(FolderTest, OpenOrCreateDoesNotDuplicateAHeldChild) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  Child(top, "A");
  top->PreloadChildren();
  kyStream* held = top->OpenStream("A", 0x36);  // exclusive
  ASSERT_NE(nullptr, held);
  EXPECT_EQ(nullptr, top->OpenOrCreateStream("A", 0, kModeReadWriteShared));
  EXPECT_EQ(nullptr, top->OpenOrCreateStream("A", 0));
  held->Release();
  kyStream* again = top->OpenOrCreateStream("A", 0, kModeReadWriteShared);
  ASSERT_NE(nullptr, again);
  again->Release();
  kyStream* made = top->OpenOrCreateStream("New", 1);
  ASSERT_NE(nullptr, made);
  EXPECT_TRUE(made->IsFolder());
  made->Release();
  EXPECT_EQ(2u, top->GetNumChildren());
  top->Release();
}

TEST_P(FolderTest, CreationRefusesBadNamesAndNonFolders) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  const std::string sixty(60, 'n');
  Child(top, sixty.c_str());
  const Bytes before = kytest::ReadAll(path);
  EXPECT_EQ(nullptr, top->CreateStream(std::string(61, 'n').c_str(), 0, 0x16, 1));
  EXPECT_EQ(nullptr, top->CreateStream("", 0, 0x16, 1));
  EXPECT_EQ(nullptr, top->CreateStream(nullptr, 0, 0x16, 1));
  EXPECT_EQ(nullptr, top->CreateStream(sixty.c_str(), 0, 0x16, 1));  // exists
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_FALSE(top->AddStreamHeader("", 0, h, o, 1));
  EXPECT_EQ(before, kytest::ReadAll(path));

  kyStream* data = Root("Data", 0x100);  // bits 8 to 15 make no folder
  EXPECT_FALSE(data->IsFolder());
  EXPECT_EQ(nullptr, data->CreateStream("x", 0, 0x16, 1));
  kyTestAccess::Header(top).Flags() = 3;  // folder bit with the size-prefix mark
  EXPECT_EQ(nullptr, top->CreateStream("x", 0, 0x16, 1));
  data->Release();
  top->Release();
}

TEST_P(FolderTest, TypeGivesDurationAndLocatorSeconds) {
  ASSERT_NE(nullptr, Create());
  kyStream* top = Root("Top");
  t_kyStreamU h;
  tag_kyStreamOffset o = {};
  ASSERT_TRUE(top->AddStreamHeader("f", 0x00050001, h, o, 1));
  EXPECT_EQ(300u, o.dwDuration);
  EXPECT_EQ(0, o.blockOffset);
  EXPECT_EQ(5, h.Duration());
  EXPECT_EQ(1, h.Flags());
  top->Release();
}

INSTANTIATE_TEST_SUITE_P(Widths, FolderTest, ::testing::Bool());

}  // namespace
