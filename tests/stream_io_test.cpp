// Stream data: block and header bytes after each kind of write, reads, seeks,
// length changes, the size prefix, file limits, storages that cannot be written.

#include <unistd.h>

#include <climits>
#include <cstring>

#include "support/stream_fixture.h"

namespace {

using namespace kytest;

class StreamIo : public StreamTest {};

TEST_P(StreamIo, ChainOnDiskAndReadsInTheFileAndInMemory) {
  WriteThreeBlocks();
  EXPECT_EQ(Block(H() + 100, H() + 100, 0, blocks[1]), BlockAt(blocks[0]));
  EXPECT_EQ(Block(H() + 120, H() + 120, blocks[0], blocks[2]), BlockAt(blocks[1]));
  EXPECT_EQ(Block(H() + 30, H() + 100, blocks[1], 0), BlockAt(blocks[2]));
  EXPECT_EQ(HeaderOnDisk(0, 250, blocks[2], blocks[0]), HeaderAt(headerA));
  EXPECT_EQ(Size(), blocks[2] + H() + 100);
  for (int load = 0; load < 2; ++load) {
    kyStream* a = Must(OpenA(kRO, load));
    auto b = Hold(OpenRoot("B"));
    EXPECT_EQ(-1, a->Read(nullptr, 4));
    // A read that ends at a block's end stays in that block.
    EXPECT_EQ(Slice(data, 0, 100), ReadSome(a, 100));
    EXPECT_EQ(At(0, 100), CursorOf(a));
    EXPECT_EQ(Slice(data, 100, 105), ReadSome(a, 5));
    EXPECT_EQ(At(1, 105), CursorOf(a));
    if (load) {  // in memory each stream has its own position
      EXPECT_EQ(Bytes(1, 'x'), ReadSome(b.get(), 3));
    }
    EXPECT_EQ(Slice(data, 105, 250), ReadSome(a, 400));
    EXPECT_EQ(Bytes(), ReadSome(a, 1));
    EXPECT_EQ(At(2, 250), CursorOf(a));
    EXPECT_TRUE(NoCopy(a));  // short from the end: no buffer
    BYTE* buf = nullptr;
    for (int skip : {0, B64() ? 8 : 4}) {
      ASSERT_EQ(0, a->Seek(0, 0));
      ASSERT_EQ(250u - skip, a->CopyStreamToBuffer(buf, skip != 0));
      EXPECT_EQ(Slice(data, skip, 250), Bytes(buf, buf + 250 - skip));
      a->FreeBuffer(buf);
      EXPECT_EQ(nullptr, buf);
    }
  }
}

// Overwrites keep the length; truncation, SetLength and Erase keep the blocks.
TEST_P(StreamIo, WritesInsideTheDataAndLengthChanges) {
  WriteThreeBlocks();
  kyStream* a = Must(OpenA(kRW));
  const Bytes image = ReadAll(path);
  ASSERT_EQ(0, a->Seek(200, 0));
  EXPECT_TRUE(a->SetLength(120));
  EXPECT_EQ(0, kyTestAccess::DataPos(a));
  EXPECT_EQ(HeaderOnDisk(0, 120, blocks[2], blocks[0]), HeaderAt(headerA));
  // Across a block's end; the write reports the file offset of its first byte.
  Bytes expected = Slice(data, 0, 120);
  const Bytes twenty = Pattern(20, 5);
  std::copy(twenty.begin(), twenty.end(), expected.begin() + 95);
  ASSERT_EQ(0, a->Seek(95, 0));
  long long at = -1;
  ASSERT_EQ(20, a->Write(twenty.data(), 20, false, &at));
  EXPECT_EQ(blocks[0] + H() + 95, at);
  EXPECT_EQ(HeaderOnDisk(0, 120, blocks[2], blocks[0]), HeaderAt(headerA));
  EXPECT_EQ(Block(H() + 100, H() + 100, 0, blocks[1]), BlockAt(blocks[0]));
  EXPECT_EQ(expected, Contents(a, 120));
  ASSERT_EQ(0, a->Seek(0, 0));
  ASSERT_EQ(10, a->Write(twenty.data(), 10, true));
  EXPECT_EQ(HeaderOnDisk(0, 10, blocks[0], blocks[0]), HeaderAt(headerA));
  EXPECT_EQ(Block(H() + 10, H() + 100, 0, blocks[1]), BlockAt(blocks[0]));
  EXPECT_EQ(Block(H() + 30, H() + 100, blocks[1], 0), BlockAt(blocks[2]));
  EXPECT_EQ(Slice(expected, 100, 120), ReadSome(a, 20));  // later blocks stay linked
  ASSERT_EQ(0, a->Seek(0, 1));
  EXPECT_EQ(10, kyTestAccess::DataPos(a));
  EXPECT_TRUE(a->Erase());
  EXPECT_EQ(0, kyTestAccess::DataPos(a));
  ASSERT_EQ(3, a->Write("new", 3, true));
  EXPECT_EQ(static_cast<int64_t>(image.size()), Size());
  EXPECT_EQ(HeaderOnDisk(0, 3, blocks[0], blocks[0]), HeaderAt(headerA));
  EXPECT_EQ(Bytes({'n', 'e', 'w'}), Range(blocks[0] + H(), 3));
}

// Each seek is followed by a one-byte read; a failed one leaves the cursor.
TEST_P(StreamIo, SeeksMoveTheCursorAndFailedSeeksLeaveIt) {
  WriteThreeBlocks();
  kyStream* a = Must(OpenA());
  enum Kind { kForward, kBackward, kSeek2 };
  const struct {
    Kind kind;
    int64_t distance;
    unsigned origin;
    long long pos;  // -1: the seek fails
    int block;      // index of the block the cursor must be in, or -1
  } steps[] = {
      {kForward, 150, 0, 150, 1},  {kForward, 0, 1, 250, 2},     // the end
      {kBackward, 5, 2, 245, 2},   {kBackward, 146, 2, 100, 0},  // walks from the start
      {kForward, 120, 2, 221, 2},  {kForward, 1000, 1, 0, 0},    // before the start
      {kSeek2, -4, 0, 246, 2},     {kSeek2, -46, 1, 201, -1},   {kSeek2, 7, 1, 209, -1},
      {kSeek2, 30, 0, 30, -1},     {kSeek2, 30, 2, 0, -1},      {kSeek2, INT64_MIN, 0, 0, -1},
      {kForward, 250, 0, 250, -1}, {kForward, 130, 0, 130, -1}, {kForward, 251, 0, -1, -1},
      {kForward, 121, 2, -1, -1},  {kForward, -1, 0, -1, -1},   {kForward, 1, 3, -1, -1},
      {kSeek2, 500, 1, -1, -1},
  };
  for (const auto& st : steps) {
    SCOPED_TRACE(::testing::Message() << st.kind << " " << st.distance << " " << st.origin);
    const Cursor before = CursorOf(a);
    const int64_t r =
        st.kind == kSeek2
            ? a->Seek2(st.distance, st.origin)
            : a->Seek(st.distance, static_cast<unsigned char>(st.origin), st.kind == kForward);
    if (st.pos < 0) {
      EXPECT_EQ(-1, r);
      EXPECT_EQ(before, CursorOf(a));
      continue;
    }
    ASSERT_EQ(0, r);
    EXPECT_EQ(st.pos, kyTestAccess::DataPos(a));
    EXPECT_EQ(st.block < 0 ? CursorOf(a) : At(st.block, st.pos), CursorOf(a));
    EXPECT_EQ(Slice(data, st.pos, std::min(st.pos + 1, 250LL)), ReadSome(a, 1));
  }
  EXPECT_EQ(Slice(data, 131, 141), ReadSome(a, 10));
}

TEST_P(StreamIo, SizePrefixIsVerifiedAgainstTheData) {
  Make(4096);
  long long len = -1;
  kyStream* a = Keep(New("A"));
  ASSERT_TRUE(a->PrependSize(10));
  ASSERT_EQ(10, a->Write("0123456789", 10));
  const int64_t block = kyTestAccess::CurBlock(a);
  EXPECT_EQ(HeaderOnDisk(kSizePrefixFlag, 14, block, block), HeaderAt(HeaderOffset(a)));
  ASSERT_EQ(0, a->Seek(0, 0));
  EXPECT_TRUE(a->GetVerifiedDataLength(len) && len == 10);
  EXPECT_EQ(Bytes(1, '0'), ReadSome(a, 1));
  // A prefix that disagrees with the data; exactly 4 bytes: no data at all.
  ASSERT_EQ(0, a->Seek(0, 0));
  ASSERT_TRUE(a->PrependSize(3));  // the mark is there already; ends the stream
  for (const char* more : {"", "abcd"}) {
    ASSERT_EQ(static_cast<int64_t>(strlen(more)), a->Write(more, strlen(more)));
    ASSERT_EQ(0, a->Seek(0, 0));
    EXPECT_TRUE(!a->GetVerifiedDataLength(len) && len == 4);
    ASSERT_EQ(0, a->Seek(0, 1));
  }
}

// Neither a read-only handle nor an in-memory image lets a byte change.
TEST_P(StreamIo, StoragesThatCannotBeWrittenStayAsTheyWere) {
  WriteThreeBlocks();
  Reopen(kRW);
  Add("Empty");  // a stream without blocks too
  const Bytes image = ReadAll(path);
  for (int load = 0; load < 2; ++load) {
    kyStream* a = Must(OpenA(kRO, load));
    auto e = Hold(OpenRoot("Empty", kRW));
    const int64_t failed = load ? 0 : -1;  // in memory: nothing to write to
    ASSERT_EQ(0, a->Seek(0, 1));
    EXPECT_EQ(failed, a->Write("xyz", 3, true));
    for (int n : {3, 0}) EXPECT_EQ(failed, e->Write("xyz", n));
    EXPECT_FALSE(a->SetLength(5) || a->Erase() || a->PrependSize(3));
    EXPECT_TRUE(kyTestAccess::Header(a).Flags() == 0 && Contents(a, 250) == data);
    EXPECT_EQ(image, ReadAll(path));
  }
}

// A first block comes with a write; a next one is appended, not linked.
TEST_P(StreamIo, FirstAndNextBlocksAreAppendedWhole) {
  Make(4096);
  kyStream* a = Keep(New("A"));
  EXPECT_TRUE(NoCopy(a) && ReadSome(a, 1).empty());
  EXPECT_TRUE(a->Seek(0, 0) == -1 && a->Seek(0, 1) == -1);
  const int64_t end = Size();
  EXPECT_EQ(0, a->Write("", 0));
  EXPECT_EQ(end + H() + 4096, Size());
  EXPECT_EQ(HeaderOnDisk(0, 0, 0, end), HeaderAt(HeaderOffset(a)));
  EXPECT_EQ(end, kyTestAccess::LastAppended(storage));
  // The position stands just past the header's firstBlock field.
  EXPECT_EQ(HeaderOffset(a) + W(), kyTestAccess::StreamSetFilePointer(a, 0, FILE_CURRENT));
  const int64_t next = kyTestAccess::AllocateNextBlock(a, end);
  EXPECT_EQ(end + H() + 4096, next);
  EXPECT_EQ(next + H() + 4096, Size());
  EXPECT_EQ(next, kyTestAccess::StreamSetFilePointer(a, 0, FILE_CURRENT));
  EXPECT_EQ(next, kyTestAccess::LastAppended(storage));
  EXPECT_EQ(Block(H(), H() + 4096, end, 0), BlockAt(next));
  EXPECT_EQ(Block(H(), H() + 4096, 0, 0), BlockAt(end));
  EXPECT_TRUE(a->Seek(0, 0) == 0 && a->Seek(0, 1) == 0 && ReadSome(a, 1).empty());
  ASSERT_EQ(3, a->Write("abc", 3));
  EXPECT_TRUE(NoCopy(a, TRUE));  // shorter than the prefix
}

TEST_P(StreamIo, NoBlockGrowsInPlaceRightAfterOpening) {
  WriteThreeBlocks();
  const int64_t end = Size();
  kyStream* a = Must(OpenA(kRW));
  EXPECT_EQ(end, kyTestAccess::LastAppended(storage));
  ASSERT_EQ(0, a->Seek(0, 1));
  // 70 bytes fit the room left; 50 more do not, although the block ends the file.
  const Bytes more = Pattern(120, 4);
  ASSERT_EQ(70, a->Write(more.data(), 70));
  EXPECT_EQ(end, Size());
  ASSERT_EQ(50, a->Write(more.data() + 70, 50));
  EXPECT_EQ(Block(H() + 100, H() + 100, blocks[1], end), BlockAt(blocks[2]));
  EXPECT_EQ(Block(H() + 50, H() + 100, blocks[2], 0), BlockAt(end));
  EXPECT_EQ(HeaderOnDisk(0, 370, end, blocks[0]), HeaderAt(headerA));
  EXPECT_EQ(Concat(data, more), Contents(a, 370));
}

// Header-only blocks (folders, block size 0) grow in place at the file's end.
TEST_P(StreamIo, HeaderOnlyBlocks) {
  WriteThreeBlocks();
  EXPECT_EQ(Block(H() + 4, H() + 4, 0, 0), BlockAt(f1));  // the child count
  Reopen(kRW);
  kyStream* f = Keep(OpenRoot("F", kRW));
  const int64_t f2 = Size();
  ASSERT_EQ(0, f->Seek(0, 1));
  ASSERT_EQ(4, f->Write("abcd", 4));
  EXPECT_EQ(f2 + H() + 4, Size());
  EXPECT_EQ(Block(H() + 4, H() + 4, 0, f2), BlockAt(f1));
  EXPECT_EQ(Block(H() + 4, H() + 4, f1, 0), BlockAt(f2));
  EXPECT_EQ(HeaderOnDisk(kFolderFlag, 8, f2, f1), HeaderAt(HeaderOffset(f)));
  held.reset();  // F goes back before its storage
  Make(0);
  kyStream* a = Keep(New("A"));
  const int64_t a1 = Size();
  ASSERT_EQ(0, a->Write("", 0));
  EXPECT_EQ(Block(H(), H(), 0, 0), BlockAt(a1));
  ASSERT_EQ(10, a->Write("0123456789", 10));
  EXPECT_EQ(a1 + H() + 10, Size());
  EXPECT_EQ(Block(H() + 10, H() + 10, 0, 0), BlockAt(a1));
}

// The default file limits on sparse files: 2^32-1 (32-bit), 2^32 (64-bit).
TEST_P(StreamIo, FileLimitOnAFileNearFourGigabytes) {
  WriteThreeBlocks();
  const int64_t end = (B64() ? 4294967296LL : 4294967295LL) - H() - 5;
  ASSERT_EQ(0, truncate(path.c_str(), end));
  kyStream* a = Must(OpenA(kRW));
  ASSERT_EQ(0, a->Seek(0, 1));
  EXPECT_EQ(70 + 5, a->Write(data.data(), 100));
  EXPECT_EQ(end + H() + 100, Size());
  EXPECT_EQ(Block(H() + 5, H() + 100, blocks[2], 0), BlockAt(end));
  EXPECT_EQ(HeaderOnDisk(0, 325, end, blocks[0]), HeaderAt(headerA));
  EXPECT_EQ(0, a->Write("z", 1));
}

INSTANTIATE_TEST_SUITE_P(Widths, StreamIo, ::testing::Bool(), WidthName);

}  // namespace
