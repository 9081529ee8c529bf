// Storage files: the bytes of a new file, recognising both header forms,
// refusing what is not a storage without changing it, the name map over a
// chain of directory blocks, and the in-memory load.

#include <gtest/gtest.h>

#include <string>

#include "support/test_access.h"
#include "platform/win_file.h"
#include "support/test_util.h"

using kytest::Bytes;
using kytest::Get16;
using kytest::Get32;
using kytest::Get64;
using kytest::Put16;
using kytest::Put32;
using kytest::Put64;

namespace {

const size_t kSig = 24;

// Byte images of storages made by hand, so that the reader is tested
// against the format rather than against our own writer.
struct Image {
  bool b64;
  Bytes bytes;

  size_t Head() const { return b64 ? 16 : 12; }
  size_t Width() const { return b64 ? 92 : 80; }
  size_t BlockSize() const { return b64 ? 5904 : 5132; }

  static Image New(bool b64, char format = 0) {
    Image im{b64, Bytes(32, 0)};
    memcpy(im.bytes.data(), KYSTORE_SIGNATURE, kSig);
    im.bytes[24] = format ? format : (b64 ? '2' : '1');
    Put16(im.bytes, 26, 64);
    Put16(im.bytes, 28, 6);
    return im;
  }
  // Appends a directory block; returns its offset.
  size_t AddBlock(uint32_t slots = 64, bool slotMagic = true) {
    size_t at = bytes.size();
    bytes.resize(at + BlockSize(), 0);
    Put32(bytes, at, 0xFBFBFBFB);
    Put32(bytes, at + 4, slots);
    if (slotMagic)
      for (size_t i = 0; i < 64; ++i) Put32(bytes, at + Head() + Width() * i, 0xFCFCFCFC);
    return at;
  }
  void Link(size_t from, size_t to) {
    if (b64)
      Put64(bytes, from + 8, static_cast<int64_t>(to));
    else
      Put32(bytes, from + 8, static_cast<uint32_t>(to));
  }
  size_t Slot(size_t block, size_t i) const { return block + Head() + Width() * i; }
  void Name(size_t block, size_t i, const std::string& name, uint16_t minutes = 0) {
    size_t at = Slot(block, i);
    Put32(bytes, at, 0xFCFCFCFC);
    memset(&bytes[at + 4], 0, 61);
    memcpy(&bytes[at + 4], name.data(), name.size());
    Put16(bytes, at + 65, minutes);
  }
};

// Makes a new, empty storage at `path` and closes it again.
void MakeEmpty(const std::string& path) {
  kyStorage* s = kyStorage::Create(path.c_str(), 0x16, 4096);
  ASSERT_NE(s, nullptr);
  s->Release();
}

class StorageFileTest : public ::testing::TestWithParam<bool> {
 protected:
  bool B64() const { return GetParam(); }
  kytest::TempDir dir;
  kytest::GlobalsGuard globals;
};

INSTANTIATE_TEST_SUITE_P(Widths, StorageFileTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& p) {
                           return p.param ? "Offsets64" : "Offsets32";
                         });

TEST_P(StorageFileTest, NewFileIsByteExact) {
  kytest::OffsetWidth width(B64());
  std::string path = dir.File("new.kys");
  kyStorage* s = kyStorage::Create(path.c_str(), 0x16, 4096);
  ASSERT_NE(s, nullptr);
  s->Release();

  Image expect = Image::New(B64());
  expect.AddBlock();
  Bytes got = kytest::ReadAll(path);
  EXPECT_EQ(got.size(), B64() ? 32u + 5904u : 32u + 5132u);
  EXPECT_EQ(got, expect.bytes);
  // The header's fixed bytes, spelled out.
  EXPECT_EQ(Get32(got, 26), 0x00060040u);
  EXPECT_EQ(got[24], B64() ? 0x32 : 0x31);
  EXPECT_EQ(got[25], 0);
  EXPECT_EQ(Get16(got, 30), 0);
  EXPECT_EQ(Get32(got, 32), 0xFBFBFBFBu);
  EXPECT_EQ(Get32(got, 36), 64u);
  EXPECT_EQ(Get32(got, B64() ? 48 : 44), 0xFCFCFCFCu);  // magic of slot 0
}

TEST_P(StorageFileTest, CreateEmptiesAnExistingFileAndReopens) {
  kytest::OffsetWidth width(B64());
  std::string path = dir.File("old.bin");
  kytest::WriteAll(path, Bytes(100000, 0x5A));
  kyStorage* s = kyStorage::Create(path.c_str(), 0x16, 4096);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(kyTestAccess::Map(s).GetCount(), 0);
  s->Release();
  EXPECT_EQ(kytest::FileSize(path), B64() ? 5936 : 5164);

  // The global is read only by Create: the reopened file keeps its width.
  kyStorage::g_bUse64BitOffsets = !B64();
  s = kyStorage::Open(path.c_str(), 0x12, 4096, 0);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(kyTestAccess::Use64(s), B64() ? 1 : 0);
  EXPECT_EQ(kyTestAccess::Format(s), B64() ? '2' : '1');
  EXPECT_EQ(kyTestAccess::RootOffset(s), 32);
  EXPECT_EQ(kyTestAccess::FastSlots(s), 6);
  EXPECT_EQ(kyTestAccess::SlotsPerBlock(s), 64);
  EXPECT_EQ(kyTestAccess::LastAppended(s), kytest::FileSize(path));
  EXPECT_STREQ(s->GetPath(), path.c_str());
  s->Release();
}

TEST_P(StorageFileTest, NameMapHoldsExactlyTheUsedSlotsOfAChain) {
  Image im = Image::New(B64());
  size_t b0 = im.AddBlock();
  size_t b1 = im.AddBlock(64, false);  // appended blocks have no slot magic
  size_t b2 = im.AddBlock(64, false);
  im.Link(b0, b1);
  im.Link(b1, b2);
  im.Name(b0, 0, "fast");
  im.Name(b0, 7, "Seven", 5);
  im.Name(b1, 0, "second");
  im.Name(b2, 63, "last");
  im.Name(b2, 10, "twice");
  im.Name(b2, 20, "twice");  // later in directory order wins
  // A name without the slot magic is not a stream.
  memcpy(&im.bytes[im.Slot(b1, 5) + 4], "ghost", 5);
  Put32(im.bytes, im.Slot(b1, 5), 0);
  std::string path = dir.File("chain.kys");
  kytest::WriteAll(path, im.bytes);

  kyStorage* s = kyStorage::Open(path.c_str(), 0x12, 4096, 0);
  ASSERT_NE(s, nullptr);
  t_kyStreamMap& map = kyTestAccess::Map(s);
  EXPECT_EQ(map.GetCount(), 5);
  tag_kyStreamOffset o;
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, "Seven", o));
  EXPECT_EQ(o.headerOffset, static_cast<int64_t>(im.Slot(b0, 7)));
  EXPECT_EQ(o.blockOffset, static_cast<int64_t>(b0));
  EXPECT_EQ(o.dwBlockSlots, 64u);
  EXPECT_EQ(o.dwDuration, 300u);
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, "second", o));
  EXPECT_EQ(o.headerOffset, static_cast<int64_t>(b1 + (B64() ? 16 : 12)));
  EXPECT_EQ(o.blockOffset, static_cast<int64_t>(b1));
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, "twice", o));
  EXPECT_EQ(o.headerOffset, static_cast<int64_t>(im.Slot(b2, 20)));
  EXPECT_TRUE(kyTestAccess::FindStreamOffset(s, "last", o));
  EXPECT_TRUE(kyTestAccess::FindStreamOffset(s, "fast", o));
  EXPECT_FALSE(kyTestAccess::FindStreamOffset(s, "ghost", o));
  EXPECT_FALSE(kyTestAccess::FindStreamOffset(s, "seven", o));  // case matters

  EXPECT_TRUE(s->RemoveStream("Seven"));
  EXPECT_FALSE(kyTestAccess::FindStreamOffset(s, "Seven", o));
  EXPECT_FALSE(s->RemoveStream("Seven"));
  EXPECT_FALSE(s->RemoveStream(nullptr));
  s->Release();
  EXPECT_EQ(kytest::ReadAll(path), im.bytes);  // mapping and removal touch no file
}

TEST_P(StorageFileTest, NameFillingItsWholeFieldIsCutAtSixtyCharacters) {
  Image im = Image::New(B64());
  size_t b0 = im.AddBlock();
  im.Name(b0, 6, "");
  memset(&im.bytes[im.Slot(b0, 6) + 4], 'x', 61);  // no terminator at all
  Put16(im.bytes, im.Slot(b0, 6) + 65, 0x7878);
  std::string path = dir.File("long.kys");
  kytest::WriteAll(path, im.bytes);
  kyStorage* s = kyStorage::Open(path.c_str(), 0x12, 4096, 0);
  ASSERT_NE(s, nullptr);
  tag_kyStreamOffset o;
  EXPECT_TRUE(kyTestAccess::FindStreamOffset(s, std::string(60, 'x').c_str(), o));
  s->Release();
}

// Files that are not storages, or whose directory cannot be trusted: every
// open fails and the file stays exactly as it was.
struct DamageCase {
  const char* name;
  void (*damage)(Image&);
};

void ExpectRefusedAndUnchanged(const std::string& path, const Bytes& bytes) {
  kytest::WriteAll(path, bytes);
  EXPECT_EQ(kyStorage::Open(path.c_str(), 0x16, 4096, 0), nullptr);
  EXPECT_EQ(kyStorage::Open(path.c_str(), 0x12, 4096, 1), nullptr);
  EXPECT_EQ(kyStorage::OpenOrCreate(path.c_str(), 0x16, 4096), nullptr);
  EXPECT_EQ(kytest::ReadAll(path), bytes);
}

TEST_P(StorageFileTest, DamagedFilesAreRefusedAndLeftAlone) {
  const DamageCase cases[] = {
      {"signature", [](Image& im) { im.bytes[3] = 'r'; }},
      {"format '0'", [](Image& im) { im.bytes[24] = '0'; }},
      {"format 0x80", [](Image& im) { im.bytes[24] = static_cast<uint8_t>(0x80); }},
      {"format 0xFF", [](Image& im) { im.bytes[24] = static_cast<uint8_t>(0xFF); }},
      {"short file", [](Image& im) { im.bytes.resize(31); }},
      {"header only", [](Image& im) { im.bytes.resize(32); }},
      {"truncated block", [](Image& im) { im.bytes.resize(im.bytes.size() - 1); }},
      {"block magic", [](Image& im) { Put32(im.bytes, 32, 0xFBFBFBFA); }},
      {"slot count 63", [](Image& im) { Put32(im.bytes, 36, 63); }},
      {"slots per block 32", [](Image& im) { Put16(im.bytes, 26, 32); }},
      {"fast slots 7", [](Image& im) { Put16(im.bytes, 28, 7); }},
      {"second block 63 slots",
       [](Image& im) {
         size_t b1 = im.AddBlock(63, false);
         im.Link(32, b1);
       }},
      {"chain loops to itself", [](Image& im) { im.Link(32, 32); }},
      {"chain loops back",
       [](Image& im) {
         size_t b1 = im.AddBlock(64, false);
         im.Link(32, b1);
         im.Link(b1, 32);
       }},
      {"chain leaves the file", [](Image& im) { im.Link(32, 1u << 30); }},
      {"chain points into the header", [](Image& im) { im.Link(32, 4); }},
  };
  for (const DamageCase& c : cases) {
    SCOPED_TRACE(c.name);
    Image im = Image::New(B64());
    im.AddBlock();
    c.damage(im);
    ExpectRefusedAndUnchanged(dir.File("damaged.kys"), im.bytes);
  }
}

TEST_P(StorageFileTest, AnyFormatMarkFromTwoUpOpensWithWideOffsets) {
  for (char mark : {'2', '3', 'A', '~', '\x7f'}) {
    Image im = Image::New(true, mark);
    im.AddBlock();
    std::string path = dir.File("mark.kys");
    kytest::WriteAll(path, im.bytes);
    kyStorage* s = kyStorage::Open(path.c_str(), 0x12, 4096, 0);
    ASSERT_NE(s, nullptr) << mark;
    EXPECT_EQ(kyTestAccess::Use64(s), 1);
    EXPECT_EQ(kyTestAccess::Format(s), mark);
    s->Release();
  }
}

TEST(StorageFileLegacy, OlderHeaderOpensWithNarrowOffsetsAndTwoFastSlots) {
  kytest::TempDir dir;
  Bytes bytes(26, 0);
  memcpy(bytes.data(), "@_RK_Structured_Storage@_", 25);
  Image im{false, bytes};
  size_t b0 = im.AddBlock();
  ASSERT_EQ(b0, 26u);
  im.Name(b0, 1, "old");
  std::string path = dir.File("legacy.kys");
  kytest::WriteAll(path, im.bytes);
  for (int load = 0; load <= 1; ++load) {
    kyStorage* s = kyStorage::Open(path.c_str(), 0x12, 4096, load);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(kyTestAccess::Use64(s), 0);
    EXPECT_EQ(kyTestAccess::Format(s), '_');
    EXPECT_EQ(kyTestAccess::RootOffset(s), 26);
    EXPECT_EQ(kyTestAccess::FastSlots(s), 2);
    tag_kyStreamOffset o;
    ASSERT_TRUE(kyTestAccess::FindStreamOffset(s, "old", o));
    EXPECT_EQ(o.headerOffset, 26 + 12 + 80);
    s->Release();
  }
  kyStorage* s = kyStorage::OpenFast(path.c_str(), 0x12, 4096);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(kyTestAccess::RootOffset(s), 26);
  EXPECT_EQ(kyTestAccess::Map(s).GetCount(), 0);  // no map without the walk
  EXPECT_EQ(kyTestAccess::OpenedFast(s), 1);
  s->Release();
  EXPECT_EQ(kytest::ReadAll(path), im.bytes);
}

TEST(StorageFileFactories, PathsMissingFilesAndOpenOrCreate) {
  kytest::TempDir dir;
  std::string missing = dir.File("missing.kys");
  EXPECT_EQ(kyStorage::Open(missing.c_str(), 0x12, 4096, 0), nullptr);
  EXPECT_EQ(kyStorage::OpenFast(missing.c_str(), 0x12, 4096), nullptr);
  EXPECT_FALSE(kytest::Exists(missing));

  kyStorage* s = kyStorage::OpenOrCreate(missing.c_str(), 0x16, 4096);
  ASSERT_NE(s, nullptr);
  s->Release();
  Bytes made = kytest::ReadAll(missing);
  s = kyStorage::OpenOrCreate(missing.c_str(), 0x16, 4096);  // now it opens
  ASSERT_NE(s, nullptr);
  s->Release();
  EXPECT_EQ(kytest::ReadAll(missing), made);

  // A directory is neither opened nor replaced.
  EXPECT_EQ(kyStorage::OpenOrCreate(dir.path().c_str(), 0x16, 4096), nullptr);
  EXPECT_EQ(kyStorage::Create(dir.path().c_str(), 0x16, 4096), nullptr);

  // Paths of 260 characters or more are refused before anything is touched.
  std::string longPath = dir.path() + "/" + std::string(259 - dir.path().size(), 'p');
  ASSERT_EQ(longPath.size(), 260u);
  EXPECT_EQ(kyStorage::Create(longPath.c_str(), 0x16, 4096), nullptr);
  EXPECT_EQ(kyStorage::OpenOrCreate(longPath.c_str(), 0x16, 4096), nullptr);
  EXPECT_FALSE(kytest::Exists(longPath));
  std::string fits = longPath.substr(0, 259);
  s = kyStorage::Create(fits.c_str(), 0x16, 4096);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(std::string(s->GetPath()), fits);
  s->Release();

  EXPECT_EQ(kyStorage::Create(nullptr, 0x16, 4096), nullptr);
  EXPECT_EQ(kyStorage::Open("", 0x12, 4096, 0), nullptr);
}

TEST(StorageFileMemory, LoadServesReadsFromMemoryWithTheFileClosed) {
  kytest::TempDir dir;
  std::string path = dir.File("big.kys");
  MakeEmpty(path);
  // Grow the file to several megabytes behind the directory; the loader
  // must take all of it.
  Bytes bytes = kytest::ReadAll(path);
  size_t dirEnd = bytes.size();
  bytes.resize(4u << 20);
  for (size_t i = dirEnd; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7);
  kytest::WriteAll(path, bytes);

  kyStorage* s = kyStorage::Open(path.c_str(), 0x12, 4096, 1);
  ASSERT_NE(s, nullptr);
  EXPECT_TRUE(kyTestAccess::InMemory(s));
  EXPECT_EQ(kyTestAccess::File(s), INVALID_HANDLE_VALUE);
  EXPECT_EQ(kyTestAccess::ImageSize(s), static_cast<int64_t>(bytes.size()));
  EXPECT_EQ(kyTestAccess::LastAppended(s), static_cast<int64_t>(bytes.size()));
  // The file can go away: everything is in memory now.
  ASSERT_EQ(_unlink(path.c_str()), 0);

  const int64_t size = static_cast<int64_t>(bytes.size());
  EXPECT_EQ(kyTestAccess::SetFilePointer(s, size - 1, 0), size - 1);
  EXPECT_EQ(kyTestAccess::SetFilePointer(s, size, 0), -1);  // end only from the end
  EXPECT_EQ(kyTestAccess::MemPos(s), size - 1);
  EXPECT_EQ(kyTestAccess::SetFilePointer(s, -5, 1), size - 6);
  EXPECT_EQ(kyTestAccess::SetFilePointer(s, -size, 1), -1);
  EXPECT_EQ(kyTestAccess::SetFilePointer(s, 0, 2), size);

  Bytes chunk(1000);
  long long got = 0;
  ASSERT_EQ(kyTestAccess::SetFilePointer(s, 3000000, 0), 3000000);
  ASSERT_TRUE(kyTestAccess::ReadFile(s, chunk.data(), 1000, &got));
  EXPECT_EQ(got, 1000);
  EXPECT_TRUE(std::equal(chunk.begin(), chunk.end(), bytes.begin() + 3000000));
  // A read past the end delivers what is there and says how much.
  ASSERT_EQ(kyTestAccess::SetFilePointer(s, size - 10, 0), size - 10);
  ASSERT_TRUE(kyTestAccess::ReadFile(s, chunk.data(), 1000, &got));
  EXPECT_EQ(got, 10);
  // There is no handle to write through.
  t_kyStreamU h{};
  EXPECT_FALSE(kyTestAccess::WriteStreamHeader(s, 44, h));
  s->Release();
}

TEST(StorageFileMemory, WriteModeOrOpenFastNeverLoads) {
  kytest::TempDir dir;
  std::string path = dir.File("rw.kys");
  MakeEmpty(path);
  kyStorage* s = kyStorage::Open(path.c_str(), 0x16, 4096, 1);
  ASSERT_NE(s, nullptr);
  EXPECT_FALSE(kyTestAccess::InMemory(s));
  EXPECT_NE(kyTestAccess::File(s), INVALID_HANDLE_VALUE);
  s->Release();
  s = kyStorage::OpenFast(path.c_str(), 0x12, 4096);
  ASSERT_NE(s, nullptr);
  EXPECT_FALSE(kyTestAccess::InMemory(s));
  s->Release();
}

TEST(StorageFileReadOnly, HeaderWritesFailOnAReadOnlyOpen) {
  kytest::TempDir dir;
  std::string path = dir.File("ro.kys");
  MakeEmpty(path);
  Bytes before = kytest::ReadAll(path);
  kyStorage* s = kyStorage::Open(path.c_str(), 0x12, 4096, 0);
  ASSERT_NE(s, nullptr);
  t_kyStreamU h{};
  h.Magic() = kStreamHeaderMagic;
  memcpy(h.Name(), "nope", 5);
  EXPECT_FALSE(kyTestAccess::WriteStreamHeader(s, 32 + 16 + 92 * 6, h));
  s->Release();
  EXPECT_EQ(kytest::ReadAll(path), before);
}

}  // namespace
