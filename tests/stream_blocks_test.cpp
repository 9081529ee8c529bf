// Data blocks on disk: the bytes of first and next blocks and of the stream
// header after each kind of write, in-place growth of the block that ends
// the file, header-only blocks, and the two size limits.

#include <unistd.h>

#include "support/stream_fixture.h"

using kytest::BlockOnDisk;
using kytest::Bytes;
using kytest::HeaderOnDisk;
using kytest::Pattern;

namespace {

class StreamBlocks : public kytest::StreamTest {};

INSTANTIATE_TEST_SUITE_P(Widths, StreamBlocks, ::testing::Bool(), kytest::WidthName);

TEST_P(StreamBlocks, FirstWriteAppendsAFullFirstBlockAndLinksIt) {
  kyStorage* s = CreateStorage(4096);
  ASSERT_NE(s, nullptr);
  kyStream* a = NewStream(s, "A");
  ASSERT_NE(a, nullptr);
  const int64_t end = Size();
  ASSERT_EQ(end, DirectoryEnd());

  EXPECT_EQ(a->Write("", 0), 0);
  EXPECT_EQ(Size(), end + H() + 4096);
  BlockOnDisk b = BlockAt(end);
  EXPECT_EQ(b.magic, 0xFAFAFAFAu);
  EXPECT_EQ(b.usedEnd, H());
  EXPECT_EQ(b.allocEnd, H() + 4096);
  EXPECT_EQ(b.prevBlock, 0);
  EXPECT_EQ(b.nextBlock, 0);
  if (B64()) {
    EXPECT_EQ(kytest::Get32(Range(end + 4, 4), 0), 0u);  // reserved word
  }
  HeaderOnDisk hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.firstBlock, end);
  EXPECT_EQ(hdr.lastBlock, 0);
  EXPECT_EQ(hdr.length, 0);
  EXPECT_EQ(kyTestAccess::LastAppended(s), end);
  // The position stands just past the header's firstBlock field.
  EXPECT_EQ(kyTestAccess::StreamSetFilePointer(a, 0, FILE_CURRENT),
            HeaderOffset(a) + (B64() ? 84 + 8 : 76 + 4));
  a->Release();
  s->Release();
}

TEST_P(StreamBlocks, BlockThatEndsTheFileGrowsInPlace) {
  kyStorage* s = CreateStorage(4096);
  kyStream* a = NewStream(s, "A");
  const int64_t end = Size();
  const Bytes data = Pattern(8000, 1);
  int64_t at = -1;
  ASSERT_EQ(a->Write(data.data(), 5000, false, &at), 5000);
  EXPECT_EQ(at, end + H());
  ASSERT_EQ(a->Write(data.data() + 5000, 3000), 3000);

  // One header, then all the data in one run: no second block.
  EXPECT_EQ(Size(), end + H() + 8000);
  BlockOnDisk b = BlockAt(end);
  EXPECT_EQ(b.usedEnd, H() + 8000);
  EXPECT_EQ(b.allocEnd, H() + 8000);
  EXPECT_EQ(b.nextBlock, 0);
  EXPECT_EQ(Range(end + H(), 8000), data);
  HeaderOnDisk hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.length, 8000);
  EXPECT_EQ(hdr.lastBlock, end);
  EXPECT_EQ(hdr.firstBlock, end);
  EXPECT_EQ(kyTestAccess::DataPos(a), 8000);
  EXPECT_EQ(kyTestAccess::BlockPos(a), H() + 8000);
  a->Release();
  s->Release();
}

TEST_P(StreamBlocks, FullBlockGetsANewBlockOnceAnotherWasAppended) {
  kyStorage* s = CreateStorage(100);
  kyStream* a = NewStream(s, "A");
  kyStream* b = NewStream(s, "B");
  const int64_t a1 = Size();
  const Bytes data = Pattern(350, 2);
  ASSERT_EQ(a->Write(data.data(), 100), 100);
  const int64_t b1 = Size();
  ASSERT_EQ(b->Write("x", 1), 1);
  const int64_t a2 = Size();
  EXPECT_EQ(a2, b1 + H() + 100);

  // Back to the end of A (B moved the shared position), then 250 more.
  ASSERT_EQ(a->Seek(0, 1), 0);
  int64_t at = -1;
  ASSERT_EQ(a->Write(data.data() + 100, 250, false, &at), 250);
  EXPECT_EQ(at, a2 + H());
  EXPECT_EQ(Size(), a2 + H() + 250);

  BlockOnDisk first = BlockAt(a1);
  EXPECT_EQ(first.usedEnd, H() + 100);
  EXPECT_EQ(first.allocEnd, H() + 100);
  EXPECT_EQ(first.nextBlock, a2);
  BlockOnDisk second = BlockAt(a2);
  EXPECT_EQ(second.magic, 0xFAFAFAFAu);
  EXPECT_EQ(second.usedEnd, H() + 250);
  EXPECT_EQ(second.allocEnd, H() + 250);
  EXPECT_EQ(second.prevBlock, a1);
  EXPECT_EQ(second.nextBlock, 0);
  HeaderOnDisk hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.length, 350);
  EXPECT_EQ(hdr.firstBlock, a1);
  EXPECT_EQ(hdr.lastBlock, a2);
  EXPECT_EQ(kyTestAccess::LastAppended(s), a2);
  EXPECT_EQ(Contents(a, 350), data);
  // B's block is untouched.
  EXPECT_EQ(BlockAt(b1).usedEnd, H() + 1);
  a->Release();
  b->Release();
  s->Release();
}

TEST_P(StreamBlocks, NoBlockGrowsInPlaceRightAfterOpening) {
  {
    kyStorage* s = CreateStorage(100);
    kyStream* a = NewStream(s, "A");
    ASSERT_EQ(a->Write(Pattern(60, 3).data(), 60), 60);
    a->Release();
    s->Release();
  }
  const int64_t a1 = DirectoryEnd();
  const int64_t end = Size();
  ASSERT_EQ(end, a1 + H() + 100);
  kyStorage* s = OpenStorage(kModeReadWriteShared, 100);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(kyTestAccess::LastAppended(s), end);
  kyStream* a = s->OpenStream("A", kModeReadWriteShared);
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(a->Seek(0, 1), 0);
  // 30 bytes fit the room that is left; 50 more do not, although the block
  // ends the file.
  ASSERT_EQ(a->Write(Pattern(30, 4).data(), 30), 30);
  EXPECT_EQ(Size(), end);
  ASSERT_EQ(a->Write(Pattern(50, 5).data(), 50), 50);
  EXPECT_EQ(Size(), end + H() + 100);
  BlockOnDisk first = BlockAt(a1);
  EXPECT_EQ(first.usedEnd, H() + 100);
  EXPECT_EQ(first.allocEnd, H() + 100);
  EXPECT_EQ(first.nextBlock, end);
  BlockOnDisk second = BlockAt(end);
  EXPECT_EQ(second.usedEnd, H() + 40);
  EXPECT_EQ(second.allocEnd, H() + 100);
  EXPECT_EQ(second.prevBlock, a1);
  HeaderOnDisk hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.length, 140);
  EXPECT_EQ(hdr.lastBlock, end);
  Bytes expect = kytest::Concat(Pattern(60, 3), Pattern(30, 4));
  expect = kytest::Concat(expect, Pattern(50, 5));
  EXPECT_EQ(Contents(a, 140), expect);
  a->Release();
  s->Release();
}

TEST_P(StreamBlocks, FoldersGetHeaderOnlyBlocks) {
  kyStorage* s = CreateStorage(4096);
  const int64_t f1 = Size();
  kyStream* f = NewStream(s, "F", 1);
  ASSERT_NE(f, nullptr);
  ASSERT_TRUE(f->IsFolder());
  // Creation wrote the child count into a block of the header alone, which
  // then grew by those 4 bytes.
  EXPECT_EQ(Size(), f1 + H() + 4);
  BlockOnDisk b = BlockAt(f1);
  EXPECT_EQ(b.usedEnd, H() + 4);
  EXPECT_EQ(b.allocEnd, H() + 4);
  EXPECT_EQ(HeaderAt(HeaderOffset(f)).length, 4);

  kyStream* other = NewStream(s, "O");
  ASSERT_EQ(other->Write("o", 1), 1);
  const int64_t f2 = Size();
  ASSERT_EQ(f->Seek(0, 1), 0);
  ASSERT_EQ(f->Write("abcd", 4), 4);
  EXPECT_EQ(Size(), f2 + H() + 4);
  BlockOnDisk second = BlockAt(f2);
  EXPECT_EQ(second.usedEnd, H() + 4);
  EXPECT_EQ(second.allocEnd, H() + 4);
  EXPECT_EQ(second.prevBlock, f1);
  EXPECT_EQ(BlockAt(f1).nextBlock, f2);
  EXPECT_EQ(HeaderAt(HeaderOffset(f)).lastBlock, f2);
  other->Release();
  f->Release();
  s->Release();
}

TEST_P(StreamBlocks, BlockSizeZeroGivesHeaderOnlyBlocks) {
  kyStorage* s = CreateStorage(0);
  kyStream* a = NewStream(s, "A");
  const int64_t a1 = Size();
  ASSERT_EQ(a->Write("", 0), 0);
  EXPECT_EQ(Size(), a1 + H());
  EXPECT_EQ(BlockAt(a1).allocEnd, H());
  ASSERT_EQ(a->Write("0123456789", 10), 10);
  EXPECT_EQ(Size(), a1 + H() + 10);
  EXPECT_EQ(BlockAt(a1).usedEnd, H() + 10);
  EXPECT_EQ(BlockAt(a1).allocEnd, H() + 10);
  a->Release();
  s->Release();
}

TEST_P(StreamBlocks, NextBlockSitsAtTheEndAndLeavesThePositionOnIt) {
  kyStorage* s = CreateStorage(64);
  kyStream* a = NewStream(s, "A");
  const int64_t a1 = Size();
  ASSERT_EQ(a->Write("", 0), 0);
  const int64_t next = kyTestAccess::AllocateNextBlock(a, a1);
  EXPECT_EQ(next, a1 + H() + 64);
  EXPECT_EQ(Size(), next + H() + 64);
  EXPECT_EQ(kyTestAccess::StreamSetFilePointer(a, 0, FILE_CURRENT), next);
  EXPECT_EQ(kyTestAccess::LastAppended(s), next);
  BlockOnDisk b = BlockAt(next);
  EXPECT_EQ(b.usedEnd, H());
  EXPECT_EQ(b.allocEnd, H() + 64);
  EXPECT_EQ(b.prevBlock, a1);
  EXPECT_EQ(b.nextBlock, 0);
  // The caller links it; the block before is untouched.
  EXPECT_EQ(BlockAt(a1).nextBlock, 0);
  a->Release();
  s->Release();
}

// A write that the stream limit cuts short in a block without a next one
// still appends and links a block before it stops.
TEST_P(StreamBlocks, StreamSizeLimitCutsWritesShort) {
  kyStorage* s = CreateStorage(100);
  kyStream* a = NewStream(s, "A");
  kyStream* b = NewStream(s, "B");
  const int64_t a1 = Size();
  ASSERT_EQ(a->Write("", 0), 0);
  ASSERT_EQ(b->Write("b", 1), 1);
  const int64_t a2 = Size();
  kyStorage::g_iMaxCompStmSize = 10;
  const Bytes data = Pattern(25, 6);
  ASSERT_EQ(a->Write(data.data(), 25), 10);
  EXPECT_EQ(Size(), a2 + H() + 100);
  EXPECT_EQ(BlockAt(a1).usedEnd, H() + 10);
  EXPECT_EQ(BlockAt(a1).nextBlock, a2);
  HeaderOnDisk hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.length, 10);
  EXPECT_EQ(hdr.lastBlock, a2);
  EXPECT_EQ(a->Write(data.data(), 5), 0);
  EXPECT_EQ(Size(), a2 + H() + 100);
  // Read while the limit holds: the data are intact.
  EXPECT_EQ(Contents(a, 10), Bytes(data.begin(), data.begin() + 10));
  a->Release();
  b->Release();
  s->Release();
}

TEST_P(StreamBlocks, StreamSizeLimitIsReadAtEachWrite) {
  kyStorage* s = CreateStorage(4096);
  kyStream* a = NewStream(s, "A");
  kyStorage::g_iMaxCompStmSize = 4;
  EXPECT_EQ(a->Write("abcdefgh", 8), 4);
  EXPECT_EQ(a->Write("efgh", 4), 0);
  kyStorage::g_iMaxCompStmSize = 1073741824;
  EXPECT_EQ(a->Write("efgh", 4), 4);
  EXPECT_EQ(a->GetLength(), 8);
  a->Release();
  s->Release();
}

TEST(StreamBlocksLimit, LoweredFileLimitStopsNextBlocksButNotFirstBlocks) {
  kytest::TempDir dir;
  kytest::GlobalsGuard globals;
  kyStorage::g_bUse64BitOffsets = 1;
  const std::string path = dir.File("limit.kys");
  kyStorage* s = kyStorage::Create(path.c_str(), kModeReadWriteShared, 16);
  kyStream* a = s->CreateStream("A", kModeReadWriteShared);
  const int64_t a1 = kytest::FileSize(path);
  kyStorage::g_iMaxTolvarSize = 100;  // far below the file's size
  // The first block is appended regardless; it cannot grow past the limit.
  EXPECT_EQ(a->Write("abc", 3), 0);
  EXPECT_EQ(kytest::FileSize(path), a1 + 40 + 16);
  const Bytes before = kytest::ReadAll(path);
  EXPECT_EQ(kyTestAccess::AllocateNextBlock(a, a1), 0);
  EXPECT_EQ(kytest::ReadAll(path), before);
  a->Release();
  s->Release();
}

// With the limit just past a new block's header, the block is appended whole
// and then filled only up to the limit.
TEST(StreamBlocksLimit, FileLimitEndsGrowthExactlyAtTheLimit) {
  kytest::TempDir dir;
  kytest::GlobalsGuard globals;
  kyStorage::g_bUse64BitOffsets = 1;
  const std::string path = dir.File("limit.kys");
  kyStorage* s = kyStorage::Create(path.c_str(), kModeReadWriteShared, 16);
  kyStream* a = s->CreateStream("A", kModeReadWriteShared);
  kyStream* b = s->CreateStream("B", kModeReadWriteShared);
  ASSERT_EQ(a->Write(Pattern(16, 7).data(), 16), 16);
  ASSERT_EQ(b->Write("b", 1), 1);
  const int64_t a2 = kytest::FileSize(path);
  kyStorage::g_iMaxTolvarSize = a2 + 40 + 5;
  ASSERT_EQ(a->Seek(0, 1), 0);
  EXPECT_EQ(a->Write(Pattern(100, 8).data(), 100), 5);
  EXPECT_EQ(kytest::FileSize(path), a2 + 40 + 16);
  EXPECT_EQ(a->Write("z", 1), 0);
  EXPECT_EQ(a->GetLength(), 21);
  a->Release();
  b->Release();
  s->Release();
}

// The default limits on large sparse files: 4294967295 with 32-bit offsets,
// g_iMaxTolvarSize (4294967296) with 64-bit offsets.
TEST_P(StreamBlocks, FileLimitOnAFileNearFourGigabytes) {
  {
    kyStorage* s = CreateStorage(8);
    kyStream* a = NewStream(s, "A");
    ASSERT_EQ(a->Write("12345678", 8), 8);
    a->Release();
    s->Release();
  }
  const int64_t limit = B64() ? 4294967296LL : 4294967295LL;
  const int64_t end = limit - H() - 5;
  ASSERT_EQ(truncate(path.c_str(), end), 0);
  kyStorage* s = OpenStorage(kModeReadWriteShared, 8);
  ASSERT_NE(s, nullptr);
  kyStream* a = s->OpenStream("A", kModeReadWriteShared);
  ASSERT_EQ(a->Seek(0, 1), 0);
  EXPECT_EQ(a->Write(Pattern(100, 9).data(), 100), 5);
  EXPECT_EQ(Size(), end + H() + 8);
  BlockOnDisk b = BlockAt(end);
  EXPECT_EQ(b.usedEnd, H() + 5);
  EXPECT_EQ(b.allocEnd, H() + 8);
  EXPECT_EQ(BlockAt(DirectoryEnd()).nextBlock, end);
  EXPECT_EQ(HeaderAt(HeaderOffset(a)).length, 13);
  EXPECT_EQ(a->Write("z", 1), 0);
  a->Release();
  s->Release();
}

}  // namespace
