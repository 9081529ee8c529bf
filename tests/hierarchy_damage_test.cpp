// Folders whose data were damaged on disk: every lookup, walk and change
// ends with its failure result instead of crashing, hanging or reading out
// of bounds.

#include <string>

#include "support/folder_fixture.h"

namespace {

using namespace kytest;

class FolderDamage : public FolderTest {
 protected:
  // Top with children a, b, c (data written between the creations, so that
  // every slot after the first lands in a block of its own), then closed.
  void Build() {
    slots.clear();
    ASSERT_NE(nullptr, Create());
    auto top = Hold(Root("Top"));
    for (const char* n : {"a", "b", "c"}) {
      Child(top, n, 0, n);
      slots.push_back(HeaderOffset(OpenIn(top, n)));
    }
    topBlock = FirstBlock(top);
    top.reset();
    Close();
  }
  int64_t NextLinkOf(int64_t block) const { return block + (B64() ? 32 : 16); }
  // Copies the folder into a fresh storage; only its ending matters.
  void CopyElsewhere(kyStream* folder) {
    ASSERT_NE(nullptr, Other(true));
    folder->CopyFolder(Hold(other->CreateStream("D", 1, RW)).get());
  }

  std::vector<int64_t> slots;
  int64_t topBlock = 0;
};

// A walk stops at the end of the data; a creation appends there and writes
// the count of the slots that are there.
TEST_P(FolderDamage, CountLargerThanTheData) {
  Build();
  Patch(topBlock + H(), 1000, false);
  ASSERT_NE(nullptr, Reopen());
  {
    auto top = Open("Top", RW);
    EXPECT_TRUE(Finds(top, "c"));
    EXPECT_FALSE(Finds(top, "missing"));
    ASSERT_NE(nullptr, Hold(top->CreateStream("d", 0, RW, 1)));
    EXPECT_EQ(4u, Get32(DataOf(top), 0));
    EXPECT_EQ((Names{"a", "b", "c", "d"}), ChildNames(top));
  }
  Patch(topBlock + H(), 0xFFFFFFFFu, false);  // a negative count
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top");
  __int64 cursor = 0;
  EXPECT_EQ(nullptr, top->OpenStreamFirst(&cursor, RO));
  EXPECT_FALSE(Finds(top, "missing"));
  top->PreloadChildren();
  ASSERT_NE(nullptr, kyTestAccess::PreloadMap(top.get()));
  EXPECT_EQ(4, kyTestAccess::PreloadMap(top.get())->GetCount());
}

TEST_P(FolderDamage, SlotChainThatLoops) {
  Build();
  // The last block leads back to itself: its slot repeats without end,
  Patch(NextLinkOf(slots[2] - H()), slots[2] - H());
  Patch(topBlock + H(), 0x7FFFFFFF, false);
  // and Top's length claims far more than the file holds.
  Patch(32 + (B64() ? 16 : 12) + 6 * W() + 68, 0x7FFFFFF0);
  ASSERT_NE(nullptr, Reopen());
  {
    auto top = Open("Top", RW);
    EXPECT_FALSE(Finds(top, "missing"));
    EXPECT_LE(ChildNames(top).size(), size_t(FileSize(path) / W() + 1));
    EXPECT_EQ(nullptr, top->CreateStream("new", 0, RW, 1));
    top->PreloadChildren();
    EXPECT_EQ(3, kyTestAccess::PreloadMap(top.get())->GetCount());
  }
  // The first block leads back to itself: the walk meets the count again.
  Build();
  Patch(NextLinkOf(topBlock), topBlock);
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top", RW);
  EXPECT_LE(ChildNames(top).size(), 1u);
  EXPECT_FALSE(Finds(top, "c"));
  CopyElsewhere(top.get());
}

// A child folder whose chain is its parent's: its children are its
// parent's, itself among them, and it is not opened below itself.
TEST_P(FolderDamage, ChildWhoseDataAreItsParents) {
  Build();
  Bytes image = ReadAll(path);
  image[size_t(slots[1]) + 67] = kFolderFlag;  // b becomes a folder ...
  WriteAll(path, image);
  Patch(slots[1] + (B64() ? 84 : 76), topBlock);  // ... over Top's chain
  Patch(slots[1] + (B64() ? 76 : 72), topBlock);
  ASSERT_NE(nullptr, Reopen());
  kyStream* top = storage->OpenStream("Top", RW);
  {
    auto b = OpenIn(top, "b", RW);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(nullptr, b->OpenStream("b", RO));  // its own slot
    EXPECT_EQ(Names{"a"}, ChildNames(b));        // the walk ends at b
  }
  CopyElsewhere(top);
  EXPECT_TRUE(top->Remove());
  ASSERT_NE(nullptr, Reopen());
  EXPECT_EQ(nullptr, storage->OpenStream("Top", RO));
}

// A name that fills its whole field: read as its first 60 characters.
TEST_P(FolderDamage, NameWithoutTerminator) {
  Build();
  Bytes image = ReadAll(path);
  memset(&image[size_t(slots[0]) + 4], 'n', 61);
  WriteAll(path, image);
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top");
  const std::string sixty(60, 'n');
  kyStream* n = top->OpenStream(sixty.c_str(), RO);
  ASSERT_NE(nullptr, n);
  EXPECT_EQ(sixty, n->GetName());
  EXPECT_EQ(1, n->Release());
  EXPECT_EQ((Names{sixty, "b", "c"}), ChildNames(top));
  top->PreloadChildren();
  EXPECT_TRUE(Finds(top, sixty.c_str()));
}

INSTANTIATE_TEST_SUITE_P(Widths, FolderDamage, ::testing::Bool(), WidthName);

}  // namespace
