// Damaged blocks, links and lengths: walks fail cleanly and a writer never
// touches another stream's bytes.

#include <climits>
#include <string>
#include <vector>

#include "support/stream_fixture.h"

namespace {

using namespace kytest;

class StreamDamage : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    WriteThreeBlocks();
    pristine = ReadAll(path);
  }
  // Writes `image` and opens A in it (writable, or read-only in memory).
  kyStream* Open(const Bytes& image, int inMemory) {
    held.reset();
    WriteAll(path, image);
    return OpenA(inMemory ? kRO : kRW, inMemory);
  }
  // The file's first `n` bytes with A's blocks and slot blanked: what no
  // operation on A may change.
  Bytes OthersOf(Bytes image, size_t n) const {
    image.resize(n);
    const int64_t spans[][2] = {{blocks[0], 100}, {blocks[1], 120}, {blocks[2], 100}};
    for (const auto& span : spans) std::fill_n(image.begin() + span[0], H() + span[1], 0);
    std::fill_n(image.begin() + headerA, W(), 0);
    return image;
  }
  // Everything a reader can do; none of it may hang or crash.
  static void ExerciseReads(kyStream* a) {
    Bytes buf(4096);
    long long len = 0;
    BYTE* copy = nullptr;
    a->Read(buf.data(), 4096);
    for (int origin : {0, 1, 2}) a->Seek(3, static_cast<unsigned char>(origin), false);
    a->Seek(100000, 0);
    a->Seek2(-3, 0);
    a->Read(buf.data(), 100);
    a->CopyStreamToBuffer(copy, TRUE);
    a->FreeBuffer(copy);
    a->GetVerifiedDataLength(len);
  }

  Bytes pristine;
};

// Readers fail at a refused block or link.  A writer refuses a bad first
// block before writing, and cuts a bad link for a fresh block; either way
// every other stream's bytes stay.
TEST_P(StreamDamage, RefusedBlocksAndLinksNeverReachOtherStreams) {
  const int64_t end = static_cast<int64_t>(pristine.size()), a1 = blocks[0], a3 = blocks[2];
  typedef std::vector<std::tuple<int64_t, BlockField, int64_t>> Changes;
  const struct {
    const char* what;
    Changes changes;
    bool writeRefused;
  } cases[] = {
      {"bad magic", {{a1, kMagic, 0xFAFAFAFB}}, true},
      {"room past the end of the file", {{a1, kAllocEnd, end + 1000}}, true},
      {"data beyond the room", {{a1, kAllocEnd, H() + 8}}, true},
      {"data ending inside the header", {{a1, kUsedEnd, H() - 1}}, true},
      {"room ending inside the header", {{a1, kAllocEnd, H() - 1}}, true},
      {"impossibly large data end", {{a1, kUsedEnd, B64() ? INT64_MAX : 0xFFFFFFFFLL}}, true},
      {"bad magic in the next block", {{blocks[1], kMagic, 0}}, false},
      {"block linked to itself", {{a3, kNextBlock, a3}}, false},
      {"link back to its own chain", {{a3, kNextBlock, a1}}, false},
      {"link back into another stream", {{a3, kNextBlock, b1}}, false},
      {"link back into a folder", {{a3, kNextBlock, f1}}, false},
      {"link into its own room", {{a1, kNextBlock, a1 + H() + 4}}, false},
      {"link past the end of the file", {{a1, kNextBlock, end + 100}}, false},
      {"link to the last bytes of the file", {{a1, kNextBlock, end - 4}}, false},
      {"negative link", {{a1, kNextBlock, -40}}, false},
      {"empty block linked to itself", {{a1, kUsedEnd, H()}, {a1, kNextBlock, a1}}, false},
      {"empty blocks in a loop",
       {{a1, kUsedEnd, H()}, {blocks[1], kUsedEnd, H()}, {a3, kUsedEnd, H()}, {a3, kNextBlock, a1}},
       false},
  };
  const Bytes put = Pattern(400, 9);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Bytes damaged = pristine;
    for (const auto& ch : c.changes)
      PutBlockField(damaged, std::get<0>(ch), std::get<1>(ch), std::get<2>(ch));
    for (int mem = 0; mem < 2; ++mem) {
      kyStream* a = Must(Open(damaged, mem));
      Bytes buf(300);
      EXPECT_EQ(-1, a->Read(buf.data(), 300));
      const Cursor before = CursorOf(a);
      EXPECT_EQ(-1, a->Seek(300, 0));
      EXPECT_EQ(before, CursorOf(a));
      ExerciseReads(a);
    }
    // What `kystore put` does: write the whole stream from its start.
    kyStream* a = Must(Open(damaged, false));
    const int64_t written = a->Write(put.data(), 400, true);
    const Bytes after = ReadAll(path);
    EXPECT_EQ(OthersOf(damaged, damaged.size()), OthersOf(after, damaged.size()));
    EXPECT_EQ(c.writeRefused ? -1 : 400, written);
    EXPECT_TRUE(!c.writeRefused || after == damaged);  // a refused write changes nothing
    EXPECT_EQ(c.writeRefused ? Bytes() : put, Contents(a, 400));
  }
}

// A length outside 0..file size (0x80000000000000EF, near +-2^63) fails the
// seek from the end, the copy, the prefix check and every write without
// overflow; reads go by the blocks; Erase makes the stream usable again.
TEST_P(StreamDamage, DamagedLengthsAreNeverComputedWith) {
  const int64_t end = static_cast<int64_t>(pristine.size());
  const std::vector<int64_t> lengths =
      B64() ? std::vector<int64_t>{static_cast<int64_t>(0x80000000000000EFULL), INT64_MAX,
                                   INT64_MIN, -1, end + 1}
            : std::vector<int64_t>{0x800000EF, 0xFFFFFFFF, 0x80000000, end + 1};
  for (int64_t length : lengths) {
    SCOPED_TRACE(length);
    Bytes damaged = pristine;
    PutOff(damaged, headerA + 68, length);
    damaged[headerA + 67] = kSizePrefixFlag;
    for (int mem = 0; mem < 2; ++mem) {
      kyStream* a = Must(Open(damaged, mem));
      const Cursor start = CursorOf(a);
      EXPECT_TRUE(a->Seek(0, 1) == -1 && a->Seek2(-3, 0) == -1);
      EXPECT_TRUE(NoCopy(a, TRUE));
      long long len = 7;
      EXPECT_TRUE(!a->GetVerifiedDataLength(len) && len == 0);
      EXPECT_EQ(start, CursorOf(a));
      EXPECT_EQ(mem ? 0 : -1, a->Write("abc", 3));
      EXPECT_FALSE(a->PrependSize(3) || a->SetLength(0));
      EXPECT_EQ(damaged, ReadAll(path));
      EXPECT_EQ(data, Contents(a, 250));
      EXPECT_EQ(!mem, a->Erase());
      EXPECT_EQ(mem ? 0 : 3, a->Write("abc", 3));
    }
  }
}

// After another object grows the file no block grows in place over its bytes.
TEST_P(StreamDamage, AnotherObjectGrowsTheFile) {
  Reopen(kRW);
  kyStream* n = Keep(New("N"));
  const int64_t n1 = Size();
  ASSERT_EQ(100, n->Write(data.data(), 100));
  {
    auto second = Hold(kyStorage::Open(path.c_str(), kRW, 100, 0));
    ASSERT_EQ(1, Hold(Must(second->CreateStream("D", kRW)))->Write("d", 1));
    auto n2 = Hold(Must(second->OpenStream("N", kRW)));
    ASSERT_EQ(0, n2->Seek(0, 1));
    ASSERT_EQ(20, n2->Write(data.data() + 100, 20));
  }
  const int64_t d1 = n1 + H() + 100;
  const Bytes dBlock = Range(d1, H() + 100);
  EXPECT_EQ(Slice(data, 0, 120), Contents(n, 120));
  ASSERT_EQ(0, n->Seek(100, 0));
  ASSERT_EQ(30, n->Write(data.data() + 100, 30));
  EXPECT_EQ(dBlock, Range(d1, H() + 100));
  EXPECT_EQ(Slice(data, 0, 130), Contents(n, 130));
}

INSTANTIATE_TEST_SUITE_P(Widths, StreamDamage, ::testing::Bool(), WidthName);

}  // namespace
