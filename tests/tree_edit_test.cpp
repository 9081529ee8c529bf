// Changing the tree: removing streams with everything below them, renaming
// them, and copying a stream's data or a folder's tree over what the
// destination holds, in the same storage or another one.  The slots on
// disk, the registries, the refusals that leave the file as it was, and the
// records a removal leaves in a recording.

#include <unistd.h>

#include <map>
#include <memory>
#include <string>

#include "support/folder_fixture.h"

namespace {

using namespace kytest;

typedef std::map<std::string, std::string> Tree;  // path of a data stream -> its data

class TreeEdit : public FolderTest {
 protected:
  // Writes every path of `tree` below the root streams, making folders on
  // the way; an empty text makes a stream without a block.
  static void Build(kyStorage* s, const Tree& tree) {
    for (const auto& t : tree) {
      const size_t slash = t.first.find('/');
      const std::string top = t.first.substr(0, slash);
      kyStream* at = s->OpenStream(top.c_str(), RW);
      if (at == nullptr) at = s->CreateStream(top.c_str(), slash != std::string::npos, RW);
      ASSERT_NE(nullptr, at) << top;
      std::vector<Held<kyStream>> held;
      held.emplace_back(at);
      std::string rest = slash == std::string::npos ? "" : t.first.substr(slash + 1);
      for (size_t next; (next = rest.find('/')) != std::string::npos; rest.erase(0, next + 1)) {
        const std::string name = rest.substr(0, next);
        at = at->OpenStream(name.c_str(), RW);
        if (at == nullptr) at = held.back()->CreateStream(name.c_str(), 1, RW, 1);
        ASSERT_NE(nullptr, at) << name;
        held.emplace_back(at);
      }
      if (!rest.empty()) {
        Child(at, rest.c_str(), 0, t.second);
      } else if (!t.second.empty()) {
        ASSERT_EQ(int64_t(t.second.size()), at->Write(t.second.data(), t.second.size()));
      }
      while (!held.empty()) held.pop_back();  // children before their parents
    }
  }
  // Every data stream below `s`, by path.
  static void Collect(kyStream* s, const std::string& at, Tree& out) {
    if (!s->IsFolder()) {
      out[at] = Text(s);
      return;
    }
    __int64 cursor = 0;
    for (kyStream* c = s->OpenStreamFirst(&cursor, RO); c != nullptr;
         c = s->OpenStreamNext(&cursor, RO))
      Collect(Hold(c).get(), at + "/" + c->GetName(), out);
  }
  static Tree Everything(kyStorage* s) {
    Tree out;
    void* cursor = nullptr;
    for (kyStream* r = s->OpenStreamFirst(cursor, RO); r != nullptr;
         r = s->OpenStreamNext(cursor, RO))
      Collect(Hold(r).get(), r->GetName(), out);
    return out;
  }
  // The W bytes of the slot at `offset` in the file.
  Bytes SlotOnDisk(int64_t offset) const {
    const Bytes file = ReadAll(path);
    return Bytes(file.begin() + offset, file.begin() + offset + W());
  }
};

// A removed folder frees its own slot and every slot below it: the magic
// and the chain stay, everything else is zero, and the file keeps its size.
TEST_P(TreeEdit, RemovingAFolderFreesEverySlotBelowIt) {
  auto r = Hold(Root("R"));
  Child(r, "F", 1);
  kyStream* f = r->OpenStream("F", RW);
  Child(f, "sub", 1);
  std::vector<int64_t> slots = {HeaderOffset(f)};
  {
    auto sub = OpenIn(f, "sub", RW);
    slots.push_back(HeaderOffset(sub));
    for (const char* e : {"e1", "e2"}) {
      Child(sub, e, 0, e);
      slots.push_back(HeaderOffset(OpenIn(sub, e)));
    }
  }
  std::vector<Bytes> freed;
  const size_t links = B64() ? 76 : 72;
  for (int64_t at : slots) {
    const Bytes used = SlotOnDisk(at);
    freed.push_back(Slot("", 0, 0, 0, 0, 0));
    std::copy(used.begin() + links, used.end(), freed.back().begin() + links);
  }
  const int64_t size = FileSize(path);
  ASSERT_TRUE(f->Remove());
  EXPECT_EQ(size, FileSize(path));
  for (size_t i = 0; i < slots.size(); ++i) EXPECT_EQ(freed[i], SlotOnDisk(slots[i])) << i;
  EXPECT_EQ(1u, Get32(DataOf(r), 0));  // the count stays
  EXPECT_EQ(0, kyTestAccess::Children(r.get()).GetCount());
  r.reset();
  ASSERT_NE(nullptr, Reopen());
  kyStream* root = storage->OpenStream("R", RW);
  EXPECT_TRUE(ChildNames(root).empty());
  ASSERT_TRUE(root->Remove());
  EXPECT_EQ(nullptr, kyTestAccess::IsStreamOpen(storage, "R"));
  ASSERT_NE(nullptr, Reopen());
  EXPECT_EQ(nullptr, storage->OpenStream("R", RO));
}

// The data stay as they were; a root made by creation is removed at once,
// and a new one takes its slot and the old chain.
TEST_P(TreeEdit, RemoveLeavesTheDataAlone) {
  kyStream* r = Root("R", 0);
  Bytes data(12, 0);
  Put32(data, 4, kStreamHeaderMagic);  // looks like the start of a slot
  ASSERT_EQ(12, r->Write(data.data(), 12));
  const int64_t at = FirstBlock(r) + H();
  ASSERT_TRUE(r->Remove());
  const Bytes file = ReadAll(path);
  EXPECT_EQ(data, Bytes(file.begin() + at, file.begin() + at + 12));
  EXPECT_EQ(nullptr, storage->OpenStream("R", RO));
  auto again = Hold(Root("R", 0));
  EXPECT_EQ(0, again->GetLength());
  EXPECT_EQ(at - H(), FirstBlock(again));
}

TEST_P(TreeEdit, RemoveAndRenameRefuseWhileOpenOrWithoutWriteBit) {
  {
    auto r = Hold(Root("R"));
    Child(r, "F", 1);
    Child(OpenIn(r, "F", RW), "g", 0, "data");
  }
  const Bytes image = ReadAll(path);
  ASSERT_NE(nullptr, Reopen(RO, 1));  // held in memory: nothing changes
  {
    auto r = Open("R", RW);
    EXPECT_EQ(nullptr, r->CreateStream("new", 0, RW, 1));
    EXPECT_FALSE(r->Rename("z"));
    EXPECT_STREQ("R", r->GetName());
    EXPECT_FALSE(OpenIn(r, "F", RW)->Remove());
    EXPECT_FALSE(r->Remove());
  }
  ASSERT_NE(nullptr, Reopen());
  EXPECT_FALSE(Open("R")->Remove());  // no write bit
  EXPECT_FALSE(Open("R")->Rename("other"));
  kyStream* r = storage->OpenStream("R", RW);
  kyStream* f = r->OpenStream("F", RW);
  kyStream* g = f->OpenStream("g", RO);
  {
    auto f2 = OpenIn(r, "F", RW);
    auto r2 = Open("R", RW);
    EXPECT_FALSE(f->Remove());   // g is open below it
    EXPECT_FALSE(f2->Remove());  // another object of F is open
    EXPECT_FALSE(r2->Remove());  // another object of R is open
  }
  EXPECT_FALSE(r->Remove());                          // F and g are open through it
  EXPECT_FALSE(OpenIn(f, "g", RW)->Remove());         // g is open twice
  EXPECT_FALSE(g->Rename("") || g->Rename(nullptr));  // names that would free the slot
  EXPECT_EQ(image, ReadAll(path));
  g->Release();
  ASSERT_TRUE(f->Remove());
  ASSERT_TRUE(r->Remove());
}

TEST_P(TreeEdit, RemoveIsRecorded) {
  Root("R")->Release();
  kyStream* r = storage->OpenStream("R", RW);
  Child(r, "c", 0, "x");
  Child(r, "d", 0, "y");
  ASSERT_EQ(1, storage->StartRecording());
  ASSERT_TRUE(r->OpenStream("c", RW)->Remove());
  ASSERT_TRUE(r->Remove());
  std::unique_ptr<CCompRecorder> rec(storage->StopRecording());
  ASSERT_NE(nullptr, rec);
  rec->SeekToBegin();
  std::string records;
  RecOpEnum op;
  char name[64];
  unsigned char* data = nullptr;
  DWORD n = 0;
  while (rec->PopOp(&op, name, &data, &n)) records += std::to_string(op) + name + " ";
  // Each child removal enters its parent and leaves it again; the root's
  // own removal is made with nothing entered.
  EXPECT_EQ("1R 4c 3 1R 4d 3 4R ", records);
}

// Rename keeps the first sixty characters and moves the registry records
// and the map entries with the name.
TEST_P(TreeEdit, RenameKeepsSixtyCharactersAndMovesRecords) {
  const std::string sixty(60, 'q');
  {
    auto r = Hold(Root("R"));
    Child(r, "c", 0, "data");
    r->PreloadChildren();
    kyStream* c = r->OpenStream("c", RW);
    ASSERT_TRUE(c->Rename(std::string(70, 'q').c_str()));
    EXPECT_EQ(sixty, c->GetName());
    EXPECT_EQ(nullptr, r->IsStreamOpen("c"));
    ASSERT_NE(nullptr, r->IsStreamOpen(sixty.c_str()));
    EXPECT_EQ(1, c->Release());
    EXPECT_FALSE(Finds(r, "c"));
    ASSERT_TRUE(r->Rename("Root2"));
    EXPECT_EQ(nullptr, storage->OpenStream("R", RO));
    EXPECT_EQ(nullptr, kyTestAccess::IsStreamOpen(storage, "R"));
  }
  ASSERT_NE(nullptr, Reopen());
  EXPECT_EQ("data", Text(OpenIn(Open("Root2"), sixty.c_str())));
}

// A copy gives the destination exactly the source's bytes, whether it was
// longer, shorter or had no block yet, and changes no other stream.
TEST_P(TreeEdit, CopyStreamOverAnotherStream) {
  const Tree roots = {{"A", std::string(10, 'A')},
                      {"B", std::string(20, 'B')},
                      {"C", "CCC"},
                      {"E", ""},
                      {"Z", "after all others"}};
  const std::string more(5000, 'm');
  const struct {
    const char* src;
    const char* dst;
    bool dstInOther;
  } cases[] = {{"A", "B", false}, {"B", "C", false}, {"B", "E", false},
               {"C", "A", false}, {"A", "B", true},  {"B", "C", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.src) + " over " + c.dst + (c.dstInOther ? " in another" : ""));
    ASSERT_NE(nullptr, Create(4096));  // a block per stream: neighbours' chains follow
    ASSERT_NE(nullptr, Other(true, 4096));
    Build(storage, roots);
    Build(other, roots);
    Tree original = roots;
    {
      auto a = Open("A", RW);  // A's data go on in a block behind all others
      ASSERT_EQ(0, a->Seek(0, 1));
      ASSERT_EQ(5000, a->Write(more.data(), 5000));
      original["A"] += more;
    }
    kyStorage* side = c.dstInOther ? other : storage;
    ASSERT_TRUE(Open(c.src)->CopyStream(Hold(side->OpenStream(c.dst, RW)).get()));
    Tree expected = c.dstInOther ? roots : original;
    expected[c.dst] = original.at(c.src);
    EXPECT_EQ(expected, Everything(side));
    EXPECT_EQ(c.dstInOther ? original : expected, Everything(storage));
    ASSERT_NE(nullptr, Reopen(RO, 1));
    ASSERT_NE(nullptr, Other(false));
    EXPECT_EQ(expected, Everything(c.dstInOther ? other : storage));
  }
  // Refused: an empty source (the destination is emptied), and a copy onto
  // the same stream through this or another object.
  auto dst = Hold(other->OpenStream("B", RW));
  EXPECT_FALSE(Hold(other->OpenStream("E", RO))->CopyStream(dst.get()));
  EXPECT_EQ(0, dst->GetLength());
  auto same = Hold(other->OpenStream("C", RW));
  EXPECT_FALSE(same->CopyStream(same.get()));
  EXPECT_FALSE(Hold(other->OpenStream("C", RO))->CopyStream(same.get()));
  EXPECT_EQ(std::string(20, 'B'), Text(same));
}

// Children of the same kind are overwritten, of the other kind replaced;
// what only the destination holds stays; copies are made with type 0 or 1,
// empty folders too.
TEST_P(TreeEdit, CopyFolderMergesIntoTheDestination) {
  const Tree source = {{"S/a", "short"},
                       {"S/f/x", std::string(300, 'x')},
                       {"S/f/g/y", "deep source"},
                       {"S/n", std::string(50, 'n')},
                       {"S/kind/x", "a folder over a data stream"},
                       {"S/data", "a data stream over a folder"}};
  const Tree dest = {
      {"D/a", std::string(40, 'a')}, {"D/f/x", "x"},  {"D/f/g/y", std::string(70, 'y')},
      {"D/f/g/only", "stays"},       {"D/keep", "K"}, {"D/kind", "data"},
      {"D/data/below", "gone"},      {"Z", "last"}};
  for (bool inOther : {false, true}) {
    SCOPED_TRACE(inOther ? "into another storage" : "within one storage");
    ASSERT_NE(nullptr, Create(4096));
    ASSERT_NE(nullptr, Other(true, 4096));
    for (kyStorage* s : {storage, other}) {
      Build(s, source);
      Build(s, dest);
    }
    Child(Open("S", RW), "timed", 0x00050000, "t");
    Child(Open("S", RW), "empty", 1);
    kyStorage* side = inOther ? other : storage;
    Tree expected = Everything(side);
    ASSERT_TRUE(Open("S")->CopyFolder(Hold(side->OpenStream("D", RW)).get()));
    expected.erase("D/kind");
    expected.erase("D/data/below");
    for (const auto& s : source) expected["D" + s.first.substr(1)] = s.second;
    expected["D/timed"] = "t";
    EXPECT_EQ(expected, Everything(side));
    auto d = Hold(side->OpenStream("D", RO));
    EXPECT_EQ(0, OpenIn(d, "timed")->GetDuration());
    EXPECT_TRUE(OpenIn(d, "empty")->IsFolder());
  }
}

// A copy into the source folder itself or below it is refused, also through
// another object of the folder, or another storage object over the same
// file under any of its names; loaded into memory, the file keeps the
// identity it was opened with.
TEST_P(TreeEdit, CopyFolderIntoItselfOrBelowIsRefused) {
  {
    auto s = Hold(Root("S"));
    Child(s, "f", 1);
    Child(s, "x", 0, "x");
  }
  const std::string symlinked = dir.File("symlinked.kys"), hardLinked = dir.File("hard.kys");
  ASSERT_EQ(0, symlink(path.c_str(), symlinked.c_str()));
  ASSERT_EQ(0, link(path.c_str(), hardLinked.c_str()));
  ASSERT_NE(nullptr, Reopen());
  const Bytes image = ReadAll(path);
  auto s = Open("S", RW);
  auto same = Open("S", RW);
  auto below = OpenIn(same, "f", RW);
  EXPECT_FALSE(s->CopyFolder(s.get()));
  EXPECT_FALSE(s->CopyFolder(same.get()));
  EXPECT_FALSE(s->CopyFolder(below.get()));
  for (const std::string& alias : {path, symlinked, hardLinked, dir.path() + "/./tree.kys"}) {
    SCOPED_TRACE(alias);
    auto twin = Hold(kyStorage::Open(alias.c_str(), RW, 256, 0));
    ASSERT_NE(nullptr, twin);
    auto twinS = Hold(twin->OpenStream("S", RW));
    EXPECT_FALSE(s->CopyFolder(twinS.get()));
    EXPECT_FALSE(OpenIn(s, "x")->CopyStream(OpenIn(twinS, "x", RW).get()));
  }
  auto loaded = Hold(kyStorage::Open(symlinked.c_str(), RO, 256, 1));
  ASSERT_NE(nullptr, loaded);
  EXPECT_FALSE(Hold(loaded->OpenStream("S", RO))->CopyFolder(s.get()));
  EXPECT_EQ(image, ReadAll(path));
  // Into its parent's sibling is fine.
  auto t = Hold(Root("T"));
  EXPECT_TRUE(below->CopyFolder(t.get()));
  EXPECT_TRUE(s->CopyFolder(t.get()));
  EXPECT_EQ("x", Text(OpenIn(t, "x")));
}

// A walk that stops at a damaged slot has not reached the end of the
// folder: the copy fails, with what came before the damage copied.
TEST_P(TreeEdit, AWalkStoppedByADamagedSlotFailsTheCopy) {
  int64_t damaged = 0;
  {
    auto s = Hold(Root("S"));
    for (const char* n : {"a", "b", "c"}) Child(s, n, 0, n);
    damaged = HeaderOffset(OpenIn(s, "b"));
    Hold(Root("T"));
  }
  Patch(damaged, 0, false);  // no header magic
  ASSERT_NE(nullptr, Reopen());
  auto s = Open("S");
  __int64 cursor = 0;
  Hold(s->OpenStreamFirst(&cursor, RO));
  EXPECT_EQ(nullptr, s->OpenStreamNext(&cursor, RO));
  EXPECT_LT(cursor, s->GetLength());  // ended early: damage, not the end
  auto t = Open("T", RW);
  EXPECT_FALSE(s->CopyFolder(t.get()));
  EXPECT_EQ("a", Text(OpenIn(t, "a")));
  EXPECT_EQ(Names{"a"}, ChildNames(t));
  // A walk to the end leaves the cursor at the end of the data.
  for (kyStream* c = t->OpenStreamFirst(&cursor, RO); c != nullptr;
       c = t->OpenStreamNext(&cursor, RO))
    c->Release();
  EXPECT_EQ(t->GetLength(), cursor);
}

INSTANTIATE_TEST_SUITE_P(Widths, TreeEdit, ::testing::Bool(), WidthName);

}  // namespace
