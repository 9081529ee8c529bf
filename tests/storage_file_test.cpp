// Storage files, from images made by hand: headers, refusals, the name map,
// the factories, the in-memory load.

#include <cstring>
#include <functional>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

class StorageFileTest : public RootTest {
 protected:
  Bytes NewImage() const {
    Bytes b(32, 0);
    memcpy(b.data(), KYSTORE_SIGNATURE, kSignatureLength);
    b[24] = B64() ? '2' : '1';
    Put32(b, 26, 0x00060040);  // 64 slots per block, 6 fast slots
    return b;
  }
  // Appends a directory block; only the first carries slot magic, as written.
  int64_t AddBlock(Bytes& b, uint32_t slots = 64) const {
    const int64_t at = static_cast<int64_t>(b.size());
    b.resize(static_cast<size_t>(at + DBS()), 0);
    Put32(b, at, kDirectoryBlockMagic);
    Put32(b, at + 4, slots);
    for (int i = 0; i < 64 && at <= 32; ++i) Put32(b, Slot(at, i), kStreamHeaderMagic);
    return at;
  }
  void Name(Bytes& b, int64_t block, int i, const std::string& name, uint16_t minutes = 0) const {
    Put32(b, Slot(block, i), kStreamHeaderMagic);
    memcpy(&b[Slot(block, i) + 4], name.c_str(), name.size() + 1);
    Put16(b, Slot(block, i) + 65, minutes);
  }
  kyStorage* OpenImage(const Bytes& b, int load = 0) {
    WriteAll(path, b);
    return Reopen(kRO, load);
  }
  // Offset width, format mark, root offset, fast slots, slots per block.
  static std::vector<int> Layout(kyStorage* s) {
    return {kyTestAccess::Use64(s), kyTestAccess::Format(s), int(kyTestAccess::RootOffset(s)),
            kyTestAccess::FastSlots(s), kyTestAccess::SlotsPerBlock(s)};
  }
};

TEST_P(StorageFileTest, NewFileIsByteExactAndKeepsItsWidth) {
  WriteAll(path, Bytes(100000, 0x5A));  // emptied by Create
  EXPECT_EQ(0, kyTestAccess::Map(Make(4096)).GetCount());
  Close();
  Bytes expected = NewImage();
  AddBlock(expected);
  EXPECT_EQ(expected, ReadAll(path));
  kyStorage::g_bUse64BitOffsets = !B64();  // read by Create only
  EXPECT_EQ((std::vector<int>{B64(), B64() ? '2' : '1', 32, 6, 64}), Layout(Reopen()));
  if (!B64()) return;
  for (char mark : {'3', 'A', '\x7f'}) {  // any mark from '2' up means 64-bit offsets
    expected[24] = static_cast<uint8_t>(mark);
    EXPECT_EQ((std::vector<int>{1, mark, 32, 6, 64}), Layout(OpenImage(expected)));
  }
}

// Another object over the file still gathering writes: they go in before
// Create empties the file, never over the new storage.
TEST_P(StorageFileTest, CreateOverAGatheringStorageWritesAnew) {
  kyStorage* other = kyStorage::Create(path.c_str(), kRW, 4096);
  ASSERT_TRUE(other != nullptr && other->BeginWriteBatch());
  kyStream* stm = other->CreateStream("pending", kRW);
  ASSERT_TRUE(stm != nullptr && stm->Write("data", 4) == 4);
  stm->Release();
  EXPECT_EQ(0, kyTestAccess::Map(Make(4096)).GetCount());
  Close();
  other->Release();
  Bytes expected = NewImage();
  AddBlock(expected);
  EXPECT_EQ(expected, ReadAll(path));
}

TEST_P(StorageFileTest, NameMapHoldsExactlyTheUsedSlotsOfAChain) {
  Bytes im = NewImage();
  const int64_t b0 = AddBlock(im), b1 = AddBlock(im), b2 = AddBlock(im);
  PutOff(im, b0 + 8, b1);
  PutOff(im, b1 + 8, b2);
  Name(im, b0, 0, "fast");
  Name(im, b0, 7, "Seven", 5);
  Name(im, b1, 0, "second");
  Name(im, b2, 10, "twice");
  Name(im, b2, 63, "twice");  // later in directory order wins
  Name(im, b1, 5, "ghost");   // a name without the slot magic is no stream
  Put32(im, Slot(b1, 5), 0);
  memset(&im[Slot(b0, 6) + 4], 'x', 63);  // a name without its terminator
  kyStorage* s = OpenImage(im);
  EXPECT_EQ(5, kyTestAccess::Map(s).GetCount());
  const tag_kyStreamOffset o7 = Locator("Seven");
  EXPECT_EQ(
      (std::vector<int64_t>{Slot(b0, 7), b0, 64, 300}),
      (std::vector<int64_t>{o7.headerOffset, o7.blockOffset, o7.dwBlockSlots, o7.dwDuration}));
  const char* const names[] = {"fast", "second", "twice",
                               "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"};
  const int64_t slots[] = {Slot(b0, 0), Slot(b1, 0), Slot(b2, 63), Slot(b0, 6)};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(slots[i], Locator(names[i]).headerOffset);  // cut at 60
  EXPECT_EQ(b1, Locator("second").blockOffset);
  tag_kyStreamOffset o;
  for (const char* absent : {"ghost", "seven"})  // case matters
    EXPECT_FALSE(kyTestAccess::FindStreamOffset(s, absent, o)) << absent;
  EXPECT_TRUE(s->RemoveStream("Seven"));
  EXPECT_FALSE(kyTestAccess::FindStreamOffset(s, "Seven", o));
  EXPECT_FALSE(s->RemoveStream("Seven") || s->RemoveStream(nullptr));
  Close();
  EXPECT_EQ(im, ReadAll(path));  // mapping and removal touch no file
}

// Files that are not storages: every open fails and the file stays as it was.
TEST_P(StorageFileTest, DamagedFilesAreRefusedAndLeftAlone) {
  const struct {
    const char* name;
    std::function<void(Bytes&)> damage;
  } cases[] = {
      {"signature", [](Bytes& im) { im[3] = 'r'; }},
      {"format '0'", [](Bytes& im) { im[24] = '0'; }},
      {"format 0x80, below '1' as a signed char", [](Bytes& im) { im[24] = 0x80; }},
      {"short file", [](Bytes& im) { im.resize(31); }},
      {"header only", [](Bytes& im) { im.resize(32); }},
      {"truncated block", [](Bytes& im) { im.pop_back(); }},
      {"block magic", [](Bytes& im) { Put32(im, 32, 0xFBFBFBFA); }},
      {"slot count 63", [](Bytes& im) { Put32(im, 36, 63); }},
      {"slots per block 32", [](Bytes& im) { Put16(im, 26, 32); }},
      {"fast slots 7", [](Bytes& im) { Put16(im, 28, 7); }},
      {"second block of 63 slots", [&](Bytes& im) { PutOff(im, 40, AddBlock(im, 63)); }},
  };
  for (const auto& c : cases) {
    Bytes im = NewImage();
    AddBlock(im);
    c.damage(im);
    WriteAll(path, im);
    EXPECT_EQ(nullptr, kyStorage::Open(path.c_str(), kRW, 64, 0)) << c.name;
    EXPECT_EQ(nullptr, kyStorage::Open(path.c_str(), kRO, 64, 1)) << c.name;
    EXPECT_EQ(nullptr, kyStorage::OpenOrCreate(path.c_str(), kRW, 64)) << c.name;
    EXPECT_EQ(im, ReadAll(path)) << c.name;
  }
}

TEST_P(StorageFileTest, OlderHeaderHasTwoFastSlotsAndTheDirectoryAtTwentySix) {
  if (B64()) GTEST_SKIP() << "the older header knows 32-bit offsets only";
  Bytes im(26, 0);
  memcpy(im.data(), "@_RK_Structured_Storage@_", 25);
  ASSERT_EQ(26, AddBlock(im));
  Name(im, 26, 1, "old");
  for (int load = 0; load < 2; ++load) {
    EXPECT_EQ((std::vector<int>{0, '_', 26, 2, 64}), Layout(OpenImage(im, load)));
    EXPECT_EQ(Slot(26, 1), Locator("old").headerOffset);
  }
  kyStorage* s = Reopen(kRW);
  EXPECT_EQ(Slot(26, 0), HeaderOffset(Hold(Must(s->CreateStreamFast("f0", kRW))).get()));
  EXPECT_EQ(nullptr, s->CreateStreamFast("f2", kRW));  // both fast slots taken
  Add("ord");
  EXPECT_EQ(Slot(26, 2), Locator("ord").headerOffset);
  EXPECT_STREQ("ord", Hold(Must(s->OpenStreamFirst(kRO)))->GetName());  // first ordinary slot
  s = Reopen(kRO, 2);
  EXPECT_EQ(0, kyTestAccess::Map(s).GetCount());  // no map without the walk
  Must(s->OpenStreamFast("old", kRO))->Release();
  EXPECT_EQ(nullptr, s->OpenStreamFast("ord", kRO));  // slot 2 is no fast slot here
}

TEST_P(StorageFileTest, FactoriesRefuseWhatTheyCannotOpen) {
  EXPECT_EQ(nullptr, kyStorage::Open(path.c_str(), kRO, 64, 0));
  EXPECT_EQ(nullptr, kyStorage::OpenFast(path.c_str(), kRO, 64));
  EXPECT_FALSE(Exists(path));
  for (int i = 0; i < 2; ++i) Hold(kyStorage::OpenOrCreate(path.c_str(), kRW, 64));  // then opens
  EXPECT_EQ(32 + DBS(), Size());
  // A directory, or a path of 260 characters or more, is refused untouched.
  const std::string longPath = dir.path() + "/" + std::string(259 - dir.path().size(), 'p');
  for (const std::string& bad : {dir.path(), longPath}) {
    EXPECT_EQ(nullptr, kyStorage::OpenOrCreate(bad.c_str(), kRW, 64));
    EXPECT_EQ(nullptr, kyStorage::Create(bad.c_str(), kRW, 64));
  }
  EXPECT_FALSE(Exists(longPath));
  path = longPath.substr(0, 259);
  EXPECT_STREQ(path.c_str(), Make()->GetPath());
  EXPECT_EQ(nullptr, kyStorage::Create(nullptr, kRW, 64));
  EXPECT_EQ(nullptr, kyStorage::Open("", kRO, 64, 0));
}

TEST_P(StorageFileTest, LoadServesReadsFromMemoryWithTheFileClosed) {
  Make();
  Close();
  Bytes bytes = ReadAll(path);  // megabytes: the loader takes all
  bytes.resize(4u << 20);
  for (size_t i = 32 + DBS(); i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7);
  for (int how = 0; how < 2; ++how)  // a writable open or OpenFast never loads
    EXPECT_FALSE(kyTestAccess::InMemory(how ? OpenImage(bytes, 2) : Reopen(kRW, 1)));
  kyStorage* s = Reopen(kRO, 1);
  EXPECT_EQ(INVALID_HANDLE_VALUE, kyTestAccess::File(s));
  const int64_t size = static_cast<int64_t>(bytes.size());
  EXPECT_TRUE(size == kyTestAccess::ImageSize(s) && size == kyTestAccess::LastAppended(s));
  ASSERT_EQ(0, _unlink(path.c_str()));  // everything is in memory now
  // A read past the end delivers what is there.
  ASSERT_EQ(size - 10, kyTestAccess::SetFilePointer(s, size - 10, FILE_BEGIN));
  Bytes chunk(1000);
  long long got = 0;
  ASSERT_TRUE(kyTestAccess::ReadFile(s, chunk.data(), 1000, &got));
  EXPECT_EQ(Slice(bytes, size - 10, size), Slice(chunk, 0, static_cast<size_t>(got)));
  t_kyStreamU h{};  // no handle to write through
  EXPECT_FALSE(kyTestAccess::WriteStreamHeader(s, 44, h));
}

INSTANTIATE_TEST_SUITE_P(Widths, StorageFileTest, ::testing::Bool(), WidthName);

}  // namespace
