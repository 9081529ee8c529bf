// Changing the tree: removing streams with everything below them, renaming
// them, and copying a stream's data or a folder's tree, also into another
// storage, merging into what the destination holds.  The slots on disk, the
// registries and maps, the refusals, and the recorder's records of a removal.

#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;
using kytest::Hold;

class TreeEditTest : public FolderTest {
 protected:
  void TearDown() override {
    if (other != nullptr) other->Release();
    FolderTest::TearDown();
  }
  kyStorage* OpenOther(bool create) {
    if (other != nullptr) other->Release();
    other = create ? kyStorage::Create(otherPath.c_str(), kModeReadWriteShared, 64)
                   : kyStorage::Open(otherPath.c_str(), kModeReadWriteShared, 64, 0);
    return other;
  }
  static std::string Pattern(size_t n) {
    std::string s(n, 0);
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + i % 23);
    return s;
  }
  // Text of the child at a slash-separated path below `folder`.
  template <class P>
  static std::string At(const P& folder, const std::string& childPath) {
    const size_t slash = childPath.find('/');
    auto c = OpenIn(folder, childPath.substr(0, slash).c_str());
    if (c == nullptr) return "<none>";
    return slash == std::string::npos ? (c->IsFolder() ? "<folder>" : Text(c))
                                      : At(c, childPath.substr(slash + 1));
  }
  // The W bytes of the slot at `offset` in the file.
  Bytes SlotOnDisk(int64_t offset) const {
    const Bytes file = kytest::ReadAll(path);
    return Bytes(file.begin() + offset, file.begin() + offset + W());
  }
  // What a freed slot holds: magic and chain kept, everything else zero.
  Bytes Freed(const Bytes& used) const {
    Bytes b = Slot("", 0, 0, 0, 0, 0);
    const size_t links = B64() ? 76 : 72;
    std::copy(used.begin() + links, used.end(), b.begin() + links);
    return b;
  }
  std::string Records(CCompRecorder* r) {
    std::string out;
    RecOpEnum op;
    char name[64];
    unsigned char* data = nullptr;
    DWORD n = 0;
    while (r->PopOp(&op, name, &data, &n)) out += std::to_string(op) + name + " ";
    return out;
  }

  std::string otherPath = dir.File("other.kys");
  kyStorage* other = nullptr;
};

TEST_P(TreeEditTest, RemovingAFolderFreesEverySlotBelowIt) {
  auto r = Hold(Root("R"));
  Child(r, "F", 1);
  kyStream* f = r->OpenStream("F", kModeReadWriteShared);
  Child(f, "sub", 1);
  std::vector<int64_t> slots = {HeaderOffset(f)};
  {
    auto sub = OpenIn(f, "sub", kModeReadWriteShared);
    slots.push_back(HeaderOffset(sub));
    for (const char* e : {"e1", "e2"}) {
      Child(sub, e, 0, e);
      slots.push_back(HeaderOffset(OpenIn(sub, e)));
    }
  }
  std::vector<Bytes> before;
  for (int64_t at : slots) before.push_back(SlotOnDisk(at));
  const int64_t size = kytest::FileSize(path);
  ASSERT_TRUE(f->Remove());
  EXPECT_EQ(size, kytest::FileSize(path));
  for (size_t i = 0; i < slots.size(); ++i) EXPECT_EQ(Freed(before[i]), SlotOnDisk(slots[i])) << i;
  EXPECT_EQ(1u, kytest::Get32(DataOf(r), 0));  // the count stays
  EXPECT_EQ(0, kyTestAccess::Children(r.get()).GetCount());
  r.reset();

  ASSERT_NE(nullptr, Reopen());
  kyStream* root = storage->OpenStream("R", kModeReadWriteShared);
  EXPECT_TRUE(ChildNames(root).empty());
  ASSERT_TRUE(root->Remove());
  EXPECT_EQ(nullptr, storage->OpenStream("R", kModeReadShared));
  EXPECT_EQ(nullptr, kyTestAccess::IsStreamOpen(storage, "R"));
  ASSERT_NE(nullptr, Reopen());
  EXPECT_EQ(nullptr, storage->OpenStream("R", kModeReadShared));
}

// The data stay as they were; a root made by creation is removed at once,
// and a new one takes its slot and the old chain.
TEST_P(TreeEditTest, RemoveLeavesTheDataAlone) {
  kyStream* r = Root("R", 0);
  Bytes data(12, 0);
  kytest::Put32(data, 4, kStreamHeaderMagic);  // looks like the start of a slot
  ASSERT_EQ(12, r->Write(data.data(), 12));
  const int64_t at = FirstBlock(r) + H();
  ASSERT_TRUE(r->Remove());
  const Bytes file = kytest::ReadAll(path);
  EXPECT_EQ(data, Bytes(file.begin() + at, file.begin() + at + 12));
  EXPECT_EQ(nullptr, storage->OpenStream("R", kModeReadShared));
  auto again = Hold(Root("R", 0));
  EXPECT_EQ(0, again->GetLength());
  EXPECT_EQ(at - H(), FirstBlock(again));
}

TEST_P(TreeEditTest, RemoveRefusesWhileAnythingIsOpen) {
  {
    auto r = Hold(Root("R"));
    Child(r, "F", 1);
    Child(OpenIn(r, "F", kModeReadWriteShared), "g", 0, "data");
  }
  ASSERT_NE(nullptr, Reopen());
  const Bytes image = kytest::ReadAll(path);
  EXPECT_FALSE(Open("R")->Remove());  // no write bit
  kyStream* r = storage->OpenStream("R", kModeReadWriteShared);
  kyStream* f = r->OpenStream("F", kModeReadWriteShared);
  kyStream* g = f->OpenStream("g", kModeReadShared);
  {
    auto f2 = OpenIn(r, "F", kModeReadWriteShared);
    auto r2 = Open("R", kModeReadWriteShared);
    EXPECT_FALSE(f->Remove());   // g is open below it
    EXPECT_FALSE(f2->Remove());  // another object of F is open
    EXPECT_FALSE(r2->Remove());  // another object of R is open
  }
  EXPECT_FALSE(r->Remove());                                     // F and g are open through it
  EXPECT_FALSE(OpenIn(f, "g", kModeReadWriteShared)->Remove());  // g is open twice
  EXPECT_EQ(image, kytest::ReadAll(path));
  g->Release();
  ASSERT_TRUE(f->Remove());
  ASSERT_TRUE(r->Remove());
}

TEST_P(TreeEditTest, RemoveIsRecorded) {
  Root("R")->Release();
  kyStream* r = storage->OpenStream("R", kModeReadWriteShared);
  Child(r, "c", 0, "x");
  Child(r, "d", 0, "y");
  ASSERT_EQ(1, storage->StartRecording());
  ASSERT_TRUE(r->OpenStream("c", kModeReadWriteShared)->Remove());
  ASSERT_TRUE(r->Remove());
  CCompRecorder* rec = storage->StopRecording();
  ASSERT_NE(nullptr, rec);
  rec->SeekToBegin();
  // Each child removal enters its parent and leaves it again; the root's
  // own removal is made with nothing entered.
  EXPECT_EQ("1R 4c 3 1R 4d 3 4R ", Records(rec));
  delete rec;
}

TEST_P(TreeEditTest, RenameKeepsSixtyCharactersAndMovesRecords) {
  const std::string sixty(60, 'q');
  {
    auto r = Hold(Root("R"));
    Child(r, "c", 0, "data");
    r->PreloadChildren();
    kyStream* c = r->OpenStream("c", kModeReadWriteShared);
    ASSERT_TRUE(c->Rename(std::string(70, 'q').c_str()));
    EXPECT_EQ(sixty, c->GetName());
    EXPECT_EQ(nullptr, r->IsStreamOpen("c"));
    ASSERT_NE(nullptr, r->IsStreamOpen(sixty.c_str()));
    EXPECT_EQ(1, c->Release());
    EXPECT_FALSE(Finds(r, "c"));
    EXPECT_TRUE(Finds(r, sixty.c_str()));
    ASSERT_TRUE(r->Rename("Root2"));
    EXPECT_EQ(nullptr, storage->OpenStream("R", kModeReadShared));
    EXPECT_EQ(nullptr, kyTestAccess::IsStreamOpen(storage, "R"));
    EXPECT_NE(nullptr, Open("Root2"));
  }
  ASSERT_NE(nullptr, Reopen());
  auto r = Open("Root2", kModeReadWriteShared);
  auto c = OpenIn(r, sixty.c_str(), kModeReadWriteShared);
  ASSERT_NE(nullptr, c);
  EXPECT_EQ("data", Text(c));
  const Bytes image = kytest::ReadAll(path);
  EXPECT_FALSE(c->Rename(""));
  EXPECT_FALSE(c->Rename(nullptr));
  EXPECT_EQ(sixty, c->GetName());
  c.reset();
  EXPECT_FALSE(OpenIn(r, sixty.c_str())->Rename("other"));  // no write bit
  EXPECT_EQ(image, kytest::ReadAll(path));
}

TEST_P(TreeEditTest, CopyStreamReplacesTheDestinationsData) {
  ASSERT_NE(nullptr, OpenOther(true));
  const std::string longer = Pattern(2000), data = Pattern(1000).substr(0, 999) + "!";
  {
    auto src = Hold(Root("src", 0));
    ASSERT_EQ(
        2000,
        Hold(other->CreateStream("dst", 0, kModeReadWriteShared))->Write(longer.data(), 2000));
    ASSERT_EQ(500, src->Write(data.data(), 500));
    ASSERT_EQ(1, Hold(Root("between", 0))->Write("z", 1));  // its block ends the file now
    ASSERT_EQ(0, src->Seek(0, 1));
    ASSERT_EQ(500, src->Write(data.data() + 500, 500));
    ASSERT_NE(FirstBlock(src), kyTestAccess::Header(src.get()).LastBlock(B64())) << "two blocks";
  }
  auto dst = Hold(other->OpenStream("dst", kModeReadWriteShared));
  ASSERT_TRUE(Open("src")->CopyStream(dst.get()));
  EXPECT_EQ(1000, dst->GetLength());
  dst.reset();
  ASSERT_NE(nullptr, OpenOther(false));
  dst = Hold(other->OpenStream("dst", kModeReadWriteShared));
  EXPECT_EQ(data, Text(dst));
  EXPECT_FALSE(Hold(Root("empty", 0))->CopyStream(dst.get()));
  EXPECT_EQ(0, dst->GetLength());
  // Onto itself: refused.
  auto s = Open("src", kModeReadWriteShared);
  auto same = Open("src", kModeReadWriteShared);
  EXPECT_FALSE(s->CopyStream(s.get()));
  EXPECT_FALSE(s->CopyStream(same.get()));
  EXPECT_EQ(data, Text(same));
}

TEST_P(TreeEditTest, CopyFolderMergesIntoAnotherStorage) {
  ASSERT_NE(nullptr, OpenOther(true));
  {
    auto src = Hold(Root("S"));
    Child(src, "a", 0, "A-data");
    Child(src, "f", 1);
    Child(src, "d", 0x00050000, "timed");
    auto f = OpenIn(src, "f", kModeReadWriteShared);
    Child(f, "x", 0, Pattern(300));
    Child(f, "deeper", 1);
    auto dst = Hold(other->CreateStream("D", 1, kModeReadWriteShared));
    Child(dst, "keep", 0, "K");
    Child(dst, "f", 0, "a data stream where the source has a folder");
    Child(dst, "a", 1);  // a folder where the source has a data stream
  }
  ASSERT_NE(nullptr, Reopen());
  ASSERT_TRUE(Open("S")->CopyFolder(Hold(other->OpenStream("D", kModeReadWriteShared)).get()));
  ASSERT_NE(nullptr, OpenOther(false));
  auto dst = Hold(other->OpenStream("D", kModeReadShared));
  EXPECT_EQ("K", At(dst, "keep"));
  EXPECT_EQ("A-data", At(dst, "a"));
  EXPECT_EQ("<folder>", At(dst, "f"));
  EXPECT_EQ(Pattern(300), At(dst, "f/x"));
  EXPECT_EQ("<folder>", At(dst, "f/deeper"));
  EXPECT_EQ("timed", At(dst, "d"));
  EXPECT_EQ(0, OpenIn(dst, "d")->GetDuration());  // made with type 0
  EXPECT_EQ(4u, ChildNames(dst).size());
}

TEST_P(TreeEditTest, CopyFolderIntoItselfOrBelowIsRefused) {
  {
    auto s = Hold(Root("S"));
    Child(s, "f", 1);
    Child(s, "x", 0, "x");
  }
  ASSERT_NE(nullptr, Reopen());
  const Bytes image = kytest::ReadAll(path);
  auto s = Open("S", kModeReadWriteShared);
  auto same = Open("S", kModeReadWriteShared);
  auto below = OpenIn(same, "f", kModeReadWriteShared);
  EXPECT_FALSE(s->CopyFolder(s.get()));
  EXPECT_FALSE(s->CopyFolder(same.get()));
  EXPECT_FALSE(s->CopyFolder(below.get()));
  {
    // The same file opened by a second storage object is the same folder.
    auto twin = Hold(kyStorage::Open(path.c_str(), kModeReadWriteShared, 256, 0));
    ASSERT_NE(nullptr, twin);
    EXPECT_FALSE(s->CopyFolder(Hold(twin->OpenStream("S", kModeReadWriteShared)).get()));
  }
  EXPECT_EQ(image, kytest::ReadAll(path));
  // Into its parent's sibling is fine.
  auto t = Hold(Root("T"));
  EXPECT_TRUE(below->CopyFolder(t.get()));
  EXPECT_TRUE(s->CopyFolder(t.get()));
  EXPECT_EQ("x", At(t, "x"));
}

INSTANTIATE_TEST_SUITE_P(Widths, TreeEditTest, ::testing::Bool());

}  // namespace
