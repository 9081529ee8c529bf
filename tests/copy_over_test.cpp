// Copying over streams that already hold data: the destination ends up with
// exactly the source's bytes and no other stream of either storage changes,
// whether the destination is longer, shorter or has no block yet, lies in
// the same storage or another one, or is a folder tree merged into.

#include <map>
#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::FolderTest;
using kytest::Hold;

typedef std::map<std::string, std::string> Tree;  // path below the root -> data

class CopyOverTest : public FolderTest {
 protected:
  void TearDown() override {
    if (other != nullptr) other->Release();
    FolderTest::TearDown();
  }
  kyStorage* Side(bool inOther) { return inOther ? other : storage; }
  // A new storage `s` holding every root data stream of `roots`; each gets
  // its own block, so the chains of neighbours follow each other in the
  // file.  An empty text makes a stream without a block.
  static void Fill(kyStorage* s, const Tree& roots) {
    for (const auto& r : roots) {
      auto stm = Hold(s->CreateStream(r.first.c_str(), 0, kModeReadWriteShared));
      ASSERT_NE(nullptr, stm) << r.first;
      if (r.second.empty()) continue;
      ASSERT_EQ(static_cast<int64_t>(r.second.size()),
                stm->Write(r.second.data(), r.second.size(), true));
    }
  }
  // Every data stream below `folder` (a root stream when null), by path.
  template <class P>
  static void Collect(kyStorage* s, const P& folder, const std::string& prefix, Tree& out) {
    if (folder == nullptr) {
      void* cursor = nullptr;
      for (kyStream* r = s->OpenStreamFirst(cursor, kModeReadShared); r != nullptr;
           r = s->OpenStreamNext(cursor, kModeReadShared)) {
        auto held = Hold(r);
        if (held->IsFolder())
          Collect(s, held, std::string(held->GetName()) + "/", out);
        else
          out[held->GetName()] = Text(held);
      }
      return;
    }
    int64_t cursor = 0;
    for (kyStream* c = folder->OpenStreamFirst(&cursor, kModeReadShared); c != nullptr;
         c = folder->OpenStreamNext(&cursor, kModeReadShared)) {
      auto held = Hold(c);
      const std::string at = prefix + held->GetName();
      if (held->IsFolder())
        Collect(s, held, at + "/", out);
      else
        out[at] = Text(held);
    }
  }
  Tree Everything(kyStorage* s) {
    Tree out;
    Collect(s, static_cast<kyStream*>(nullptr), "", out);
    return out;
  }
  // Builds a folder tree from paths ("f/x" makes folder f, then x in it).
  static void Build(kyStream* root, const Tree& tree) {
    for (const auto& t : tree) {
      kyStream* at = root;
      std::string rest = t.first;
      std::vector<kytest::Held<kyStream>> held;
      for (size_t slash; (slash = rest.find('/')) != std::string::npos;) {
        const std::string name = rest.substr(0, slash);
        kyStream* next = at->OpenStream(name.c_str(), kModeReadWriteShared);
        if (next == nullptr) next = at->CreateStream(name.c_str(), 1, kModeReadWriteShared, 1);
        ASSERT_NE(nullptr, next) << name;
        held.emplace_back(next);
        at = next;
        rest = rest.substr(slash + 1);
      }
      Child(at, rest.c_str(), 0, t.second);
    }
  }

  std::string otherPath = dir.File("other.kys");
  kyStorage* other = nullptr;
};

TEST_P(CopyOverTest, StreamOverStream) {
  const Tree roots = {{"A", std::string(10, 'A')},
                      {"B", std::string(20, 'B')},
                      {"C", "CCC"},
                      {"E", ""},
                      {"Z", "after all others"}};
  struct Case {
    const char* src;
    const char* dst;
    bool dstInOther;
  };
  const Case cases[] = {{"A", "B", false}, {"B", "C", false}, {"B", "E", false},
                        {"C", "A", false}, {"A", "B", true},  {"B", "C", true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.src) + " over " + c.dst + (c.dstInOther ? " in another" : ""));
    ASSERT_NE(nullptr, Create(4096));
    Fill(storage, roots);
    if (other != nullptr) other->Release();
    other = kyStorage::Create(otherPath.c_str(), kModeReadWriteShared, 4096);
    ASSERT_NE(nullptr, other);
    Fill(other, roots);
    {
      auto src = Open(c.src);
      auto dst = Hold(Side(c.dstInOther)->OpenStream(c.dst, kModeReadWriteShared));
      ASSERT_TRUE(src->CopyStream(dst.get()));
    }
    Tree mine = roots, theirs = roots;
    (c.dstInOther ? theirs : mine)[c.dst] = roots.at(c.src);
    EXPECT_EQ(mine, Everything(storage));
    EXPECT_EQ(theirs, Everything(other));
    ASSERT_NE(nullptr, Reopen(kModeReadShared, 1));
    EXPECT_EQ(mine, Everything(storage));
  }
}

TEST_P(CopyOverTest, FolderOverFolderWithTheSameChildren) {
  const Tree source = {{"a", "short"},
                       {"f/x", std::string(300, 'x')},
                       {"f/g/y", "deep source"},
                       {"n", std::string(50, 'n')}};
  const Tree dest = {{"a", std::string(40, 'a')},
                     {"f/x", "x"},
                     {"f/g/y", std::string(70, 'y')},
                     {"f/g/only", "stays"},
                     {"keep", "K"}};
  for (bool inOther : {false, true}) {
    SCOPED_TRACE(inOther ? "into another storage" : "within one storage");
    ASSERT_NE(nullptr, Create(4096));
    if (other != nullptr) other->Release();
    other = kyStorage::Create(otherPath.c_str(), kModeReadWriteShared, 4096);
    ASSERT_NE(nullptr, other);
    for (kyStorage* s : {storage, other}) {
      auto src = Hold(s->CreateStream("S", 1, kModeReadWriteShared));
      auto dst = Hold(s->CreateStream("D", 1, kModeReadWriteShared));
      Build(src.get(), source);
      Build(dst.get(), dest);
      Fill(s, {{"Z", "last"}});
    }
    const Tree before = Everything(Side(inOther));
    {
      auto dst = Hold(Side(inOther)->OpenStream("D", kModeReadWriteShared));
      ASSERT_TRUE(Open("S")->CopyFolder(dst.get()));
    }
    Tree expected = before;
    for (const auto& s : source) expected["D/" + s.first] = s.second;
    EXPECT_EQ(expected, Everything(Side(inOther)));
    // Both storages were built alike; the source's is untouched.
    EXPECT_EQ(inOther ? before : expected, Everything(storage));
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, CopyOverTest, ::testing::Bool());

}  // namespace
