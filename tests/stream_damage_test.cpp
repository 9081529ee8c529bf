// Streams whose blocks are damaged: bad magic, loops, links that leave the
// file, impossible ends.  Every operation ends with its failure result (or
// with what it could do before the damage), never with a hang or a crash.

#include <functional>

#include "support/stream_fixture.h"

using kytest::Bytes;
using kytest::HeaderOnDisk;
using kytest::Pattern;

namespace {

// Stream "A" with two blocks of capacity 16: the first full, the second
// holding 4 bytes.  Stream "C" lies between them.
class StreamDamage : public kytest::StreamTest {
 protected:
  void SetUp() override {
    auto s = kytest::Hold(CreateStorage(16));
    auto a = kytest::Hold(NewStream(s, "A"));
    auto c = kytest::Hold(NewStream(s, "C"));
    data = Pattern(20, 21);
    a1 = Size();
    ASSERT_EQ(a->Write(data.data(), 16), 16);
    ASSERT_EQ(c->Write("c", 1), 1);
    a2 = Size();
    ASSERT_EQ(a->Seek(0, 1), 0);
    ASSERT_EQ(a->Write(data.data() + 16, 4), 4);
    ASSERT_EQ(BlockAt(a1).nextBlock, a2);
    header = HeaderOffset(a);
    a.reset();
    c.reset();
    s.reset();
    pristine = kytest::ReadAll(path);
  }

  void Damage(const std::function<void(Bytes&)>& change) {
    damaged = pristine;
    change(damaged);
  }
  void SetBlock(Bytes& image, int64_t block, int field, int64_t value) const {
    PutBlockField(image, block, field, value);
  }  // Puts the damaged image back (an earlier pass may have repaired it) and
  // opens the storage (writable, or read-only in memory) and A in it.
  bool OpenA(bool inMemory) {
    kytest::WriteAll(path, damaged);
    storage =
        inMemory ? OpenStorage(kModeReadShared, 16, 1) : OpenStorage(kModeReadWriteShared, 16);
    if (storage == nullptr) return false;
    a = storage->OpenStream("A", kModeReadWriteShared);
    return a != nullptr;
  }
  void TearDown() override {
    if (a) a->Release();
    if (storage) storage->Release();
    a = nullptr;
    storage = nullptr;
  }
  // Runs `body` on A opened from the file and from memory.
  void ForBoth(const std::function<void(bool)>& body) {
    for (int mem = 0; mem < 2; ++mem) {
      SCOPED_TRACE(mem ? "in memory" : "in the file");
      ASSERT_TRUE(OpenA(mem));
      body(mem);
      TearDown();
    }
  }
  int64_t ReadFails(long long n = 100) {
    Bytes buf(static_cast<size_t>(n));
    return a->Read(buf.data(), n);
  }
  void ExpectWriteRefused() {
    EXPECT_EQ(a->Write("xyz", 3), -1);
    EXPECT_EQ(kytest::ReadAll(path), damaged);
  }

  // Everything a reader can do; none of it may hang or crash.
  void ExerciseReads() {
    Bytes buf(4096);
    a->Read(buf.data(), 4096);
    a->Seek(0, 0);
    a->Read(buf.data(), 7);
    a->Seek(3, 2, false);
    a->Seek(100000, 0);
    a->Seek(0, 1);
    a->Seek(2, 1);
    a->Seek2(-3, 0);
    a->Read(buf.data(), 100);
    BYTE* copy = nullptr;
    a->Seek(0, 0);
    a->CopyStreamToBuffer(copy, TRUE);
    a->FreeBuffer(copy);
    long long len = 0;
    a->GetVerifiedDataLength(len);
  }

  Bytes data, pristine, damaged;
  int64_t a1 = 0, a2 = 0, header = 0;
  kyStorage* storage = nullptr;
  kyStream* a = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Widths, StreamDamage, ::testing::Bool(), kytest::WidthName);

TEST_P(StreamDamage, BadMagicInTheFirstBlock) {
  Damage([&](Bytes& im) { kytest::Put32(im, static_cast<size_t>(a1), 0xFAFAFAFB); });
  ForBoth([&](bool mem) {
    EXPECT_EQ(ReadFails(), -1);
    EXPECT_EQ(a->Seek(0, 0), -1);
    EXPECT_EQ(a->Seek(5, 0), -1);
    BYTE* copy = reinterpret_cast<BYTE*>(1);
    EXPECT_EQ(a->CopyStreamToBuffer(copy, FALSE), 0u);
    EXPECT_EQ(copy, nullptr);
    if (!mem) ExpectWriteRefused();  // nothing to come back to
  });
}

// Reads stop at the unreadable block; a write that meets it cuts the link
// and carries on in a fresh block.
TEST_P(StreamDamage, BadMagicInTheSecondBlock) {
  Damage([&](Bytes& im) { kytest::Put32(im, static_cast<size_t>(a2), 0); });
  ASSERT_TRUE(OpenA(false));
  Bytes buf(100);
  EXPECT_EQ(a->Read(buf.data(), 100), -1);
  EXPECT_EQ(kytest::Slice(buf, 0, 16), kytest::Slice(data, 0, 16));
  ASSERT_EQ(a->Seek(16, 0), 0);
  const kytest::Cursor at16 = kytest::CursorOf(a);
  EXPECT_EQ(a->Seek(17, 0), -1);
  EXPECT_EQ(a->Seek(1, 2, true), -1);
  EXPECT_EQ(kytest::CursorOf(a), at16);
  const int64_t end = Size();
  const Bytes more = Pattern(10, 77);
  ASSERT_EQ(a->Write(more.data(), 10), 10);
  EXPECT_EQ(Size(), end + H() + 16);
  EXPECT_EQ(BlockAt(a1), Block(H() + 16, H() + 16, 0, end));
  EXPECT_EQ(BlockAt(end), Block(H() + 10, H() + 16, a1, 0));
  EXPECT_EQ(HeaderAt(header), (HeaderOnDisk{0, 26, end, a1}));
  EXPECT_EQ(Contents(a, 26), kytest::Concat(kytest::Slice(data, 0, 16), more));
}

TEST_P(StreamDamage, LinkPastTheEndOfTheFile) {
  Damage([&](Bytes& im) { SetBlock(im, a1, 4, static_cast<int64_t>(im.size()) + 1000); });
  ForBoth([&](bool mem) {
    EXPECT_EQ(ReadFails(), -1);
    EXPECT_EQ(a->Seek(17, 0), -1);
    ASSERT_EQ(a->Seek(16, 0), 0);
    EXPECT_EQ(a->Write("xyz", 3), mem ? 0 : 3);
    if (!mem) {
      EXPECT_EQ(BlockAt(a1).nextBlock, static_cast<int64_t>(damaged.size()));
      EXPECT_EQ(Contents(a, 19),
                kytest::Concat(kytest::Slice(data, 0, 16), Bytes({'x', 'y', 'z'})));
    }
  });
}

// Ends below the header, a loop of empty blocks, an empty block linked to
// itself: every walk ends.  A write changes nothing in a block it cannot
// take, and cuts the link back of a loop.
TEST_P(StreamDamage, EmptyLoopsAndEndsBelowTheHeader) {
  const std::vector<std::function<void(Bytes&)>> damages = {
      [&](Bytes& im) { SetBlock(im, a1, 1, H() - 1); },
      [&](Bytes& im) { SetBlock(im, a1, 2, H() - 1); },
      [&](Bytes& im) {
        for (int64_t b : {a1, a2}) {
          SetBlock(im, b, 1, H());
          SetBlock(im, b, 2, H());
        }
        SetBlock(im, a2, 4, a1);
      },
      [&](Bytes& im) {
        SetBlock(im, a1, 1, H());
        SetBlock(im, a1, 4, a1);
      },
  };
  for (size_t i = 0; i < damages.size(); ++i) {
    SCOPED_TRACE(i);
    Damage(damages[i]);
    ForBoth([&](bool mem) {
      EXPECT_EQ(ReadFails(10), -1);
      EXPECT_EQ(a->Seek(1, 0), -1);
      EXPECT_EQ(a->Seek(3, 0), -1);
      if (i == 2) {
        EXPECT_EQ(a->Seek(0, 1), 0);  // the recorded last block, no walk
        EXPECT_EQ(a->Seek(1, 1), -1);
      }
      if (!mem && i < 2) ExpectWriteRefused();
      if (!mem && i == 2) {
        EXPECT_EQ(a->Write("xyz", 3), 3);
        EXPECT_EQ(BlockAt(a2).nextBlock, static_cast<int64_t>(damaged.size()));
      }
    });
  }
}

// A loop through blocks that hold data: long walks stop at the link back,
// and a write cuts it and goes on in a fresh block.
TEST_P(StreamDamage, LoopWithDataEndsLongWalks) {
  Damage([&](Bytes& im) { SetBlock(im, a2, 4, a1); });
  ASSERT_TRUE(OpenA(false));
  const int64_t size = Size();
  EXPECT_EQ(a->Seek(1 << 20, 0), -1);
  Bytes buf(1 << 20);
  EXPECT_EQ(a->Read(buf.data(), 1 << 20), -1);
  ASSERT_EQ(a->Seek(0, 0), 0);
  EXPECT_EQ(a->Write(buf.data(), 1 << 20), 1 << 20);
  EXPECT_EQ(BlockAt(a2).nextBlock, size);
}

TEST_P(StreamDamage, ImpossiblyLargeUsedEnd) {
  Damage([&](Bytes& im) { SetBlock(im, a1, 1, B64() ? INT64_MAX : 0xFFFFFFFFLL); });
  ForBoth([&](bool) {
    EXPECT_EQ(ReadFails(1 << 16), -1);
    ExerciseReads();
  });
}

// Every byte of the first block's header and of the stream header's links,
// set to a few telling values: reading, seeking and writing survive each.
TEST_P(StreamDamage, EveryHeaderByteDamaged) {
  std::vector<int64_t> spots;
  for (int64_t i = 0; i < H(); ++i) spots.push_back(a1 + i);
  for (int64_t i = 68; i < (B64() ? 92 : 80); ++i) spots.push_back(header + i);
  for (int64_t spot : spots) {
    for (int value : {0x00, 0x7F, 0xFF}) {
      Damage([&](Bytes& im) { im[static_cast<size_t>(spot)] = static_cast<uint8_t>(value); });
      for (int mem = 0; mem < 2; ++mem) {
        if (OpenA(mem)) {
          ExerciseReads();
          a->Seek(0, 1);
          a->Write(data.data(), 20);
          ExerciseReads();
        }
        TearDown();
      }
    }
  }
}

}  // namespace
