// Shared by the stream data tests: a storage of either offset width with
// root streams in it, and decoders for the block and header bytes on disk.
// The decoders read only the bytes they need, so they also work on large
// sparse files.
#ifndef KYSTORE_TESTS_SUPPORT_STREAM_FIXTURE_H_
#define KYSTORE_TESTS_SUPPORT_STREAM_FIXTURE_H_

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "platform/win_file.h"
#include "support/test_access.h"
#include "support/test_util.h"

namespace kytest {

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

// A data block header as found on disk.
struct BlockOnDisk {
  uint32_t magic;
  int64_t usedEnd, allocEnd, prevBlock, nextBlock;
  auto Tie() const { return std::tie(magic, usedEnd, allocEnd, prevBlock, nextBlock); }
  bool operator==(const BlockOnDisk& o) const { return Tie() == o.Tie(); }
};
inline std::ostream& operator<<(std::ostream& os, const BlockOnDisk& b) {
  return os << std::hex << b.magic << std::dec << " used " << b.usedEnd << " alloc " << b.allocEnd
            << " prev " << b.prevBlock << " next " << b.nextBlock;
}

// The fields of a stream header that the data operations maintain.
struct HeaderOnDisk {
  uint8_t flags;
  int64_t length, lastBlock, firstBlock;
  auto Tie() const { return std::tie(flags, length, lastBlock, firstBlock); }
  bool operator==(const HeaderOnDisk& o) const { return Tie() == o.Tie(); }
};
inline std::ostream& operator<<(std::ostream& os, const HeaderOnDisk& h) {
  return os << "flags " << int(h.flags) << " length " << h.length << " last " << h.lastBlock
            << " first " << h.firstBlock;
}

// A stream's read cursor: block, position in it, position in the data.
struct Cursor {
  int64_t block, blockPos, dataPos;
  auto Tie() const { return std::tie(block, blockPos, dataPos); }
  bool operator==(const Cursor& o) const { return Tie() == o.Tie(); }
};
inline std::ostream& operator<<(std::ostream& os, const Cursor& c) {
  return os << "{" << c.block << ", " << c.blockPos << ", " << c.dataPos << "}";
}
template <class P>  // a stream pointer, raw or held
Cursor CursorOf(const P& s) {
  kyStream* p = &*s;
  return {kyTestAccess::CurBlock(p), kyTestAccess::BlockPos(p), kyTestAccess::DataPos(p)};
}

class StreamTest : public ::testing::TestWithParam<bool> {
 protected:
  bool B64() const { return GetParam(); }
  int64_t H() const { return B64() ? 40 : 20; }
  int64_t DirectoryEnd() const { return 32 + (B64() ? 5904 : 5132); }

  kyStorage* CreateStorage(DWORD blockSize) {
    kyStorage::g_bUse64BitOffsets = B64() ? 1 : 0;  // restored by `globals`
    return kyStorage::Create(path.c_str(), kModeReadWriteShared, blockSize);
  }
  kyStorage* OpenStorage(DWORD mode, DWORD blockSize, int bLoadIntoMemory = 0) {
    return kyStorage::Open(path.c_str(), mode, blockSize, bLoadIntoMemory);
  }
  static kyStream* NewStream(kyStorage* s, const char* name, DWORD dwType = 0) {
    return s->CreateStream(name, dwType, kModeReadWriteShared);
  }
  static kyStream* NewStream(const Held<kyStorage>& s, const char* name, DWORD dwType = 0) {
    return NewStream(s.get(), name, dwType);
  }
  template <class P>
  static int64_t HeaderOffset(const P& s) {
    return kyTestAccess::Offset(&*s).headerOffset;
  }

  Bytes Range(int64_t at, size_t n) const {
    Bytes out(n, 0);
    std::ifstream in(path, std::ios::binary);
    in.seekg(at);
    in.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(n));
    return out;
  }
  // Decodes a block header; with 64-bit offsets a non-zero reserved word
  // shows up as a bad magic.
  BlockOnDisk BlockAt(int64_t at) const {
    Bytes b = Range(at, static_cast<size_t>(H()));
    if (B64()) {
      const uint32_t magic = Get32(b, 4) == 0 ? Get32(b, 0) : 0;
      return {magic, Get64(b, 8), Get64(b, 16), Get64(b, 24), Get64(b, 32)};
    }
    return {Get32(b, 0), Get32(b, 4), Get32(b, 8), Get32(b, 12), Get32(b, 16)};
  }
  // A block header as it must be on disk.
  static BlockOnDisk Block(int64_t used, int64_t alloc, int64_t prev, int64_t next) {
    return {0xFAFAFAFAu, used, alloc, prev, next};
  }
  HeaderOnDisk HeaderAt(int64_t at) const {
    Bytes b = Range(at, B64() ? 92 : 80);
    if (B64()) return {b[67], Get64(b, 68), Get64(b, 76), Get64(b, 84)};
    return {b[67], Get32(b, 68), Get32(b, 72), Get32(b, 76)};
  }
  // Overwrites a block header field on disk, by width.
  void PutBlockField(Bytes& image, int64_t block, int field, int64_t value) const {
    // field: 1 usedEnd, 2 allocEnd, 3 prevBlock, 4 nextBlock
    const size_t at = static_cast<size_t>(block) + (B64() ? 8u * field : 4u * field);
    if (B64())
      Put64(image, at, value);
    else
      Put32(image, at, static_cast<uint32_t>(value));
  }
  int64_t Size() const { return FileSize(path); }

  // The stream's data from its start, read through the stream.
  template <class P>
  static Bytes Contents(const P& s, int64_t n) {
    Bytes out(static_cast<size_t>(n), 0);
    if (s->Seek(0, 0) != 0) return Bytes();
    if (s->Read(out.data(), n) != n) return Bytes();
    return out;
  }
  // Up to n bytes from the stream's cursor.
  template <class P>
  static Bytes ReadSome(const P& s, int64_t n) {
    Bytes out(static_cast<size_t>(n), 0);
    const int64_t got = s->Read(out.data(), n);
    out.resize(static_cast<size_t>(got < 0 ? 0 : got));
    return out;
  }

  TempDir dir;
  GlobalsGuard globals;
  std::string path = dir.File("data.kys");
};

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

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_STREAM_FIXTURE_H_
