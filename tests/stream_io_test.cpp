// Reading, writing and seeking across blocks; truncating writes; length
// changes and the size prefix; whole-stream copies; storages that cannot be
// written (read-only, held in memory).

#include <cstring>

#include "platform/global_mem.h"
#include "support/stream_fixture.h"

using kytest::BlockOnDisk;
using kytest::Bytes;
using kytest::Concat;
using kytest::HeaderOnDisk;
using kytest::Pattern;

namespace {

// A stream "A" of 250 bytes in blocks of 100 (three blocks, because a
// stream "B" is written between each of them), written and closed.
class StreamIo : public kytest::StreamTest {
 protected:
  static const int64_t kBlock = 100;

  void WriteThreeBlocks() {
    kyStorage* s = CreateStorage(kBlock);
    kyStream* a = NewStream(s, "A");
    data = Pattern(250, 11);
    blocks.clear();
    const char* others[] = {"B", "C", "D"};
    for (int64_t done = 0, i = 0; done < 250; done += kBlock, ++i) {
      const int64_t n = done + kBlock <= 250 ? kBlock : 250 - done;
      // Back to A's end: the other stream moved the shared file position.
      if (done > 0) {
        ASSERT_EQ(a->Seek(0, 1), 0);
      }
      blocks.push_back(Size());
      ASSERT_EQ(a->Write(data.data() + done, n), n);
      // Another stream's first block ends the file now, so A's next write
      // needs a new block.
      kyStream* other = NewStream(s, others[i]);
      ASSERT_EQ(other->Write("b", 1), 1);
      other->Release();
    }
    a->Release();
    s->Release();
  }

  // Cursor as a triple, for comparisons.
  struct Cursor {
    int64_t block, blockPos, dataPos;
    bool operator==(const Cursor& o) const {
      return block == o.block && blockPos == o.blockPos && dataPos == o.dataPos;
    }
  };
  static Cursor CursorOf(kyStream* s) {
    return {kyTestAccess::CurBlock(s), kyTestAccess::BlockPos(s), kyTestAccess::DataPos(s)};
  }
  Bytes ReadAt(kyStream* s, int64_t n) {
    Bytes out(static_cast<size_t>(n), 0);
    const int64_t got = s->Read(out.data(), n);
    out.resize(static_cast<size_t>(got < 0 ? 0 : got));
    return out;
  }

  Bytes data;
  std::vector<int64_t> blocks;
};

INSTANTIATE_TEST_SUITE_P(Widths, StreamIo, ::testing::Bool(), kytest::WidthName);

TEST_P(StreamIo, ChainAcrossBlocksSurvivesReopenAndInMemoryLoad) {
  WriteThreeBlocks();
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_EQ(BlockAt(blocks[0]).nextBlock, blocks[1]);
  EXPECT_EQ(BlockAt(blocks[1]).nextBlock, blocks[2]);
  EXPECT_EQ(BlockAt(blocks[2]).usedEnd, H() + 50);
  for (int load = 0; load < 2; ++load) {
    kyStorage* s = OpenStorage(kModeReadShared, 4096, load);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(kyTestAccess::InMemory(s), load);
    kyStream* a = s->OpenStream("A", kModeReadShared);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->GetLength(), 250);
    EXPECT_EQ(a->Read(nullptr, 4), -1);
    // More than the data: what there is; then nothing at the end.
    Bytes all(400, 0);
    EXPECT_EQ(a->Read(all.data(), 400), 250);
    all.resize(250);
    EXPECT_EQ(all, data);
    EXPECT_EQ(a->Read(all.data(), 10), 0);
    EXPECT_EQ(CursorOf(a), (Cursor{blocks[2], H() + 50, 250}));
    a->Release();
    s->Release();
  }
}

TEST_P(StreamIo, ReadEndingAtABlockEndStaysInThatBlock) {
  WriteThreeBlocks();
  kyStorage* s = OpenStorage(kModeReadShared, 4096);
  kyStream* a = s->OpenStream("A", kModeReadShared);
  EXPECT_EQ(ReadAt(a, 100), Bytes(data.begin(), data.begin() + 100));
  EXPECT_EQ(CursorOf(a), (Cursor{blocks[0], H() + 100, 100}));
  EXPECT_EQ(ReadAt(a, 5), Bytes(data.begin() + 100, data.begin() + 105));
  EXPECT_EQ(CursorOf(a), (Cursor{blocks[1], H() + 5, 105}));
  a->Release();
  s->Release();
}

TEST_P(StreamIo, InMemoryStreamsKeepTheirOwnPositions) {
  WriteThreeBlocks();
  kyStorage* s = OpenStorage(kModeReadShared, 4096, 1);
  kyStream* a = s->OpenStream("A", kModeReadShared);
  kyStream* b = s->OpenStream("B", kModeReadShared);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(ReadAt(a, 120), Bytes(data.begin(), data.begin() + 120));
  EXPECT_EQ(ReadAt(b, 3), Bytes(1, 'b'));
  // No seek in between: each stream has its own position in the image.
  EXPECT_EQ(ReadAt(a, 130), Bytes(data.begin() + 120, data.end()));
  a->Release();
  b->Release();
  s->Release();
}

TEST_P(StreamIo, OverwriteKeepsLengthAndEraseOldEndsTheStream) {
  WriteThreeBlocks();
  kyStorage* s = OpenStorage(kModeReadWriteShared, kBlock);
  kyStream* a = s->OpenStream("A", kModeReadWriteShared);
  const Bytes ten = Pattern(10, 99);
  ASSERT_EQ(a->Write(ten.data(), 10), 10);
  HeaderOnDisk hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.length, 250);
  EXPECT_EQ(hdr.lastBlock, blocks[2]);
  EXPECT_EQ(BlockAt(blocks[0]).usedEnd, H() + 100);

  ASSERT_EQ(a->Seek(0, 0), 0);
  ASSERT_EQ(a->Write(ten.data(), 10, true), 10);
  hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.length, 10);
  EXPECT_EQ(hdr.lastBlock, blocks[0]);
  EXPECT_EQ(hdr.firstBlock, blocks[0]);
  BlockOnDisk first = BlockAt(blocks[0]);
  EXPECT_EQ(first.usedEnd, H() + 10);
  EXPECT_EQ(first.allocEnd, H() + 100);
  EXPECT_EQ(first.nextBlock, blocks[1]);
  EXPECT_EQ(a->GetLength(), 10);
  // The later blocks stay linked and readable.
  EXPECT_EQ(ReadAt(a, 150), Bytes(data.begin() + 100, data.end()));
  ASSERT_EQ(a->Seek(0, 1), 0);
  EXPECT_EQ(kyTestAccess::DataPos(a), 10);
  a->Release();
  s->Release();
}

TEST_P(StreamIo, WriteReportsTheFileOffsetOfItsFirstByte) {
  WriteThreeBlocks();
  kyStorage* s = OpenStorage(kModeReadWriteShared, kBlock);
  kyStream* a = s->OpenStream("A", kModeReadWriteShared);
  ASSERT_EQ(a->Seek(95, 0), 0);
  int64_t at = -1;
  ASSERT_EQ(a->Write(Pattern(20, 5).data(), 20, false, &at), 20);
  EXPECT_EQ(at, blocks[0] + H() + 95);
  EXPECT_EQ(Contents(a, 250), Concat(Concat(Bytes(data.begin(), data.begin() + 95), Pattern(20, 5)),
                                     Bytes(data.begin() + 115, data.end())));
  a->Release();
  s->Release();
}

TEST_P(StreamIo, SeeksFromStartEndAndCursor) {
  WriteThreeBlocks();
  kyStorage* s = OpenStorage(kModeReadShared, 4096);
  kyStream* a = s->OpenStream("A", kModeReadShared);
  ASSERT_EQ(a->Seek(150, 0), 0);
  EXPECT_EQ(CursorOf(a), (Cursor{blocks[1], H() + 50, 150}));
  EXPECT_EQ(ReadAt(a, 1), Bytes(1, data[150]));

  ASSERT_EQ(a->Seek(0, 1), 0);
  EXPECT_EQ(CursorOf(a), (Cursor{blocks[2], H() + 50, 250}));
  ASSERT_EQ(a->Seek(5, 2, false), 0);  // inside the last block
  EXPECT_EQ(CursorOf(a), (Cursor{blocks[2], H() + 45, 245}));
  EXPECT_EQ(ReadAt(a, 1), Bytes(1, data[245]));
  ASSERT_EQ(a->Seek(146, 2, false), 0);  // back across blocks: a walk from the start
  EXPECT_EQ(CursorOf(a), (Cursor{blocks[0], H() + 100, 100}));
  EXPECT_EQ(ReadAt(a, 1), Bytes(1, data[100]));
  ASSERT_EQ(a->Seek(120, 2, true), 0);
  EXPECT_EQ(CursorOf(a), (Cursor{blocks[2], H() + 21, 221}));
  EXPECT_EQ(ReadAt(a, 1), Bytes(1, data[221]));
  ASSERT_EQ(a->Seek(1000, 1), 0);  // before the start is the start
  EXPECT_EQ(kyTestAccess::DataPos(a), 0);
  EXPECT_EQ(ReadAt(a, 1), Bytes(1, data[0]));

  ASSERT_EQ(a->Seek2(-4, 0), 0);
  EXPECT_EQ(kyTestAccess::DataPos(a), 246);
  EXPECT_EQ(ReadAt(a, 4), Bytes(data.begin() + 246, data.end()));
  ASSERT_EQ(a->Seek2(-46, 1), 0);
  EXPECT_EQ(ReadAt(a, 1), Bytes(1, data[204]));
  ASSERT_EQ(a->Seek2(7, 1), 0);
  EXPECT_EQ(ReadAt(a, 1), Bytes(1, data[212]));
  ASSERT_EQ(a->Seek2(30, 0), 0);
  EXPECT_EQ(ReadAt(a, 1), Bytes(1, data[30]));
  ASSERT_EQ(a->Seek2(30, 2), 0);
  EXPECT_EQ(kyTestAccess::DataPos(a), 0);
  ASSERT_EQ(a->Seek2(INT64_MIN, 0), 0);
  EXPECT_EQ(kyTestAccess::DataPos(a), 0);
  // Exactly to the end succeeds.
  ASSERT_EQ(a->Seek(250, 0), 0);
  EXPECT_EQ(kyTestAccess::DataPos(a), 250);
  a->Release();
  s->Release();
}

TEST_P(StreamIo, FailedSeeksLeaveTheCursorAndPositionAlone) {
  WriteThreeBlocks();
  kyStorage* s = OpenStorage(kModeReadShared, 4096);
  kyStream* a = s->OpenStream("A", kModeReadShared);
  ASSERT_EQ(a->Seek(130, 0), 0);
  const Cursor before = CursorOf(a);
  EXPECT_EQ(a->Seek(251, 0), -1);
  EXPECT_EQ(a->Seek(121, 2, true), -1);
  EXPECT_EQ(a->Seek(-1, 0), -1);
  EXPECT_EQ(a->Seek(1, 3), -1);
  EXPECT_EQ(a->Seek2(500, 1), -1);
  EXPECT_EQ(CursorOf(a), before);
  // The file position was put back too: the next read continues at 130.
  EXPECT_EQ(ReadAt(a, 10), Bytes(data.begin() + 130, data.begin() + 140));
  a->Release();
  s->Release();
}

TEST_P(StreamIo, StreamWithoutBlocksReadsNothingAndCannotSeek) {
  kyStorage* s = CreateStorage(4096);
  kyStream* a = NewStream(s, "A");
  char c;
  EXPECT_EQ(a->Read(&c, 1), 0);
  EXPECT_EQ(a->Seek(0, 0), -1);
  EXPECT_EQ(a->Seek(0, 1), -1);
  EXPECT_EQ(a->Write(&c, 0), 0);  // appends the first block
  EXPECT_EQ(a->Seek(0, 0), 0);
  EXPECT_EQ(a->Seek(0, 1), 0);
  EXPECT_EQ(a->Read(&c, 1), 0);
  a->Release();
  s->Release();
}

TEST_P(StreamIo, SetLengthOnlyLowersAndNeedsTheWriteBit) {
  WriteThreeBlocks();
  kyStorage* s = OpenStorage(kModeReadWriteShared, kBlock);
  kyStream* a = s->OpenStream("A", kModeReadWriteShared);
  const Bytes image = kytest::ReadAll(path);
  kyTestAccess::OpenMode(a) = kModeReadShared;
  EXPECT_FALSE(a->SetLength(10));
  EXPECT_FALSE(a->Erase());
  kyTestAccess::OpenMode(a) = kModeReadWriteShared;
  EXPECT_FALSE(a->SetLength(251));
  EXPECT_FALSE(a->SetLength(-1));
  EXPECT_EQ(kytest::ReadAll(path), image);
  EXPECT_EQ(a->GetLength(), 250);

  ASSERT_EQ(a->Seek(200, 0), 0);
  EXPECT_TRUE(a->SetLength(120));
  EXPECT_EQ(kyTestAccess::DataPos(a), 0);
  HeaderOnDisk hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.length, 120);
  EXPECT_EQ(hdr.lastBlock, blocks[2]);  // no block changes
  EXPECT_EQ(BlockAt(blocks[2]).usedEnd, H() + 50);
  EXPECT_EQ(ReadAt(a, 5), Bytes(data.begin(), data.begin() + 5));
  a->Release();
  s->Release();
}

TEST_P(StreamIo, EraseKeepsTheBlocksAndStartsOver) {
  WriteThreeBlocks();
  kyStorage* s = OpenStorage(kModeReadWriteShared, kBlock);
  kyStream* a = s->OpenStream("A", kModeReadWriteShared);
  ASSERT_EQ(a->Seek(0, 1), 0);
  const int64_t size = Size();
  EXPECT_TRUE(a->Erase());
  EXPECT_EQ(a->GetLength(), 0);
  EXPECT_EQ(HeaderAt(HeaderOffset(a)).length, 0);
  EXPECT_EQ(kyTestAccess::DataPos(a), 0);
  ASSERT_EQ(a->Write("new", 3, true), 3);
  EXPECT_EQ(Size(), size);
  HeaderOnDisk hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.length, 3);
  EXPECT_EQ(hdr.lastBlock, blocks[0]);
  EXPECT_EQ(Range(blocks[0] + H(), 3), Bytes({'n', 'e', 'w'}));
  a->Release();
  s->Release();
}

TEST_P(StreamIo, SizePrefixIsVerifiedAgainstTheData) {
  kyStorage* s = CreateStorage(4096);
  kyStream* a = NewStream(s, "A");
  ASSERT_TRUE(a->PrependSize(10));
  ASSERT_EQ(a->Write("0123456789", 10), 10);
  EXPECT_EQ(a->GetLength(), 14);
  HeaderOnDisk hdr = HeaderAt(HeaderOffset(a));
  EXPECT_EQ(hdr.flags, kSizePrefixFlag);
  EXPECT_EQ(hdr.length, 14);
  EXPECT_FALSE(a->IsFolder());
  ASSERT_EQ(a->Seek(0, 0), 0);
  int64_t len = -1;
  EXPECT_TRUE(a->GetVerifiedDataLength(len));
  EXPECT_EQ(len, 10);
  EXPECT_EQ(kyTestAccess::DataPos(a), 4);
  char first = 0;
  EXPECT_EQ(a->Read(&first, 1), 1);
  EXPECT_EQ(first, '0');

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
  a->Release();
  s->Release();
}

TEST_P(StreamIo, UnmarkedStreamIsVerifiedWithoutReading) {
  kyStorage* s = CreateStorage(4096);
  kyStream* a = NewStream(s, "A");
  ASSERT_EQ(a->Write("abcdef", 6), 6);
  ASSERT_EQ(a->Seek(0, 0), 0);
  int64_t len = 0;
  EXPECT_TRUE(a->GetVerifiedDataLength(len));
  EXPECT_EQ(len, 6);
  EXPECT_EQ(kyTestAccess::DataPos(a), 0);
  a->Release();
  s->Release();
}

TEST_P(StreamIo, CopyToBufferWithAndWithoutPrefix) {
  WriteThreeBlocks();
  kyStorage* s = OpenStorage(kModeReadShared, 4096, 1);
  kyStream* a = s->OpenStream("A", kModeReadShared);
  BYTE* buf = nullptr;
  ASSERT_EQ(a->CopyStreamToBuffer(buf, FALSE), 250u);
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(Bytes(buf, buf + 250), data);
  a->FreeBuffer(buf);
  EXPECT_EQ(buf, nullptr);
  a->FreeBuffer(buf);  // nothing to free

  ASSERT_EQ(a->Seek(0, 0), 0);
  const size_t skip = B64() ? 8 : 4;
  ASSERT_EQ(a->CopyStreamToBuffer(buf, TRUE), 250u - skip);
  EXPECT_EQ(Bytes(buf, buf + 250 - skip), Bytes(data.begin() + skip, data.end()));
  a->FreeBuffer(buf);

  // From the end the read comes short: no buffer.
  buf = reinterpret_cast<BYTE*>(1);
  EXPECT_EQ(a->CopyStreamToBuffer(buf, FALSE), 0u);
  EXPECT_EQ(buf, nullptr);
  a->Release();
  s->Release();
}

TEST_P(StreamIo, CopyOfAnEmptyStreamGivesNoBuffer) {
  kyStorage* s = CreateStorage(4096);
  kyStream* a = NewStream(s, "A");
  BYTE* buf = reinterpret_cast<BYTE*>(1);
  EXPECT_EQ(a->CopyStreamToBuffer(buf, FALSE), 0u);
  EXPECT_EQ(buf, nullptr);
  ASSERT_EQ(a->Write("abc", 3), 3);
  ASSERT_EQ(a->Seek(0, 0), 0);
  buf = reinterpret_cast<BYTE*>(1);
  EXPECT_EQ(a->CopyStreamToBuffer(buf, TRUE), 0u);  // shorter than the prefix
  EXPECT_EQ(buf, nullptr);
  a->Release();
  s->Release();
}

// Neither a read-only handle nor an in-memory image lets a byte change.
TEST_P(StreamIo, StoragesThatCannotBeWrittenStayAsTheyWere) {
  WriteThreeBlocks();
  {
    // A stream without blocks as well.
    kyStorage* s = OpenStorage(kModeReadWriteShared, kBlock);
    kyStream* e = NewStream(s, "Empty");
    ASSERT_NE(e, nullptr);
    e->Release();
    s->Release();
  }
  const Bytes image = kytest::ReadAll(path);
  for (int load = 0; load < 2; ++load) {
    kyStorage* s = OpenStorage(kModeReadShared, kBlock, load);
    ASSERT_NE(s, nullptr);
    kyStream* a = s->OpenStream("A", kModeReadWriteShared);
    kyStream* e = s->OpenStream("Empty", kModeReadWriteShared);
    ASSERT_NE(a, nullptr);
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
    EXPECT_EQ(kyTestAccess::Header(a).Flags(), 0);
    EXPECT_EQ(Contents(a, 250), data);
    a->Release();
    e->Release();
    s->Release();
    EXPECT_EQ(kytest::ReadAll(path), image);
  }
}

}  // namespace
