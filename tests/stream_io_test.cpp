// Reading, writing and seeking across blocks; truncating writes; length
// changes and the size prefix; whole-stream copies; storages that cannot be
// written (read-only, held in memory).

#include <climits>

#include "support/stream_fixture.h"

using kytest::Bytes;
using kytest::Cursor;
using kytest::CursorOf;
using kytest::HeaderOnDisk;
using kytest::Hold;
using kytest::Pattern;
using kytest::Slice;

namespace {

// A stream "A" of 250 bytes in blocks of 100 (three blocks, because another
// stream is written after each of them), written and closed.
class StreamIo : public kytest::StreamTest {
 protected:
  static constexpr int64_t kBlock = 100;

  void WriteThreeBlocks() {
    auto s = Hold(CreateStorage(kBlock));
    auto a = Hold(NewStream(s, "A"));
    data = Pattern(250, 11);
    for (int64_t done = 0; done < 250; done += kBlock) {
      // Back to A's end: the other stream moved the shared file position.
      if (done > 0) {
        ASSERT_EQ(a->Seek(0, 1), 0);
      }
      blocks.push_back(Size());
      const long long n = std::min<int64_t>(kBlock, 250 - done);
      ASSERT_EQ(a->Write(data.data() + done, n), n);
      const std::string other = "B" + std::to_string(done);
      ASSERT_EQ(Hold(NewStream(s, other.c_str()))->Write("b", 1), 1);
    }
  }
  kytest::Held<kyStream> OpenA(kytest::Held<kyStorage>& s, DWORD mode = kModeReadShared) {
    return Hold(s->OpenStream("A", mode));
  }

  Bytes data;
  std::vector<int64_t> blocks;
};

INSTANTIATE_TEST_SUITE_P(Widths, StreamIo, ::testing::Bool(), kytest::WidthName);

TEST_P(StreamIo, ReadsFollowTheChainInTheFileAndInMemory) {
  WriteThreeBlocks();
  EXPECT_EQ(BlockAt(blocks[0]), Block(H() + 100, H() + 100, 0, blocks[1]));
  EXPECT_EQ(BlockAt(blocks[1]), Block(H() + 100, H() + 100, blocks[0], blocks[2]));
  EXPECT_EQ(BlockAt(blocks[2]), Block(H() + 50, H() + 100, blocks[1], 0));
  for (int load = 0; load < 2; ++load) {
    SCOPED_TRACE(load);
    auto s = Hold(OpenStorage(kModeReadShared, 4096, load));
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(kyTestAccess::InMemory(s.get()), load);
    auto a = OpenA(s);
    auto b = Hold(s->OpenStream("B0", kModeReadShared));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(a->GetLength(), 250);
    EXPECT_EQ(a->Read(nullptr, 4), -1);
    // A read that ends at a block's end stays in that block.
    EXPECT_EQ(ReadSome(a, 100), Slice(data, 0, 100));
    EXPECT_EQ(CursorOf(a), (Cursor{blocks[0], H() + 100, 100}));
    EXPECT_EQ(ReadSome(a, 5), Slice(data, 100, 105));
    EXPECT_EQ(CursorOf(a), (Cursor{blocks[1], H() + 5, 105}));
    // In memory each stream has its own position: no seek is needed.
    if (load) {
      EXPECT_EQ(ReadSome(b, 3), Bytes(1, 'b'));
    }
    // More than the data: what there is; then nothing at the end.
    EXPECT_EQ(ReadSome(a, 400), Slice(data, 105, 250));
    char c;
    EXPECT_EQ(a->Read(&c, 1), 0);
    EXPECT_EQ(CursorOf(a), (Cursor{blocks[2], H() + 50, 250}));
  }
}

TEST_P(StreamIo, OverwritesKeepTheLengthAndTruncatingWritesEndTheStream) {
  WriteThreeBlocks();
  auto s = Hold(OpenStorage(kModeReadWriteShared, kBlock));
  auto a = OpenA(s, kModeReadWriteShared);
  const int64_t size = Size();
  // Across a block's end; the write reports the file offset of its first byte.
  const Bytes twenty = Pattern(20, 5);
  std::copy(twenty.begin(), twenty.end(), data.begin() + 95);
  ASSERT_EQ(a->Seek(95, 0), 0);
  long long at = -1;
  ASSERT_EQ(a->Write(twenty.data(), 20, false, &at), 20);
  EXPECT_EQ(at, blocks[0] + H() + 95);
  EXPECT_EQ(HeaderAt(HeaderOffset(a)), (HeaderOnDisk{0, 250, blocks[2], blocks[0]}));
  EXPECT_EQ(BlockAt(blocks[0]).usedEnd, H() + 100);
  EXPECT_EQ(Contents(a, 250), data);

  ASSERT_EQ(a->Seek(0, 0), 0);
  ASSERT_EQ(a->Write(twenty.data(), 10, true), 10);
  EXPECT_EQ(HeaderAt(HeaderOffset(a)), (HeaderOnDisk{0, 10, blocks[0], blocks[0]}));
  EXPECT_EQ(BlockAt(blocks[0]), Block(H() + 10, H() + 100, 0, blocks[1]));
  EXPECT_EQ(a->GetLength(), 10);
  EXPECT_EQ(Size(), size);
  // The later blocks stay linked and readable.
  EXPECT_EQ(ReadSome(a, 150), Slice(data, 100, 250));
  ASSERT_EQ(a->Seek(0, 1), 0);
  EXPECT_EQ(kyTestAccess::DataPos(a.get()), 10);
}

// Each successful seek is followed by a one-byte read, which the next
// relative seek starts from; a failed one leaves cursor and file position.
TEST_P(StreamIo, SeeksMoveTheCursorAndFailedSeeksLeaveIt) {
  WriteThreeBlocks();
  auto s = Hold(OpenStorage(kModeReadShared, 4096));
  auto a = OpenA(s);
  enum Kind { kForward, kBackward, kSeek2 };
  struct Step {
    Kind kind;
    int64_t distance;
    unsigned origin;
    long long pos;  // -1: the seek fails
    int block;    // index of the block the cursor must be in, or -1
  };
  const Step steps[] = {
      {kForward, 150, 0, 150, 1},  {kForward, 0, 1, 250, 2},     // the end
      {kBackward, 5, 2, 245, 2},   {kBackward, 146, 2, 100, 0},  // walks from the start
      {kForward, 120, 2, 221, 2},  {kForward, 1000, 1, 0, 0},    // before the start
      {kSeek2, -4, 0, 246, 2},     {kSeek2, -46, 1, 201, -1},   {kSeek2, 7, 1, 209, -1},
      {kSeek2, 30, 0, 30, -1},     {kSeek2, 30, 2, 0, -1},      {kSeek2, INT64_MIN, 0, 0, -1},
      {kForward, 250, 0, 250, -1}, {kForward, 130, 0, 130, -1}, {kForward, 251, 0, -1, -1},
      {kForward, 121, 2, -1, -1},  {kForward, -1, 0, -1, -1},   {kForward, 1, 3, -1, -1},
      {kSeek2, 500, 1, -1, -1},
  };
  for (const Step& st : steps) {
    SCOPED_TRACE(::testing::Message() << st.kind << " " << st.distance << " " << st.origin);
    const Cursor before = CursorOf(a);
    const int64_t r =
        st.kind == kSeek2
            ? a->Seek2(st.distance, st.origin)
            : a->Seek(st.distance, static_cast<unsigned char>(st.origin), st.kind == kForward);
    if (st.pos < 0) {
      EXPECT_EQ(r, -1);
      EXPECT_EQ(CursorOf(a), before);
      continue;
    }
    ASSERT_EQ(r, 0);
    EXPECT_EQ(kyTestAccess::DataPos(a.get()), st.pos);
    if (st.block >= 0) {
      const Cursor want{blocks[st.block], H() + st.pos - kBlock * st.block, st.pos};
      EXPECT_EQ(CursorOf(a), want);
    }
    if (st.pos < 250) {
      EXPECT_EQ(ReadSome(a, 1), Bytes(1, data[st.pos]));
    }
  }
  EXPECT_EQ(ReadSome(a, 10), Slice(data, 131, 141));
}

TEST_P(StreamIo, StreamWithoutBlocksReadsAndCopiesNothing) {
  auto s = Hold(CreateStorage(4096));
  auto a = Hold(NewStream(s, "A"));
  char c;
  BYTE* buf = reinterpret_cast<BYTE*>(1);
  EXPECT_EQ(a->Read(&c, 1), 0);
  EXPECT_EQ(a->Seek(0, 0), -1);
  EXPECT_EQ(a->Seek(0, 1), -1);
  EXPECT_EQ(a->CopyStreamToBuffer(buf, FALSE), 0u);
  EXPECT_EQ(buf, nullptr);
  EXPECT_EQ(a->Write(&c, 0), 0);  // appends the first block
  EXPECT_EQ(a->Seek(0, 0), 0);
  EXPECT_EQ(a->Seek(0, 1), 0);
  EXPECT_EQ(a->Read(&c, 1), 0);
  ASSERT_EQ(a->Write("abc", 3), 3);
  ASSERT_EQ(a->Seek(0, 0), 0);
  buf = reinterpret_cast<BYTE*>(1);
  EXPECT_EQ(a->CopyStreamToBuffer(buf, TRUE), 0u);  // shorter than the prefix
  EXPECT_EQ(buf, nullptr);
}

TEST_P(StreamIo, SetLengthOnlyLowersAndEraseKeepsTheBlocks) {
  WriteThreeBlocks();
  auto s = Hold(OpenStorage(kModeReadWriteShared, kBlock));
  auto a = OpenA(s, kModeReadWriteShared);
  const Bytes image = kytest::ReadAll(path);
  kyTestAccess::OpenMode(a.get()) = kModeReadShared;
  EXPECT_FALSE(a->SetLength(10));
  EXPECT_FALSE(a->Erase());
  kyTestAccess::OpenMode(a.get()) = kModeReadWriteShared;
  EXPECT_FALSE(a->SetLength(251));
  EXPECT_FALSE(a->SetLength(-1));
  EXPECT_EQ(kytest::ReadAll(path), image);

  ASSERT_EQ(a->Seek(200, 0), 0);
  EXPECT_TRUE(a->SetLength(120));
  EXPECT_EQ(kyTestAccess::DataPos(a.get()), 0);
  // No block changes.
  EXPECT_EQ(HeaderAt(HeaderOffset(a)), (HeaderOnDisk{0, 120, blocks[2], blocks[0]}));
  EXPECT_EQ(BlockAt(blocks[2]).usedEnd, H() + 50);
  EXPECT_EQ(ReadSome(a, 5), Slice(data, 0, 5));

  ASSERT_EQ(a->Seek(0, 1), 0);
  EXPECT_TRUE(a->Erase());
  EXPECT_EQ(a->GetLength(), 0);
  EXPECT_EQ(HeaderAt(HeaderOffset(a)).length, 0);
  EXPECT_EQ(kyTestAccess::DataPos(a.get()), 0);
  ASSERT_EQ(a->Write("new", 3, true), 3);
  EXPECT_EQ(Size(), static_cast<int64_t>(image.size()));
  EXPECT_EQ(HeaderAt(HeaderOffset(a)), (HeaderOnDisk{0, 3, blocks[0], blocks[0]}));
  EXPECT_EQ(Range(blocks[0] + H(), 3), Bytes({'n', 'e', 'w'}));
}

TEST_P(StreamIo, SizePrefixIsVerifiedAgainstTheData) {
  auto s = Hold(CreateStorage(4096));
  auto plain = Hold(NewStream(s, "P"));
  ASSERT_EQ(plain->Write("abcdef", 6), 6);
  ASSERT_EQ(plain->Seek(0, 0), 0);
  long long len = -1;
  EXPECT_TRUE(plain->GetVerifiedDataLength(len));  // unmarked: nothing is read
  EXPECT_EQ(len, 6);
  EXPECT_EQ(kyTestAccess::DataPos(plain.get()), 0);

  auto a = Hold(NewStream(s, "A"));
  ASSERT_TRUE(a->PrependSize(10));
  ASSERT_EQ(a->Write("0123456789", 10), 10);
  EXPECT_EQ(a->GetLength(), 14);
  EXPECT_EQ(HeaderAt(HeaderOffset(a)).flags, kSizePrefixFlag);
  EXPECT_EQ(HeaderAt(HeaderOffset(a)).length, 14);
  EXPECT_FALSE(a->IsFolder());
  ASSERT_EQ(a->Seek(0, 0), 0);
  EXPECT_TRUE(a->GetVerifiedDataLength(len));
  EXPECT_EQ(len, 10);
  EXPECT_EQ(ReadSome(a, 1), Bytes(1, '0'));

  // A prefix that disagrees with the data.
  ASSERT_EQ(a->Seek(0, 0), 0);
  ASSERT_TRUE(a->PrependSize(3));  // the mark is there already; ends the stream
  EXPECT_EQ(a->GetLength(), 4);
  ASSERT_EQ(a->Seek(0, 0), 0);
  EXPECT_FALSE(a->GetVerifiedDataLength(len));  // exactly 4 bytes: no data
  EXPECT_EQ(len, 4);
  ASSERT_EQ(a->Write("abcd", 4), 4);
  ASSERT_EQ(a->Seek(0, 0), 0);
  EXPECT_FALSE(a->GetVerifiedDataLength(len));
  EXPECT_EQ(len, 4);
}

TEST_P(StreamIo, CopyToBufferWithAndWithoutPrefix) {
  WriteThreeBlocks();
  auto s = Hold(OpenStorage(kModeReadShared, 4096, 1));
  auto a = OpenA(s);
  BYTE* buf = nullptr;
  ASSERT_EQ(a->CopyStreamToBuffer(buf, FALSE), 250u);
  EXPECT_EQ(Bytes(buf, buf + 250), data);
  a->FreeBuffer(buf);
  EXPECT_EQ(buf, nullptr);
  a->FreeBuffer(buf);  // nothing to free
  ASSERT_EQ(a->Seek(0, 0), 0);
  const size_t skip = B64() ? 8 : 4;
  ASSERT_EQ(a->CopyStreamToBuffer(buf, TRUE), 250u - skip);
  EXPECT_EQ(Bytes(buf, buf + 250 - skip), Slice(data, skip, 250));
  a->FreeBuffer(buf);
  // From the end the read comes short: no buffer.
  buf = reinterpret_cast<BYTE*>(1);
  EXPECT_EQ(a->CopyStreamToBuffer(buf, FALSE), 0u);
  EXPECT_EQ(buf, nullptr);
}

// Neither a read-only handle nor an in-memory image lets a byte change.
TEST_P(StreamIo, StoragesThatCannotBeWrittenStayAsTheyWere) {
  WriteThreeBlocks();
  {
    auto s = Hold(OpenStorage(kModeReadWriteShared, kBlock));
    ASSERT_NE(Hold(NewStream(s, "Empty")), nullptr);  // a stream without blocks too
  }
  const Bytes image = kytest::ReadAll(path);
  for (int load = 0; load < 2; ++load) {
    SCOPED_TRACE(load);
    auto s = Hold(OpenStorage(kModeReadShared, kBlock, load));
    ASSERT_NE(s, nullptr);
    auto a = OpenA(s, kModeReadWriteShared);
    auto e = Hold(s->OpenStream("Empty", kModeReadWriteShared));
    ASSERT_NE(e, nullptr);
    const int64_t failed = load ? 0 : -1;  // in memory: nothing to write to
    EXPECT_EQ(a->Write("xyz", 3), failed);
    ASSERT_EQ(a->Seek(0, 1), 0);
    EXPECT_EQ(a->Write("xyz", 3, true), failed);
    EXPECT_EQ(e->Write("xyz", 3), failed);
    EXPECT_EQ(e->Write("", 0), failed);
    EXPECT_FALSE(a->SetLength(5));
    EXPECT_FALSE(a->Erase());
    EXPECT_FALSE(a->PrependSize(3));
    EXPECT_EQ(kyTestAccess::Header(a.get()).Flags(), 0);
    EXPECT_EQ(Contents(a, 250), data);
    a.reset();
    e.reset();
    s.reset();
    EXPECT_EQ(kytest::ReadAll(path), image);
  }
}

}  // namespace
