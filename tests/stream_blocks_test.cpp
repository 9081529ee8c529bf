// Data blocks on disk: the bytes of first and next blocks and of the stream
// header after each kind of write, in-place growth of the block that ends
// the file, header-only blocks, and the two size limits.

#include <unistd.h>

#include "support/stream_fixture.h"

using kytest::Bytes;
using kytest::HeaderOnDisk;
using kytest::Hold;
using kytest::Pattern;

namespace {

class StreamBlocks : public kytest::StreamTest {};

INSTANTIATE_TEST_SUITE_P(Widths, StreamBlocks, ::testing::Bool(), kytest::WidthName);

TEST_P(StreamBlocks, FirstAndNextBlocksAreAppendedWhole) {
  auto s = Hold(CreateStorage(4096));
  ASSERT_NE(s, nullptr);
  auto a = Hold(NewStream(s, "A"));
  const int64_t end = Size();
  ASSERT_EQ(end, DirectoryEnd());
  EXPECT_EQ(a->Write("", 0), 0);
  EXPECT_EQ(Size(), end + H() + 4096);
  EXPECT_EQ(BlockAt(end), Block(H(), H() + 4096, 0, 0));
  EXPECT_EQ(HeaderAt(HeaderOffset(a)), (HeaderOnDisk{0, 0, 0, end}));
  EXPECT_EQ(kyTestAccess::LastAppended(s.get()), end);
  // The position stands just past the header's firstBlock field.
  EXPECT_EQ(kyTestAccess::StreamSetFilePointer(a.get(), 0, FILE_CURRENT),
            HeaderOffset(a) + (B64() ? 92 : 80));

  // A next block goes to the end and leaves the position on it; the caller
  // links it.
  const int64_t next = kyTestAccess::AllocateNextBlock(a.get(), end);
  EXPECT_EQ(next, end + H() + 4096);
  EXPECT_EQ(Size(), next + H() + 4096);
  EXPECT_EQ(kyTestAccess::StreamSetFilePointer(a.get(), 0, FILE_CURRENT), next);
  EXPECT_EQ(kyTestAccess::LastAppended(s.get()), next);
  EXPECT_EQ(BlockAt(next), Block(H(), H() + 4096, end, 0));
  EXPECT_EQ(BlockAt(end).nextBlock, 0);
}

TEST_P(StreamBlocks, BlockThatEndsTheFileGrowsInPlace) {
  auto s = Hold(CreateStorage(4096));
  auto a = Hold(NewStream(s, "A"));
  const int64_t end = Size();
  const Bytes data = Pattern(8000, 1);
  long long at = -1;
  ASSERT_EQ(a->Write(data.data(), 5000, false, &at), 5000);
  EXPECT_EQ(at, end + H());
  ASSERT_EQ(a->Write(data.data() + 5000, 3000), 3000);
  // One header, then all the data in one run: no second block.
  EXPECT_EQ(Size(), end + H() + 8000);
  EXPECT_EQ(BlockAt(end), Block(H() + 8000, H() + 8000, 0, 0));
  EXPECT_EQ(Range(end + H(), 8000), data);
  EXPECT_EQ(HeaderAt(HeaderOffset(a)), (HeaderOnDisk{0, 8000, end, end}));
  EXPECT_EQ(kytest::CursorOf(a), (kytest::Cursor{end, H() + 8000, 8000}));
}

TEST_P(StreamBlocks, FullBlockGetsANewBlockOnceAnotherWasAppended) {
  auto s = Hold(CreateStorage(100));
  auto a = Hold(NewStream(s, "A"));
  auto b = Hold(NewStream(s, "B"));
  const int64_t a1 = Size();
  const Bytes data = Pattern(350, 2);
  ASSERT_EQ(a->Write(data.data(), 100), 100);
  const int64_t b1 = Size();
  ASSERT_EQ(b->Write("x", 1), 1);
  const int64_t a2 = Size();
  // Back to the end of A (B moved the shared position), then 250 more.
  ASSERT_EQ(a->Seek(0, 1), 0);
  long long at = -1;
  ASSERT_EQ(a->Write(data.data() + 100, 250, false, &at), 250);
  EXPECT_EQ(at, a2 + H());
  EXPECT_EQ(Size(), a2 + H() + 250);
  EXPECT_EQ(BlockAt(a1), Block(H() + 100, H() + 100, 0, a2));
  EXPECT_EQ(BlockAt(b1), Block(H() + 1, H() + 100, 0, 0));
  EXPECT_EQ(BlockAt(a2), Block(H() + 250, H() + 250, a1, 0));
  EXPECT_EQ(HeaderAt(HeaderOffset(a)), (HeaderOnDisk{0, 350, a2, a1}));
  EXPECT_EQ(kyTestAccess::LastAppended(s.get()), a2);
  EXPECT_EQ(Contents(a, 350), data);
}

TEST_P(StreamBlocks, NoBlockGrowsInPlaceRightAfterOpening) {
  {
    auto s = Hold(CreateStorage(100));
    ASSERT_EQ(Hold(NewStream(s, "A"))->Write(Pattern(60, 3).data(), 60), 60);
  }
  const int64_t a1 = DirectoryEnd();
  const int64_t end = Size();
  ASSERT_EQ(end, a1 + H() + 100);
  auto s = Hold(OpenStorage(kModeReadWriteShared, 100));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(kyTestAccess::LastAppended(s.get()), end);
  auto a = Hold(s->OpenStream("A", kModeReadWriteShared));
  ASSERT_EQ(a->Seek(0, 1), 0);
  // 30 bytes fit the room that is left; 50 more do not, although the block
  // ends the file.
  ASSERT_EQ(a->Write(Pattern(30, 4).data(), 30), 30);
  EXPECT_EQ(Size(), end);
  ASSERT_EQ(a->Write(Pattern(50, 5).data(), 50), 50);
  EXPECT_EQ(Size(), end + H() + 100);
  EXPECT_EQ(BlockAt(a1), Block(H() + 100, H() + 100, 0, end));
  EXPECT_EQ(BlockAt(end), Block(H() + 40, H() + 100, a1, 0));
  EXPECT_EQ(HeaderAt(HeaderOffset(a)), (HeaderOnDisk{0, 140, end, a1}));
  EXPECT_EQ(Contents(a, 140),
            kytest::Concat(kytest::Concat(Pattern(60, 3), Pattern(30, 4)), Pattern(50, 5)));
}

TEST_P(StreamBlocks, FoldersGetHeaderOnlyBlocks) {
  auto s = Hold(CreateStorage(4096));
  const int64_t f1 = Size();
  auto f = Hold(NewStream(s, "F", 1));
  ASSERT_TRUE(f->IsFolder());
  // Creation wrote the child count into a block of the header alone, which
  // then grew by those 4 bytes.
  EXPECT_EQ(Size(), f1 + H() + 4);
  EXPECT_EQ(BlockAt(f1), Block(H() + 4, H() + 4, 0, 0));
  ASSERT_EQ(Hold(NewStream(s, "O"))->Write("o", 1), 1);
  const int64_t f2 = Size();
  ASSERT_EQ(f->Seek(0, 1), 0);
  ASSERT_EQ(f->Write("abcd", 4), 4);
  EXPECT_EQ(Size(), f2 + H() + 4);
  EXPECT_EQ(BlockAt(f1), Block(H() + 4, H() + 4, 0, f2));
  EXPECT_EQ(BlockAt(f2), Block(H() + 4, H() + 4, f1, 0));
  EXPECT_EQ(HeaderAt(HeaderOffset(f)), (HeaderOnDisk{kFolderFlag, 8, f2, f1}));
}

TEST_P(StreamBlocks, BlockSizeZeroGivesHeaderOnlyBlocks) {
  auto s = Hold(CreateStorage(0));
  auto a = Hold(NewStream(s, "A"));
  const int64_t a1 = Size();
  ASSERT_EQ(a->Write("", 0), 0);
  EXPECT_EQ(Size(), a1 + H());
  EXPECT_EQ(BlockAt(a1), Block(H(), H(), 0, 0));
  ASSERT_EQ(a->Write("0123456789", 10), 10);
  EXPECT_EQ(Size(), a1 + H() + 10);
  EXPECT_EQ(BlockAt(a1), Block(H() + 10, H() + 10, 0, 0));
}

// The limit is read at each write; one that cuts a write short in a block
// without a next one still appends and links a block before it stops.
TEST_P(StreamBlocks, StreamSizeLimitCutsWritesShort) {
  auto s = Hold(CreateStorage(100));
  auto a = Hold(NewStream(s, "A"));
  const int64_t a1 = Size();
  ASSERT_EQ(a->Write("", 0), 0);
  ASSERT_EQ(Hold(NewStream(s, "B"))->Write("b", 1), 1);
  const int64_t a2 = Size();
  kyStorage::g_iMaxCompStmSize = 10;
  const Bytes data = Pattern(25, 6);
  ASSERT_EQ(a->Write(data.data(), 25), 10);
  EXPECT_EQ(Size(), a2 + H() + 100);
  EXPECT_EQ(BlockAt(a1), Block(H() + 10, H() + 100, 0, a2));
  EXPECT_EQ(HeaderAt(HeaderOffset(a)), (HeaderOnDisk{0, 10, a2, a1}));
  EXPECT_EQ(a->Write(data.data(), 5), 0);
  EXPECT_EQ(Size(), a2 + H() + 100);
  EXPECT_EQ(Contents(a, 10), kytest::Slice(data, 0, 10));
  kyStorage::g_iMaxCompStmSize = 1073741824;
  EXPECT_EQ(a->Write("efgh", 4), 4);
  EXPECT_EQ(a->GetLength(), 14);
}

// A lowered file limit: a first block is appended regardless but cannot
// grow past it, a next block is refused, and with the limit just past a new
// block's header the block is appended whole and filled up to the limit.
TEST_P(StreamBlocks, LoweredFileLimit) {
  if (!B64()) GTEST_SKIP() << "the 32-bit limit is fixed by the offsets";
  auto s = Hold(CreateStorage(16));
  auto a = Hold(NewStream(s, "A"));
  auto b = Hold(NewStream(s, "B"));
  const int64_t a1 = Size();
  const int64_t normal = kyStorage::g_iMaxTolvarSize;
  kyStorage::g_iMaxTolvarSize = 100;  // far below the file's size
  EXPECT_EQ(a->Write("abc", 3), 0);
  EXPECT_EQ(Size(), a1 + H() + 16);
  const Bytes before = kytest::ReadAll(path);
  EXPECT_EQ(kyTestAccess::AllocateNextBlock(a.get(), a1), 0);
  EXPECT_EQ(kytest::ReadAll(path), before);

  kyStorage::g_iMaxTolvarSize = normal;
  ASSERT_EQ(a->Write(Pattern(16, 7).data(), 16), 16);
  ASSERT_EQ(b->Write("b", 1), 1);
  const int64_t a2 = Size();
  kyStorage::g_iMaxTolvarSize = a2 + H() + 5;
  ASSERT_EQ(a->Seek(0, 1), 0);
  EXPECT_EQ(a->Write(Pattern(100, 8).data(), 100), 5);
  EXPECT_EQ(Size(), a2 + H() + 16);
  EXPECT_EQ(a->Write("z", 1), 0);
  EXPECT_EQ(a->GetLength(), 21);
}

// The default limits on large sparse files: 4294967295 with 32-bit offsets,
// g_iMaxTolvarSize (4294967296) with 64-bit offsets.
TEST_P(StreamBlocks, FileLimitOnAFileNearFourGigabytes) {
  {
    auto s = Hold(CreateStorage(8));
    ASSERT_EQ(Hold(NewStream(s, "A"))->Write("12345678", 8), 8);
  }
  const int64_t end = (B64() ? 4294967296LL : 4294967295LL) - H() - 5;
  ASSERT_EQ(truncate(path.c_str(), end), 0);
  auto s = Hold(OpenStorage(kModeReadWriteShared, 8));
  ASSERT_NE(s, nullptr);
  auto a = Hold(s->OpenStream("A", kModeReadWriteShared));
  ASSERT_EQ(a->Seek(0, 1), 0);
  EXPECT_EQ(a->Write(Pattern(100, 9).data(), 100), 5);
  EXPECT_EQ(Size(), end + H() + 8);
  EXPECT_EQ(BlockAt(end), Block(H() + 5, H() + 8, DirectoryEnd(), 0));
  EXPECT_EQ(BlockAt(DirectoryEnd()).nextBlock, end);
  EXPECT_EQ(HeaderAt(HeaderOffset(a)).length, 13);
  EXPECT_EQ(a->Write("z", 1), 0);
}

}  // namespace
