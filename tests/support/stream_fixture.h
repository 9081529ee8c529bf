// Shared by the storage and stream tests: a storage of either offset width
// held by the fixture, held streams, and decoders for the bytes on disk.
#ifndef KYSTORE_TESTS_SUPPORT_STREAM_FIXTURE_H_
#define KYSTORE_TESTS_SUPPORT_STREAM_FIXTURE_H_

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "platform/win_file.h"
#include "support/test_access.h"
#include "support/test_util.h"

namespace kytest {

const DWORD kRW = kModeReadWriteShared;
const DWORD kRO = kModeReadShared;
typedef std::vector<std::string> Names;

// Gives a storage or stream back when the test's scope ends.
struct Releaser {
  template <class T>
  void operator()(T* p) const {
    p->Release();
  }
};
template <class T>
using Held = std::unique_ptr<T, Releaser>;
template <class T>
Held<T> Hold(T* p) {
  return Held<T>(p);
}

// Throws for a null object the test cannot go on without (a failure, not a crash).
template <class T>
T* Must(T* p) {
  if (p == nullptr) throw std::runtime_error("no object");
  return p;
}

inline std::string WidthName(const ::testing::TestParamInfo<bool>& p) {
  return p.param ? "Offsets64" : "Offsets32";
}

// n bytes that differ from position to position and from seed to seed.
inline Bytes Pattern(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
  return b;
}
inline Bytes Slice(const Bytes& b, size_t from, size_t to) {
  return Bytes(b.begin() + from, b.begin() + to);
}
inline Bytes Concat(const Bytes& a, const Bytes& b) {
  Bytes out(a);
  out.insert(out.end(), b.begin(), b.end());
  return out;
}

// magic, usedEnd, allocEnd, prevBlock, nextBlock
typedef std::tuple<uint32_t, int64_t, int64_t, int64_t, int64_t> BlockOnDisk;
typedef std::tuple<int, int64_t, int64_t, int64_t> HeaderOnDisk;  // flags, length, last, first
typedef std::tuple<int64_t, int64_t, int64_t> Cursor;             // block, in block, data
enum BlockField { kMagic, kUsedEnd, kAllocEnd, kPrevBlock, kNextBlock };  // offset-wide fields

inline Cursor CursorOf(kyStream* s) {
  return Cursor{kyTestAccess::CurBlock(s), kyTestAccess::BlockPos(s), kyTestAccess::DataPos(s)};
}

class StorageTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { kyStorage::g_bUse64BitOffsets = B64() ? 1 : 0; }  // restored by globals
  void TearDown() override { Close(); }
  bool B64() const { return GetParam(); }
  int64_t H() const { return B64() ? 40 : 20; }        // data block header
  int64_t W() const { return B64() ? 92 : 80; }        // stream header
  int64_t DBS() const { return B64() ? 5904 : 5132; }  // directory block
  // Offset of header slot `i` of the directory block at `block`.
  int64_t Slot(int64_t block, int64_t i) const { return block + (B64() ? 16 : 12) + W() * i; }
  static int64_t HeaderOffset(kyStream* s) { return kyTestAccess::Offset(s).headerOffset; }

  // A new storage, or the file opened again (load 2: OpenFast), held by the
  // fixture; the test ends when it cannot be had.
  kyStorage* Make(DWORD blockSize = 64) {
    Close();
    m_blockSize = blockSize;
    return storage = Must(kyStorage::Create(path.c_str(), kRW, blockSize));
  }
  kyStorage* Reopen(DWORD mode = kRO, int load = 0) {
    Close();
    return storage = Must(load == 2 ? kyStorage::OpenFast(path.c_str(), mode, m_blockSize)
                                    : kyStorage::Open(path.c_str(), mode, m_blockSize, load));
  }
  void Close() {
    if (storage != nullptr) storage->Release();
    storage = nullptr;
  }
  kyStream* New(const std::string& name, DWORD type = 0) {
    return Must(storage->CreateStream(name.c_str(), type, kRW));
  }
  kyStream* OpenRoot(const char* name, DWORD mode = kRO) {
    return Must(storage->OpenStream(name, mode));
  }
  // Creates and releases a root stream.
  void Add(const std::string& name, DWORD type = 0, bool fast = false) {
    Must(fast ? storage->CreateStreamFast(name.c_str(), type, kRW) : New(name, type))->Release();
  }

  // Offset-wide fields in an image.
  int64_t Off(const Bytes& b, int64_t at) const { return B64() ? Get64(b, at) : Get32(b, at); }
  void PutOff(Bytes& b, int64_t at, int64_t v) const {
    B64() ? Put64(b, at, v) : Put32(b, at, static_cast<uint32_t>(v));
  }
  void PutBlockField(Bytes& b, int64_t block, BlockField f, int64_t v) const {
    PutOff(b, block + (B64() ? 8 : 4) * f, v);
  }
  Bytes Range(int64_t at, int64_t n) const {
    Bytes out(static_cast<size_t>(n), 0);
    std::ifstream in(path, std::ios::binary);
    in.seekg(at);
    in.read(reinterpret_cast<char*>(out.data()), n);
    return out;
  }
  // With 64-bit offsets a non-zero reserved word shows up as a bad magic.
  BlockOnDisk BlockAt(int64_t at) const {
    const Bytes b = Range(at, H());
    const int64_t w = B64() ? 8 : 4;
    return BlockOnDisk{B64() && Get32(b, 4) != 0 ? 0 : Get32(b, 0), Off(b, w), Off(b, 2 * w),
                       Off(b, 3 * w), Off(b, 4 * w)};
  }
  static BlockOnDisk Block(int64_t used, int64_t alloc, int64_t prev, int64_t next) {
    return BlockOnDisk{kDataBlockMagic, used, alloc, prev, next};
  }
  HeaderOnDisk HeaderAt(int64_t at) const {
    const Bytes b = Range(at, W());
    const int64_t w = B64() ? 8 : 4;
    return HeaderOnDisk{b[67], Off(b, 68), Off(b, 68 + w), Off(b, 68 + 2 * w)};
  }
  int64_t Size() const { return FileSize(path); }

  // Up to n bytes from the stream's cursor, or from its start.
  static Bytes ReadSome(kyStream* s, int64_t n, bool fromStart = false) {
    if (fromStart && s->Seek(0, 0) != 0) return Bytes();
    Bytes out(static_cast<size_t>(n), 0);
    out.resize(static_cast<size_t>(std::max<int64_t>(0, s->Read(out.data(), n))));
    return out;
  }
  static Bytes Contents(kyStream* s, int64_t n) { return ReadSome(s, n, true); }
  // CopyStreamToBuffer hands out nothing: 0 and a null buffer.
  static bool NoCopy(kyStream* s, BOOL skipPrefix = FALSE) {
    BYTE* buf = reinterpret_cast<BYTE*>(1);
    return s->CopyStreamToBuffer(buf, skipPrefix) == 0 && buf == nullptr;
  }

  TempDir dir;
  GlobalsGuard globals;
  std::string path = dir.File("data.kys");
  kyStorage* storage = nullptr;

 private:
  DWORD m_blockSize = 64;
};

// Stream "A" of 250 bytes in blocks of 100 behind folder F's block f1:
// blocks[0] full, blocks[1] appended behind B's block b1 and grown in place
// to 120 bytes, blocks[2] behind C's block holding 30; written and closed.
class StreamTest : public StorageTest {
 protected:
  void TearDown() override {
    held.reset();
    StorageTest::TearDown();
  }
  void WriteThreeBlocks() {
    Make(100);
    f1 = Size();
    Add("F", 1);
    kyStream* a = Keep(New("A"));
    auto anotherBlockEndsTheFile = [&](const char* other) {
      ASSERT_EQ(1, Hold(New(other))->Write("x", 1));
      ASSERT_EQ(0, a->Seek(0, 1));  // back to A's end: the other moved the shared position
      blocks.push_back(Size());
    };
    blocks.push_back(Size());
    ASSERT_EQ(100, a->Write(data.data(), 100));
    b1 = Size();
    anotherBlockEndsTheFile("B");
    long long at = -1;
    ASSERT_EQ(110, a->Write(data.data() + 100, 110, false, &at));  // past the new block's room
    EXPECT_EQ(blocks[1] + H(), at);
    ASSERT_EQ(10, a->Write(data.data() + 210, 10));  // starting past its room
    anotherBlockEndsTheFile("C");
    ASSERT_EQ(30, a->Write(data.data() + 220, 30));
    EXPECT_EQ(blocks[2], kyTestAccess::LastAppended(storage));
    headerA = HeaderOffset(a);
    held.reset();
    Close();
  }
  // Opens the storage in `mode` and "A" in it for writing, held by the
  // fixture; null when either does not open.
  kyStream* OpenA(DWORD mode = kRO, int load = 0) {
    held.reset();
    Close();
    storage = kyStorage::Open(path.c_str(), mode, 100, load);
    return storage ? Keep(storage->OpenStream("A", kRW)) : nullptr;
  }
  kyStream* Keep(kyStream* s) {
    held.reset(s);
    return s;
  }
  // The cursor at data position `pos` within block `b`.
  Cursor At(int b, int64_t pos) const { return Cursor{blocks[b], H() + pos - starts[b], pos}; }

  Held<kyStream> held;
  const Bytes data = Pattern(250, 11);
  std::vector<int64_t> blocks;
  const int64_t starts[3] = {0, 100, 220};
  int64_t f1 = 0, b1 = 0, headerA = 0;
};

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_STREAM_FIXTURE_H_
