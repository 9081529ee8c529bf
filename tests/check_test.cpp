// The integrity check: each kind of damage is found at its offset, nothing
// is found on storages the library writes, and the command reads only.

#include <sys/stat.h>

#include <functional>
#include <string>

#include "support/cli_fixture.h"

namespace {

using namespace kytest;

std::string Faults(const kyCheckReport& r) {
  std::string s;
  for (const kyCheckFault& f : r.faults) s += std::to_string(f.offset) + ": " + f.message + "\n";
  return s;
}

class Check : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { kyStorage::g_bUse64BitOffsets = GetParam(); }
  kyCheckReport Run() {
    kyCheckReport r;
    EXPECT_TRUE(kyCheckStorage(path.c_str(), &r)) << r.error;
    return r;
  }
  // Root D (data), root folder F with child a in one session and child b
  // in a second, so that F's slots lie in two blocks.
  void BuildSmall() {
    kyStorage* st = kyStorage::Create(path.c_str(), 0x16, 64);
    kyStream* d = st->CreateStream("D", 0, 0x16);
    d->Write("data of D", 9);
    kyStream* f = st->CreateStream("F", 1, 0x16);
    kyStream* a = f->CreateStream("a", 0, 0x16, 1);
    a->Write("aaaa", 4);
    for (kyStream* s : {a, f, d}) s->Release();
    st->Release();
    st = kyStorage::Open(path.c_str(), 0x16, 64, 0);
    f = st->OpenStream("F", 0x16);
    kyStream* b = f->CreateStream("b", 0, 0x16, 1);
    b->Write("bb", 2);
    b->Release();
    f->Release();
    st->Release();
  }
  int64_t GetW(const Bytes& b, int64_t at) const {
    return GetParam() ? Get64(b, at) : Get32(b, at);
  }
  void PutW(Bytes& b, int64_t at, int64_t v) const {
    if (GetParam())
      Put64(b, at, v);
    else
      Put32(b, at, static_cast<uint32_t>(v));
  }
  int64_t Off(int64_t f64, int64_t f32) const { return GetParam() ? f64 : f32; }

  GlobalsGuard globals;
  TempDir dir;
  std::string path = dir.File("c.kys");
};

// Every kind of damage, made by patching a sound image, is reported at the
// offset of the bytes that are wrong.
TEST_P(Check, FindsEachFaultAtItsOffset) {
  BuildSmall();
  const Bytes sound = ReadAll(path);
  const int64_t size = sound.size(), h = Off(40, 20), w = Off(92, 80);
  const int64_t next = Off(32, 16), used = Off(8, 4), alloc = Off(16, 8);
  const int64_t lastF = Off(76, 72), firstF = Off(84, 76), root = 32 + Off(16, 12);
  const int64_t dSlot = root + 6 * w, fSlot = root + 7 * w, dBlock = GetW(sound, dSlot + firstF);
  const int64_t fBlock = GetW(sound, fSlot + firstF), aSlot = fBlock + h + 4;
  const int64_t bSlot = GetW(sound, fBlock + next) + h, aBlock = GetW(sound, aSlot + firstF);
  ASSERT_EQ(Faults(Run()), "");
  ASSERT_EQ(sound.at(bSlot + 4), 'b');
  const struct {
    const char* message;
    std::function<int64_t(Bytes&)> damage;  // returns the offset of the fault
  } cases[] = {
      {"slots per directory block", [&](Bytes& b) { return Put16(b, 26, 63), 26; }},
      {"slot count 63", [&](Bytes& b) { return Put32(b, 36, 63), 36; }},
      {"loops back", [&](Bytes& b) { return PutW(b, 40, 32), 40; }},
      {"points backwards", [&](Bytes& b) { return PutW(b, 40, 10), 40; }},
      {"past the end", [&](Bytes& b) { return PutW(b, 40, size), 40; }},
      {"loops back", [&](Bytes& b) { return PutW(b, dBlock + next, dBlock), dBlock + next; }},
      {"past the end", [&](Bytes& b) { return PutW(b, dBlock + next, size), dBlock + next; }},
      {"points backwards", [&](Bytes& b) { return PutW(b, aBlock + next, dBlock), aBlock + next; }},
      {"no data block magic", [&](Bytes& b) { return Put32(b, aBlock, 0), aBlock; }},
      {"more than the 9 bytes", [&](Bytes& b) { return PutW(b, dSlot + 68, 10), dSlot + 68; }},
      {"used end", [&](Bytes& b) { return PutW(b, dBlock + used, 65 + h), dBlock + used; }},
      {"allocated end", [&](Bytes& b) { return PutW(b, dBlock + alloc, size), dBlock + alloc; }},
      {"child count 3", [&](Bytes& b) { return Put32(b, fBlock + h, 3), fBlock + h; }},
      {"straddles",
       [&](Bytes& b) {
         PutW(b, fBlock + used, GetW(b, fBlock + used) - 8);
         return PutW(b, fBlock + alloc, GetW(b, fBlock + alloc) - 8), aSlot;
       }},
      {"also linked by 'F/a'", [&](Bytes& b) { return PutW(b, bSlot + firstF, aBlock), aBlock; }},
      {"also linked by 'D'", [&](Bytes& b) { return PutW(b, dBlock + next, aBlock), aBlock; }},
      {"also used by", [&](Bytes& b) { return b.at(bSlot + 4) = 'a', bSlot; }},
      {"terminating NUL",
       [&](Bytes& b) { return std::fill_n(b.begin() + aSlot + 4, 61, 'x'), aSlot + 4; }},
      {"without the slot magic", [&](Bytes& b) { return Put32(b, dSlot, 0), dSlot; }},
      {"not a block of its chain",
       [&](Bytes& b) { return PutW(b, dSlot + lastF, aBlock), dSlot + lastF; }},
  };
  for (const auto& c : cases) {
    Bytes image = sound;
    const int64_t offset = c.damage(image);
    WriteAll(path, image);
    const kyCheckReport r = Run();
    bool found = false;
    for (const kyCheckFault& f : r.faults)
      found |= static_cast<int64_t>(f.offset) == offset &&
               f.message.find(c.message) != std::string::npos;
    EXPECT_TRUE(r.isStorage && found) << c.message << " at " << offset << ":\n" << Faults(r);
  }
}

// What is not a storage is said so, and nothing else is checked.
TEST_P(Check, RefusesWhatIsNotAStorage) {
  BuildSmall();
  const Bytes sound = ReadAll(path);
  const std::function<void(Bytes&)> damages[] = {
      [](Bytes& b) { b.clear(); }, [](Bytes& b) { b.resize(20); }, [](Bytes& b) { b[3] = 'x'; },
      [](Bytes& b) { b[24] = static_cast<char>(0x80); }};
  for (const auto& damage : damages) {
    Bytes image = sound;
    damage(image);
    WriteAll(path, image);
    const kyCheckReport r = Run();
    EXPECT_FALSE(r.isStorage);
    EXPECT_TRUE(r.faults.empty() && !r.error.empty());
  }
  kyCheckReport r;
  EXPECT_FALSE(kyCheckStorage(dir.File("missing").c_str(), &r));
  EXPECT_EQ(r.error, "No such file or directory");
}

// A storage of every shape the library writes checks clean: two directory
// blocks, fast slots, nested folders over several blocks, entries, removed
// streams and slots reused after them; and so does its compacted copy.
TEST_P(Check, FindsNothingOnStoragesTheLibraryWrites) {
  kyStorage* st = kyStorage::Create(path.c_str(), 0x16, 32);
  for (int i = 0; i < 66; ++i) {
    kyStream* s = st->CreateStream(("root" + std::to_string(i)).c_str(), i % 3 == 0, 0x16);
    if (i % 3 != 0) s->Write(Pattern(i * 7, i).data(), i * 7);
    s->Release();
  }
  kyStream* fast = st->CreateStreamFast("fast", 0, 0x16);
  fast->Write("x", 1);
  fast->Release();
  st->SetEntry("entry", 5);
  for (int round = 0; round < 2; ++round) {
    kyStream* f = st->OpenStream("root3", 0x16);
    kyStream* g = f->OpenOrCreateStream("sub", 1);
    for (int i = 0; i < 5; ++i) g->SetEntry(("e" + std::to_string(i + round)).c_str(), "value");
    if (kyStream* e = g->OpenStream("e1", 0x16)) e->Remove();
    kyStream* r = st->OpenStream(("root" + std::to_string(10 + round)).c_str(), 0x16);
    r->Remove();
    g->Release();
    f->Release();
    st->Release();
    st = kyStorage::Open(path.c_str(), 0x16, 32, 0);
  }
  kyStream* reused = st->CreateStream("reused", 0, 0x16);
  reused->Write("abc", 3);
  reused->Release();
  st->Release();
  kyCheckReport r = Run();
  EXPECT_EQ(Faults(r), "");
  EXPECT_EQ(r.directoryBlocks, 2u);
  EXPECT_GT(r.freeSlotBytes, 0u);
  EXPECT_EQ(r.liveBytes + r.freeSlotBytes + r.unreachableBytes + r.directoryBytes, r.fileSize);
  ASSERT_TRUE(kyStorage::Recreate(path.c_str()));
  r = Run();
  EXPECT_EQ(Faults(r), "");
  EXPECT_EQ(r.freeSlotBytes + r.unreachableBytes, 0u);
}

INSTANTIATE_TEST_SUITE_P(Widths, Check, ::testing::Bool());

// The command: a line per fault, exit 0, 1 or 2, and the file untouched.
TEST_P(Cli, CheckReportsFaultsAndNeverWrites) {
  EXPECT_NE(Ok({"check", file}).find("no faults\n"), std::string::npos);
  Bytes image = Image();
  Put32(image, 36, 63);
  WriteAll(file, image);
  struct stat before, after;
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  CliResult r = Run({"check", file});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("offset 0x00000024: directory block has slot count 63"), std::string::npos);
  r = Run({"check", "--json", file});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("\"faults\":[{\"offset\":36,\"message\":"), std::string::npos) << r.out;
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_EQ(ReadAll(file), image);
  EXPECT_TRUE(before.st_mtim.tv_sec == after.st_mtim.tv_sec &&
              before.st_mtim.tv_nsec == after.st_mtim.tv_nsec);
  WriteAll(file, Bytes());
  Fails({"check", file}, "not a storage file (the file is empty)", "", 2);
  Fails({"check", dir.path()}, "is a directory", "", 2);
}

INSTANTIATE_TEST_SUITE_P(Widths, Cli, ::testing::Bool());

}  // namespace
