// Folders whose data were damaged on disk: every lookup, walk and change
// ends with its failure result instead of crashing, hanging or reading out
// of bounds.

#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;

class DamageTest : public FolderTest {
 protected:
  // Top with children a, b, c (data written between the creations, so that
  // every slot after the first lands in a block of its own), then closed.
  void Build() {
    slots.clear();
    ASSERT_NE(nullptr, Create());
    kyStream* top = Root("Top");
    for (const char* n : {"a", "b", "c"}) {
      Child(top, n, 0, n);
      kyStream* c = top->OpenStream(n, kModeReadShared);
      slots.push_back(HeaderOffset(c));
      c->Release();
    }
    topBlock = FirstBlock(top);
    top->Release();
    Close();
  }
  void Patch32(int64_t at, uint32_t v) {
    Bytes image = kytest::ReadAll(path);
    kytest::Put32(image, static_cast<size_t>(at), v);
    kytest::WriteAll(path, image);
  }
  void PatchOffset(int64_t at, int64_t v) {
    Bytes image = kytest::ReadAll(path);
    if (B64())
      kytest::Put64(image, static_cast<size_t>(at), v);
    else
      kytest::Put32(image, static_cast<size_t>(at), static_cast<uint32_t>(v));
    kytest::WriteAll(path, image);
  }
  // The block that holds slot `i`.
  int64_t BlockOfSlot(size_t i) const { return slots[i] - H(); }
  int64_t NextField(int64_t block) const { return block + (B64() ? 32 : 16); }
  // Copies the folder into a fresh storage; only its ending matters.
  void CopyElsewhere(kyStream* folder) {
    kyStorage* other = kyStorage::Create(dir.File("copy.kys").c_str(), kModeReadWriteShared, 64);
    ASSERT_NE(nullptr, other);
    kyStream* dst = other->CreateStream("D", 1, kModeReadWriteShared);
    folder->CopyFolder(dst);
    dst->Release();
    other->Release();
  }
  static size_t Enumerated(kyStream* folder) {
    CStringArray names;
    folder->EnumStreams(names);
    return static_cast<size_t>(names.GetSize());
  }

  std::vector<int64_t> slots;
  int64_t topBlock = 0;
};

TEST_P(DamageTest, CountLargerThanTheData) {
  Build();
  Patch32(topBlock + H(), 1000);
  ASSERT_NE(nullptr, Reopen());
  kyStream* top = storage->OpenStream("Top", kModeReadWriteShared);
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_TRUE(top->FindStream("c", h, o));
  EXPECT_FALSE(top->FindStream("missing", h, o));
  EXPECT_EQ(3u, Enumerated(top));
  // A creation appends where the data end and writes the count of the
  // slots that are there.
  kyStream* d = top->CreateStream("d", 0, kModeReadWriteShared, 1);
  ASSERT_NE(nullptr, d);
  d->Release();
  EXPECT_EQ(4u, kytest::Get32(DataOf(top), 0));
  EXPECT_EQ(4u, Enumerated(top));
  top->Release();

  Patch32(topBlock + H(), 0xFFFFFFFFu);
  ASSERT_NE(nullptr, Reopen());
  top = storage->OpenStream("Top", kModeReadShared);
  int64_t cursor = 0;
  EXPECT_EQ(nullptr, top->OpenStreamFirst(&cursor, kModeReadShared));  // a negative count
  EXPECT_FALSE(top->FindStream("missing", h, o));
  top->PreloadChildren();
  ASSERT_NE(nullptr, kyTestAccess::PreloadMap(top));
  EXPECT_EQ(4, kyTestAccess::PreloadMap(top)->GetCount());
  top->Release();
}

TEST_P(DamageTest, SlotChainThatLoops) {
  Build();
  // The last block leads back to itself: its slot repeats without end.
  PatchOffset(NextField(BlockOfSlot(2)), BlockOfSlot(2));
  Patch32(topBlock + H(), 0x7FFFFFFF);
  // and Top's length claims far more than the file holds.
  const int64_t topSlot = 32 + (B64() ? 16 : 12) + 6 * W();
  PatchOffset(topSlot + 68, 0x7FFFFFF0);
  ASSERT_NE(nullptr, Reopen());
  kyStream* top = storage->OpenStream("Top", kModeReadWriteShared);
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_FALSE(top->FindStream("missing", h, o));
  EXPECT_LE(Enumerated(top), static_cast<size_t>(kytest::FileSize(path) / W() + 1));
  EXPECT_EQ(nullptr, top->CreateStream("new", 0, kModeReadWriteShared, 1));
  top->PreloadChildren();
  EXPECT_EQ(3, kyTestAccess::PreloadMap(top)->GetCount());
  top->Release();

  // The first block leads back to itself: the walk meets the count again.
  Build();
  PatchOffset(NextField(topBlock), topBlock);
  ASSERT_NE(nullptr, Reopen());
  top = storage->OpenStream("Top", kModeReadWriteShared);
  EXPECT_LE(Enumerated(top), 1u);
  EXPECT_FALSE(top->FindStream("c", h, o));
  CopyElsewhere(top);
  top->Release();
}

// A child folder whose chain is its parent's: its children are its
// parent's, itself among them.
TEST_P(DamageTest, ChildWhoseDataAreItsParents) {
  Build();
  Bytes image = kytest::ReadAll(path);
  image[static_cast<size_t>(slots[1]) + 67] = kFolderFlag;  // b becomes a folder ...
  kytest::WriteAll(path, image);
  PatchOffset(slots[1] + (B64() ? 84 : 76), topBlock);  // ... over Top's chain
  PatchOffset(slots[1] + (B64() ? 76 : 72), topBlock);
  ASSERT_NE(nullptr, Reopen());
  kyStream* top = storage->OpenStream("Top", kModeReadWriteShared);
  kyStream* b = top->OpenStream("b", kModeReadWriteShared);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(nullptr, b->OpenStream("b", kModeReadShared));  // its own slot
  EXPECT_EQ(1u, Enumerated(b));                             // a; the walk ends at b
  b->Release();
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
  kyStream* top = storage->OpenStream("Top", kModeReadShared);
  const std::string sixty(60, 'n');
  kyStream* n = top->OpenStream(sixty.c_str(), kModeReadShared);
  ASSERT_NE(nullptr, n);
  EXPECT_EQ(sixty, n->GetName());
  EXPECT_EQ(1, n->Release());
  CStringArray names;
  top->EnumStreams(names);
  ASSERT_EQ(3, names.GetSize());
  EXPECT_EQ(sixty, names[0].GetString());
  top->PreloadChildren();
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_TRUE(top->FindStream(sixty.c_str(), h, o));
  top->Release();
}

TEST_P(DamageTest, StorageHeldInMemoryChangesNothing) {
  Build();
  const Bytes image = kytest::ReadAll(path);
  ASSERT_NE(nullptr, Reopen(kModeReadShared, 1));
  kyStream* top = storage->OpenStream("Top", kModeReadWriteShared);
  EXPECT_EQ(3u, Enumerated(top));
  EXPECT_EQ(nullptr, top->CreateStream("new", 0, kModeReadWriteShared, 1));
  kyStream* a = top->OpenStream("a", kModeReadWriteShared);
  EXPECT_EQ("a", Text(a));
  EXPECT_FALSE(a->Rename("z"));
  EXPECT_STREQ("a", a->GetName());
  EXPECT_FALSE(a->Remove());
  a->Release();
  EXPECT_FALSE(top->Remove());
  top->Release();
  EXPECT_EQ(image, kytest::ReadAll(path));
}

// Root directory whose first block links to itself.
TEST_P(DamageTest, GoNextStopsAtADirectoryLoop) {
  ASSERT_NE(nullptr, Create());
  for (int i = 0; i < 58; ++i) Root(("r" + std::to_string(i)).c_str(), 0)->Release();
  Close();
  PatchOffset(32 + 8, 32);
  storage = kyStorage::OpenFast(path.c_str(), kModeReadShared, 256);
  ASSERT_NE(nullptr, storage);
  kyStream* s = storage->OpenStreamFirst(kModeReadShared);
  ASSERT_NE(nullptr, s);
  int moves = 0;
  while (s->GoNext() && moves < 1000) ++moves;
  EXPECT_EQ(57, moves);
  EXPECT_STREQ("r57", s->GetName());
  s->Release();
}

INSTANTIATE_TEST_SUITE_P(Widths, DamageTest, ::testing::Bool());

}  // namespace
