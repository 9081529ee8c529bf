// Removing streams with everything below them, and renaming them: the slots
// on disk, the registries and maps, the refusals, and the recorder's
// records of a removal.

#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;

class RemoveRenameTest : public FolderTest {
 protected:
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
};

TEST_P(RemoveRenameTest, RemovingAFolderFreesEverySlotBelowIt) {
  ASSERT_NE(nullptr, Create());
  kyStream* r = Root("R");
  Child(r, "F", 1);
  kyStream* f = r->OpenStream("F", kModeReadWriteShared);
  Child(f, "sub", 1);
  kyStream* sub = f->OpenStream("sub", kModeReadWriteShared);
  Child(sub, "e1", 0, "one");
  Child(sub, "e2", 0, "two");
  std::vector<int64_t> slots = {HeaderOffset(f), HeaderOffset(sub)};
  for (const char* e : {"e1", "e2"}) {
    kyStream* s = sub->OpenStream(e, kModeReadShared);
    slots.push_back(HeaderOffset(s));
    s->Release();
  }
  sub->Release();
  std::vector<Bytes> before;
  for (int64_t at : slots) before.push_back(SlotOnDisk(at));
  const int64_t size = kytest::FileSize(path);

  ASSERT_TRUE(f->Remove());
  EXPECT_EQ(size, kytest::FileSize(path));
  for (size_t i = 0; i < slots.size(); ++i) EXPECT_EQ(Freed(before[i]), SlotOnDisk(slots[i])) << i;
  EXPECT_EQ(1u, kytest::Get32(DataOf(r), 0));  // the count stays
  EXPECT_EQ(0, kyTestAccess::Children(r).GetCount());
  r->Release();

  ASSERT_NE(nullptr, Reopen());
  r = storage->OpenStream("R", kModeReadWriteShared);
  CStringArray names;
  r->EnumStreams(names);
  EXPECT_EQ(0, names.GetSize());
  ASSERT_TRUE(r->Remove());
  EXPECT_EQ(nullptr, storage->OpenStream("R", kModeReadShared));
  EXPECT_EQ(nullptr, kyTestAccess::IsStreamOpen(storage, "R"));
  ASSERT_NE(nullptr, Reopen());
  EXPECT_EQ(nullptr, storage->OpenStream("R", kModeReadShared));
}

TEST_P(RemoveRenameTest, RemoveLeavesTheDataAlone) {
  ASSERT_NE(nullptr, Create());
  kyStream* r = Root("R");
  Bytes data(12, 0);
  kytest::Put32(data, 4, kStreamHeaderMagic);  // looks like the start of a slot
  kyStream* d = r->CreateStream("d", 0, kModeReadWriteShared, 1);
  ASSERT_EQ(12, d->Write(data.data(), 12));
  const int64_t at = FirstBlock(d) + H();
  ASSERT_TRUE(d->Remove());
  const Bytes file = kytest::ReadAll(path);
  EXPECT_EQ(data, Bytes(file.begin() + at, file.begin() + at + 12));
  r->Release();
}

TEST_P(RemoveRenameTest, RemoveRefusesWhileAnythingIsOpen) {
  ASSERT_NE(nullptr, Create());
  kyStream* r = Root("R");
  Child(r, "F", 1);
  kyStream* f1 = r->OpenStream("F", kModeReadWriteShared);
  Child(f1, "g", 0, "data");
  f1->Release();
  r->Release();
  ASSERT_NE(nullptr, Reopen());
  const Bytes image = kytest::ReadAll(path);

  kyStream* ro = storage->OpenStream("R", kModeReadShared);
  EXPECT_FALSE(ro->Remove());  // no write bit
  ro->Release();
  r = storage->OpenStream("R", kModeReadWriteShared);
  kyStream* f = r->OpenStream("F", kModeReadWriteShared);
  kyStream* g = f->OpenStream("g", kModeReadShared);
  kyStream* f2 = r->OpenStream("F", kModeReadWriteShared);
  kyStream* r2 = storage->OpenStream("R", kModeReadWriteShared);
  EXPECT_FALSE(f->Remove());   // g is open below it
  EXPECT_FALSE(f2->Remove());  // another object of F is open
  EXPECT_FALSE(r2->Remove());  // another object of R is open
  f2->Release();
  r2->Release();
  EXPECT_FALSE(r->Remove());  // F and g are open through it
  kyStream* g2 = f->OpenStream("g", kModeReadWriteShared);
  EXPECT_FALSE(g2->Remove());  // g is open twice
  EXPECT_EQ(image, kytest::ReadAll(path));
  g2->Release();
  g->Release();
  ASSERT_TRUE(f->Remove());
  ASSERT_TRUE(r->Remove());
}

TEST_P(RemoveRenameTest, RootMadeByCreationIsRemoved) {
  ASSERT_NE(nullptr, Create());
  kyStream* r = Root("R", 0);
  ASSERT_EQ(3, r->Write("abc", 3));
  ASSERT_TRUE(r->Remove());
  EXPECT_EQ(nullptr, storage->OpenStream("R", kModeReadShared));
  kyStream* again = Root("R", 0);  // the freed slot, the old chain
  EXPECT_EQ(0, again->GetLength());
  again->Release();
}

TEST_P(RemoveRenameTest, RemoveIsRecorded) {
  ASSERT_NE(nullptr, Create());
  kyStream* r = Root("R");
  Child(r, "c", 0, "x");
  Child(r, "d", 0, "y");
  r->Release();
  r = storage->OpenStream("R", kModeReadWriteShared);
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

TEST_P(RemoveRenameTest, RenameKeepsSixtyCharactersAndMovesRecords) {
  ASSERT_NE(nullptr, Create());
  kyStream* r = Root("R");
  Child(r, "c", 0, "data");
  r->PreloadChildren();
  kyStream* c = r->OpenStream("c", kModeReadWriteShared);
  const std::string seventy(70, 'q');
  ASSERT_TRUE(c->Rename(seventy.c_str()));
  const std::string sixty(60, 'q');
  EXPECT_EQ(sixty, c->GetName());
  EXPECT_EQ(nullptr, r->IsStreamOpen("c"));
  ASSERT_NE(nullptr, r->IsStreamOpen(sixty.c_str()));
  EXPECT_EQ(1, c->Release());
  t_kyStreamU h;
  tag_kyStreamOffset o;
  EXPECT_FALSE(r->FindStream("c", h, o));
  EXPECT_TRUE(r->FindStream(sixty.c_str(), h, o));

  ASSERT_TRUE(r->Rename("Root2"));
  EXPECT_EQ(nullptr, storage->OpenStream("R", kModeReadShared));
  EXPECT_EQ(nullptr, kyTestAccess::IsStreamOpen(storage, "R"));
  kyStream* again = storage->OpenStream("Root2", kModeReadShared);
  ASSERT_NE(nullptr, again);
  again->Release();
  r->Release();

  ASSERT_NE(nullptr, Reopen());
  r = storage->OpenStream("Root2", kModeReadWriteShared);
  ASSERT_NE(nullptr, r);
  c = r->OpenStream(sixty.c_str(), kModeReadWriteShared);
  ASSERT_NE(nullptr, c);
  EXPECT_EQ("data", Text(c));
  const Bytes image = kytest::ReadAll(path);
  EXPECT_FALSE(c->Rename(""));
  EXPECT_FALSE(c->Rename(nullptr));
  EXPECT_EQ(sixty, c->GetName());
  c->Release();
  c = r->OpenStream(sixty.c_str(), kModeReadShared);
  EXPECT_FALSE(c->Rename("other"));  // no write bit
  EXPECT_EQ(image, kytest::ReadAll(path));
  c->Release();
  r->Release();
}

INSTANTIATE_TEST_SUITE_P(Widths, RemoveRenameTest, ::testing::Bool());

}  // namespace
