// Folders whose data were damaged on disk: every lookup, walk and change
// ends with its failure result instead of crashing, hanging or reading out
// of bounds.

#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;
using kytest::Hold;

class DamageTest : public FolderTest {
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
  // Writes a 32-bit value, or an offset of the file's width, into the file.
  void Patch(int64_t at, int64_t v, bool offset = true) {
    Bytes image = kytest::ReadAll(path);
    if (offset && B64())
      kytest::Put64(image, static_cast<size_t>(at), v);
    else
      kytest::Put32(image, static_cast<size_t>(at), static_cast<uint32_t>(v));
    kytest::WriteAll(path, image);
  }
  // The block that holds slot `i`.
  int64_t BlockOfSlot(size_t i) const { return slots[i] - H(); }
  int64_t NextField(int64_t block) const { return block + (B64() ? 32 : 16); }
  // Copies the folder into a fresh storage; only its ending matters.
  template <class P>
  void CopyElsewhere(const P& folder) {
    auto other = Hold(kyStorage::Create(dir.File("copy.kys").c_str(), kModeReadWriteShared, 64));
    ASSERT_NE(nullptr, other);
    folder->CopyFolder(Hold(other->CreateStream("D", 1, kModeReadWriteShared)).get());
  }

  std::vector<int64_t> slots;
  int64_t topBlock = 0;
};

TEST_P(DamageTest, CountLargerThanTheData) {
  Build();
  Patch(topBlock + H(), 1000, false);
  ASSERT_NE(nullptr, Reopen());
  {
    auto top = Open("Top", kModeReadWriteShared);
    EXPECT_TRUE(Finds(top, "c"));
    EXPECT_FALSE(Finds(top, "missing"));
    EXPECT_EQ(3u, ChildNames(top).size());
    // A creation appends where the data end and writes the count of the
    // slots that are there.
    ASSERT_NE(nullptr, Hold(top->CreateStream("d", 0, kModeReadWriteShared, 1)));
    EXPECT_EQ(4u, kytest::Get32(DataOf(top), 0));
    EXPECT_EQ(4u, ChildNames(top).size());
  }
  Patch(topBlock + H(), 0xFFFFFFFFu, false);
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top");
  long long cursor = 0;
  EXPECT_EQ(nullptr, top->OpenStreamFirst(&cursor, kModeReadShared));  // a negative count
  EXPECT_FALSE(Finds(top, "missing"));
  top->PreloadChildren();
  ASSERT_NE(nullptr, kyTestAccess::PreloadMap(top.get()));
  EXPECT_EQ(4, kyTestAccess::PreloadMap(top.get())->GetCount());
}

TEST_P(DamageTest, SlotChainThatLoops) {
  Build();
  // The last block leads back to itself: its slot repeats without end,
  Patch(NextField(BlockOfSlot(2)), BlockOfSlot(2));
  Patch(topBlock + H(), 0x7FFFFFFF, false);
  // and Top's length claims far more than the file holds.
  Patch(32 + (B64() ? 16 : 12) + 6 * W() + 68, 0x7FFFFFF0);
  ASSERT_NE(nullptr, Reopen());
  {
    auto top = Open("Top", kModeReadWriteShared);
    EXPECT_FALSE(Finds(top, "missing"));
    EXPECT_LE(ChildNames(top).size(), static_cast<size_t>(kytest::FileSize(path) / W() + 1));
    EXPECT_EQ(nullptr, top->CreateStream("new", 0, kModeReadWriteShared, 1));
    top->PreloadChildren();
    EXPECT_EQ(3, kyTestAccess::PreloadMap(top.get())->GetCount());
  }
  // The first block leads back to itself: the walk meets the count again.
  Build();
  Patch(NextField(topBlock), topBlock);
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top", kModeReadWriteShared);
  EXPECT_LE(ChildNames(top).size(), 1u);
  EXPECT_FALSE(Finds(top, "c"));
  CopyElsewhere(top);
}

// A child folder whose chain is its parent's: its children are its
// parent's, itself among them.
TEST_P(DamageTest, ChildWhoseDataAreItsParents) {
  Build();
  Bytes image = kytest::ReadAll(path);
  image[static_cast<size_t>(slots[1]) + 67] = kFolderFlag;  // b becomes a folder ...
  kytest::WriteAll(path, image);
  Patch(slots[1] + (B64() ? 84 : 76), topBlock);  // ... over Top's chain
  Patch(slots[1] + (B64() ? 76 : 72), topBlock);
  ASSERT_NE(nullptr, Reopen());
  kyStream* top = storage->OpenStream("Top", kModeReadWriteShared);
  {
    auto b = OpenIn(top, "b", kModeReadWriteShared);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(nullptr, b->OpenStream("b", kModeReadShared));  // its own slot
    EXPECT_EQ(1u, ChildNames(b).size());                      // a; the walk ends at b
  }
  CopyElsewhere(top);
  EXPECT_TRUE(top->Remove());
  ASSERT_NE(nullptr, Reopen());
  EXPECT_EQ(nullptr, storage->OpenStream("Top", kModeReadShared));
}

// A name that fills its whole field: read as its first 60 characters.
TEST_P(DamageTest, NameWithoutTerminator) {
  Build();
  Bytes image = kytest::ReadAll(path);
  memset(&image[static_cast<size_t>(slots[0]) + 4], 'n', 61);
  kytest::WriteAll(path, image);
  ASSERT_NE(nullptr, Reopen());
  auto top = Open("Top");
  const std::string sixty(60, 'n');
  kyStream* n = top->OpenStream(sixty.c_str(), kModeReadShared);
  ASSERT_NE(nullptr, n);
  EXPECT_EQ(sixty, n->GetName());
  EXPECT_EQ(1, n->Release());
  EXPECT_EQ((std::vector<std::string>{sixty, "b", "c"}), ChildNames(top));
  top->PreloadChildren();
  EXPECT_TRUE(Finds(top, sixty.c_str()));
}

TEST_P(DamageTest, StorageHeldInMemoryChangesNothing) {
  Build();
  const Bytes image = kytest::ReadAll(path);
  ASSERT_NE(nullptr, Reopen(kModeReadShared, 1));
  {
    auto top = Open("Top", kModeReadWriteShared);
    EXPECT_EQ(3u, ChildNames(top).size());
    EXPECT_EQ(nullptr, top->CreateStream("new", 0, kModeReadWriteShared, 1));
    {
      auto a = OpenIn(top, "a", kModeReadWriteShared);
      EXPECT_EQ("a", Text(a));
      EXPECT_FALSE(a->Rename("z"));
      EXPECT_STREQ("a", a->GetName());
      EXPECT_FALSE(a->Remove());
    }
    EXPECT_FALSE(top->Remove());
  }
  EXPECT_EQ(image, kytest::ReadAll(path));
}

// Root directory whose first block links to itself.
TEST_P(DamageTest, GoNextStopsAtADirectoryLoop) {
  for (int i = 0; i < 58; ++i) Root(("r" + std::to_string(i)).c_str(), 0)->Release();
  Close();
  Patch(32 + 8, 32);
  storage = kyStorage::OpenFast(path.c_str(), kModeReadShared, 256);
  ASSERT_NE(nullptr, storage);
  auto s = Hold(storage->OpenStreamFirst(kModeReadShared));
  ASSERT_NE(nullptr, s);
  int moves = 0;
  while (s->GoNext() && moves < 1000) ++moves;
  EXPECT_EQ(57, moves);
  EXPECT_STREQ("r57", s->GetName());
}

INSTANTIATE_TEST_SUITE_P(Widths, DamageTest, ::testing::Bool());

}  // namespace
