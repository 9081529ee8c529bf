// Changing the tree: removals, renames, copies of streams and folders.

#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>

#include "support/folder_fixture.h"

namespace {

using namespace kytest;

typedef std::map<std::string, std::string> Tree;  // path of a data stream -> its data

class TreeEdit : public FolderTest {
 protected:
  // Writes every path of `tree`, making folders on the way; "" makes no block.
  static void Build(kyStorage* s, const Tree& tree) {
    for (const auto& t : tree) {
      std::vector<Held<kyStream>> held;  // released children first
      kyStream* at = nullptr;
      for (size_t from = 0, to; from <= t.first.size(); from = to + 1) {
        to = std::min(t.first.find('/', from), t.first.size());
        const std::string name = t.first.substr(from, to - from);
        const int folder = to < t.first.size();
        kyStream* next = at ? at->OpenStream(name.c_str(), RW) : s->OpenStream(name.c_str(), RW);
        if (next == nullptr)
          next = at ? at->CreateStream(name.c_str(), folder, RW, 1)
                    : s->CreateStream(name.c_str(), folder, RW);
        ASSERT_NE(nullptr, next) << t.first;
        held.emplace_back(at = next);
      }
      if (!t.second.empty()) {
        ASSERT_EQ(int64_t(t.second.size()), at->Write(t.second.data(), t.second.size(), true));
      }
      while (!held.empty()) held.pop_back();
    }
  }
  // Every data stream below `s` (all of the storage without), by path.
  static Tree Everything(kyStorage* storage, kyStream* s = nullptr, const std::string& at = "") {
    Tree out;
    if (s != nullptr && !s->IsFolder()) out[at] = Text(s);
    __int64 cursor = 0;
    void* root = nullptr;
    for (kyStream* c = s ? s->OpenStreamFirst(&cursor, RO) : storage->OpenStreamFirst(root, RO);
         c != nullptr; c = s ? s->OpenStreamNext(&cursor, RO) : storage->OpenStreamNext(root, RO)) {
      const Tree below = Everything(storage, Hold(c).get(), at + (s ? "/" : "") + c->GetName());
      out.insert(below.begin(), below.end());
    }
    return out;
  }
};

// A removed folder's slots, and all below, keep only magic and chain.
TEST_P(TreeEdit, RemovingAFolderFreesEverySlotBelowIt) {
  kyStream* r = Root("R");
  Child(r, "F", 1);
  kyStream* f = r->OpenStream("F", RW);
  Child(f, "sub", 1);
  std::vector<int64_t> slots = {HeaderOffset(f)};
  {
    auto sub = OpenIn(f, "sub", RW);
    slots.push_back(HeaderOffset(sub.get()));
    for (const char* e : {"e1", "e2"}) {
      Child(sub, e, 0, e);
      slots.push_back(HeaderOffset(OpenIn(sub, e).get()));
    }
  }
  const Bytes before = ReadAll(path);
  ASSERT_TRUE(f->Remove());
  const Bytes after = ReadAll(path);
  ASSERT_EQ(before.size(), after.size());
  const size_t links = B64() ? 76 : 72, e2 = size_t(slots[3]);
  for (int64_t at : slots) {
    Bytes freed = ChildSlot("", 0, 0, 0, 0, 0);
    std::copy(&before[at + links], &before[at + W()], freed.begin() + links);
    EXPECT_EQ(freed, Bytes(&after[at], &after[at + W()])) << at;
  }
  const size_t e2Data = size_t(Get32(before, e2 + (B64() ? 84 : 76)) + H());
  EXPECT_EQ("e2", std::string(&after[e2Data], &after[e2Data + 2]));
  EXPECT_EQ(1u, Get32(DataOf(r), 0));  // the count stays
  EXPECT_EQ(0, kyTestAccess::Children(r).GetCount());
  ASSERT_TRUE(r->Remove());
  EXPECT_EQ(nullptr, kyTestAccess::IsStreamOpen(storage, "R"));
  Reopen();
  EXPECT_EQ(nullptr, storage->OpenStream("R", RO));
}

// Refused untouched: no write bit, another object open on or below, no name.
TEST_P(TreeEdit, RemoveAndRenameRefuseWhileOthersHoldTheStream) {
  {
    auto r = Hold(Root("R"));
    Child(r, "F", 1);
    Child(OpenIn(r, "F", RW), "g", 0, "data");
  }
  const Bytes image = ReadAll(path);
  Reopen();
  EXPECT_FALSE(Open("R")->Remove() || Open("R")->Rename("other"));  // no write bit
  kyStream* r = storage->OpenStream("R", RW);
  kyStream* f = r->OpenStream("F", RW);
  kyStream* g = f->OpenStream("g", RO);
  EXPECT_FALSE(f->Remove());                   // g is open below it
  EXPECT_FALSE(OpenIn(r, "F", RW)->Remove());  // another object of F is open
  EXPECT_FALSE(Open("R", RW)->Remove());       // another object of R is open
  EXPECT_FALSE(r->Remove());                   // F and g are open through it
  auto twice = OpenIn(f, "g", RW);
  EXPECT_FALSE(twice->Remove() || twice->Rename("h"));  // g is open twice
  EXPECT_FALSE(g->Rename("") || g->Rename(nullptr));
  EXPECT_EQ(image, ReadAll(path));
  twice.reset();
  for (kyStream* s : {g, f, r}) s->Release();
}

// The destination reads back exactly the source, longer, shorter or without
// a block, and no other stream changes; the source's chain is split.  An
// empty source and the same stream are refused.
TEST_P(TreeEdit, CopyStreamOverAnotherStream) {
  const Tree roots = {{"A", std::string(10, 'A')},
                      {"B", std::string(20, 'B')},
                      {"C", "CCC"},
                      {"E", ""},
                      {"Z", "after all others"}};
  const std::string more(5000, 'm');
  const struct {
    const char *src, *dst;
    bool dstInOther;
  } cases[] = {{"A", "B", false}, {"B", "C", false}, {"B", "E", false},
               {"C", "A", false}, {"A", "B", true},  {"B", "C", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.src) + " over " + c.dst + (c.dstInOther ? " in another" : ""));
    ASSERT_NE(nullptr, Make(4096));  // a block per stream: neighbours' chains follow
    ASSERT_NE(nullptr, Other(true, 4096));
    Build(storage, roots);
    Build(other, roots);
    Tree original = roots;
    original["A"] += more;
    auto a = Open("A", RW);
    ASSERT_EQ(0, a->Seek(0, 1));
    ASSERT_EQ(5000, a->Write(more.data(), 5000));
    a.reset();
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
  auto dst = Hold(other->OpenStream("B", RW));
  EXPECT_FALSE(Hold(other->OpenStream("E", RO))->CopyStream(dst.get()));
  EXPECT_EQ(0, dst->GetLength());  // emptied all the same
  auto same = Hold(other->OpenStream("C", RW));
  EXPECT_FALSE(same->CopyStream(same.get()));
  EXPECT_FALSE(Hold(other->OpenStream("C", RO))->CopyStream(same.get()));
  EXPECT_EQ(std::string(20, 'B'), Text(same));
}

// Same kind overwritten, other kind replaced, the destination's own stay.
TEST_P(TreeEdit, CopyFolderMergesIntoTheDestination) {
  const Tree source = {{"S/a", "short"},
                       {"S/f/x", std::string(300, 'x')},
                       {"S/f/g/y", "deep source"},
                       {"S/kind/x", "a folder over a data stream"},
                       {"S/data", "a data stream over a folder"}};
  const Tree dest = {{"D/a", std::string(40, 'a')},
                     {"D/f/x", "x"},
                     {"D/f/g/y", std::string(70, 'y')},
                     {"D/f/g/only", "stays"},
                     {"D/kind", "data"},
                     {"D/data/below", "gone"},
                     {"Z", "last"}};
  for (bool inOther : {false, true}) {
    SCOPED_TRACE(inOther ? "into another storage" : "within one storage");
    ASSERT_NE(nullptr, Make(4096));
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

// A copy into itself or below is refused, whatever name reaches the file.
TEST_P(TreeEdit, CopyFolderIntoItselfOrBelowIsRefused) {
  {
    auto s = Hold(Root("S"));
    Child(s, "f", 1);
    Child(s, "x", 0, "x");
  }
  const std::string symlinked = dir.File("symlinked.kys"), hardLinked = dir.File("hard.kys");
  ASSERT_EQ(0, symlink(path.c_str(), symlinked.c_str()));
  ASSERT_EQ(0, link(path.c_str(), hardLinked.c_str()));
  Reopen();
  const Bytes image = ReadAll(path);
  auto s = Open("S", RW);
  auto same = Open("S", RW);
  auto below = OpenIn(same, "f", RW);
  EXPECT_FALSE(s->CopyFolder(s.get()) || s->CopyFolder(same.get()) || s->CopyFolder(below.get()));
  for (const std::string& alias : {path, symlinked, hardLinked, dir.path() + "/./data.kys"}) {
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
  auto t = Hold(Root("T"));
  EXPECT_TRUE(below->CopyFolder(t.get()) && s->CopyFolder(t.get()));
  EXPECT_EQ("x", Text(OpenIn(t, "x")));
}

// A walk stopped by a damaged slot is not the end: the copy fails.
TEST_P(TreeEdit, AWalkStoppedByADamagedSlotFailsTheCopy) {
  int64_t damaged = 0;
  {
    auto s = Hold(Root("S"));
    for (const char* n : {"a", "b", "c"}) Child(s, n, 0, n);
    damaged = HeaderOffset(OpenIn(s, "b").get());
    Hold(Root("T"));
  }
  Patch(damaged, 0, false);  // no header magic
  Reopen();
  auto s = Open("S");
  __int64 cursor = 0;
  Hold(s->OpenStreamFirst(&cursor, RO));
  EXPECT_EQ(nullptr, s->OpenStreamNext(&cursor, RO));
  EXPECT_LT(cursor, s->GetLength());  // ended early: damage, not the end
  auto t = Open("T", RW);
  EXPECT_FALSE(s->CopyFolder(t.get()));
  EXPECT_EQ((Tree{{"T/a", "a"}}), Everything(storage, t.get(), "T"));
  for (kyStream* c = t->OpenStreamFirst(&cursor, RO); c; c = t->OpenStreamNext(&cursor, RO))
    c->Release();
  EXPECT_EQ(t->GetLength(), cursor);  // a walk to the end leaves the cursor at the end
}

INSTANTIATE_TEST_SUITE_P(Widths, TreeEdit, ::testing::Bool(), WidthName);

}  // namespace
