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

typedef std::map<std::string, std::string> Tree;  // path of a data stream -> its data

class CopyOverTest : public FolderTest {
 protected:
  void TearDown() override {
    if (other != nullptr) other->Release();
    FolderTest::TearDown();
  }
  // Both storages new, with block size 4096: each stream written gets a
  // block of its own, so the chains of neighbours follow each other.
  void CreateBoth() {
    ASSERT_NE(nullptr, Create(4096));
    if (other != nullptr) other->Release();
    other = kyStorage::Create(otherPath.c_str(), kModeReadWriteShared, 4096);
    ASSERT_NE(nullptr, other);
  }
  // Writes every path of `tree` below the root streams, making folders on
  // the way; an empty text makes a stream without a block.
  static void Build(kyStorage* s, const Tree& tree) {
    for (const auto& t : tree) {
      const size_t slash = t.first.find('/');
      const std::string top = t.first.substr(0, slash);
      kyStream* at = s->OpenStream(top.c_str(), kModeReadWriteShared);
      if (at == nullptr)
        at = s->CreateStream(top.c_str(), slash != std::string::npos, kModeReadWriteShared);
      ASSERT_NE(nullptr, at) << top;
      std::vector<kytest::Held<kyStream>> held;
      held.emplace_back(at);
      std::string rest = slash == std::string::npos ? "" : t.first.substr(slash + 1);
      for (size_t next; (next = rest.find('/')) != std::string::npos; rest.erase(0, next + 1)) {
        const std::string name = rest.substr(0, next);
        at = at->OpenStream(name.c_str(), kModeReadWriteShared);
        if (at == nullptr) at = held.back()->CreateStream(name.c_str(), 1, kModeReadWriteShared, 1);
        ASSERT_NE(nullptr, at) << name;
        held.emplace_back(at);
      }
      if (!rest.empty()) {
        Child(at, rest.c_str(), 0, t.second);
      } else if (!t.second.empty()) {
        ASSERT_EQ(static_cast<int64_t>(t.second.size()),
                  at->Write(t.second.data(), t.second.size()));
      }
      while (!held.empty()) held.pop_back();  // children before their parents
    }
  }
  // Every data stream of the storage, by path.
  static void Collect(kyStream* s, const std::string& at, Tree& out) {
    if (!s->IsFolder()) {
      out[at] = Text(s);
      return;
    }
    long long cursor = 0;
    for (kyStream* c = s->OpenStreamFirst(&cursor, kModeReadShared); c != nullptr;
         c = s->OpenStreamNext(&cursor, kModeReadShared))
      Collect(Hold(c).get(), at + "/" + c->GetName(), out);
  }
  static Tree Everything(kyStorage* s) {
    Tree out;
    void* cursor = nullptr;
    for (kyStream* r = s->OpenStreamFirst(cursor, kModeReadShared); r != nullptr;
         r = s->OpenStreamNext(cursor, kModeReadShared))
      Collect(Hold(r).get(), r->GetName(), out);
    return out;
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
  for (const Case& c : {Case{"A", "B", false}, Case{"B", "C", false}, Case{"B", "E", false},
                        Case{"C", "A", false}, Case{"A", "B", true}, Case{"B", "C", true}}) {
    SCOPED_TRACE(std::string(c.src) + " over " + c.dst + (c.dstInOther ? " in another" : ""));
    CreateBoth();
    Build(storage, roots);
    Build(other, roots);
    kyStorage* side = c.dstInOther ? other : storage;
    ASSERT_TRUE(Open(c.src)->CopyStream(Hold(side->OpenStream(c.dst, kModeReadWriteShared)).get()));
    Tree expected = roots;
    expected[c.dst] = roots.at(c.src);
    EXPECT_EQ(expected, Everything(side));
    EXPECT_EQ(c.dstInOther ? roots : expected, Everything(storage));
    ASSERT_NE(nullptr, Reopen(kModeReadShared, 1));
    EXPECT_EQ(c.dstInOther ? roots : expected, Everything(storage));
  }
}

TEST_P(CopyOverTest, FolderOverFolderWithTheSameChildren) {
  const Tree source = {{"S/a", "short"},
                       {"S/f/x", std::string(300, 'x')},
                       {"S/f/g/y", "deep source"},
                       {"S/n", std::string(50, 'n')}};
  const Tree dest = {
      {"D/a", std::string(40, 'a')}, {"D/f/x", "x"},  {"D/f/g/y", std::string(70, 'y')},
      {"D/f/g/only", "stays"},       {"D/keep", "K"}, {"Z", "last"}};
  for (bool inOther : {false, true}) {
    SCOPED_TRACE(inOther ? "into another storage" : "within one storage");
    CreateBoth();
    for (kyStorage* s : {storage, other}) {
      Build(s, source);
      Build(s, dest);
    }
    kyStorage* side = inOther ? other : storage;
    const Tree before = Everything(side);
    ASSERT_TRUE(Open("S")->CopyFolder(Hold(side->OpenStream("D", kModeReadWriteShared)).get()));
    Tree expected = before;
    for (const auto& s : source) expected["D" + s.first.substr(1)] = s.second;
    EXPECT_EQ(expected, Everything(side));
    EXPECT_EQ(inOther ? before : expected, Everything(storage));  // built alike
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, CopyOverTest, ::testing::Bool());

}  // namespace
