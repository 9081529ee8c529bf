// Copying a stream's data and a folder's tree, also into another storage,
// merging into what the destination holds.

#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;

class CopyTest : public FolderTest {
 protected:
  void TearDown() override {
    if (other != nullptr) other->Release();
    FolderTest::TearDown();
  }
  kyStorage* CreateOther() {
    other = kyStorage::Create(otherPath.c_str(), kModeReadWriteShared, 64);
    return other;
  }
  kyStorage* ReopenOther() {
    if (other != nullptr) other->Release();
    other = kyStorage::Open(otherPath.c_str(), kModeReadWriteShared, 64, 0);
    return other;
  }
  static std::string Pattern(size_t n) {
    std::string s(n, 0);
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + i % 23);
    return s;
  }
  // Text of the child at a slash-separated path below `folder`.
  static std::string At(kyStream* folder, const std::string& childPath) {
    const size_t slash = childPath.find('/');
    kyStream* c = folder->OpenStream(childPath.substr(0, slash).c_str(), kModeReadShared);
    if (c == nullptr) return "<none>";
    std::string out = slash == std::string::npos ? (c->IsFolder() ? "<folder>" : Text(c))
                                                 : At(c, childPath.substr(slash + 1));
    c->Release();
    return out;
  }

  std::string otherPath = dir.File("other.kys");
  kyStorage* other = nullptr;
};

TEST_P(CopyTest, CopyStreamReplacesTheDestinationsData) {
  ASSERT_NE(nullptr, Create());
  ASSERT_NE(nullptr, CreateOther());
  kyStream* src = Root("src", 0);
  kyStream* dst = other->CreateStream("dst", 0, kModeReadWriteShared);
  const std::string longer = Pattern(2000), data = Pattern(1000).substr(0, 999) + "!";
  ASSERT_EQ(2000, dst->Write(longer.data(), 2000));
  ASSERT_EQ(500, src->Write(data.data(), 500));
  kyStream* between = Root("between", 0);  // its block ends the file now
  ASSERT_EQ(1, between->Write("z", 1));
  between->Release();
  ASSERT_EQ(0, src->Seek(0, 1));
  ASSERT_EQ(500, src->Write(data.data() + 500, 500));
  ASSERT_NE(FirstBlock(src), kyTestAccess::Header(src).LastBlock(B64())) << "two blocks";
  src->Release();
  src = storage->OpenStream("src", kModeReadShared);
  ASSERT_TRUE(src->CopyStream(dst));
  EXPECT_EQ(1000, dst->GetLength());
  src->Release();
  dst->Release();
  ASSERT_NE(nullptr, ReopenOther());
  dst = other->OpenStream("dst", kModeReadWriteShared);
  EXPECT_EQ(data, Text(dst));

  kyStream* empty = Root("empty", 0);
  EXPECT_FALSE(empty->CopyStream(dst));
  EXPECT_EQ(0, dst->GetLength());
  empty->Release();
  dst->Release();
}

TEST_P(CopyTest, CopyStreamOntoItselfIsRefused) {
  ASSERT_NE(nullptr, Create());
  kyStream* s = Root("s", 0);
  ASSERT_EQ(4, s->Write("keep", 4));
  s->Release();
  s = storage->OpenStream("s", kModeReadWriteShared);
  kyStream* same = storage->OpenStream("s", kModeReadWriteShared);
  EXPECT_FALSE(s->CopyStream(s));
  EXPECT_FALSE(s->CopyStream(same));
  EXPECT_EQ("keep", Text(same));
  same->Release();
  s->Release();
}

TEST_P(CopyTest, CopyFolderMergesIntoAnotherStorage) {
  ASSERT_NE(nullptr, Create());
  ASSERT_NE(nullptr, CreateOther());
  kyStream* src = Root("S");
  Child(src, "a", 0, "A-data");
  Child(src, "f", 1);
  Child(src, "d", 0x00050000, "timed");
  kyStream* f = src->OpenStream("f", kModeReadWriteShared);
  Child(f, "x", 0, Pattern(300));
  Child(f, "deeper", 1);
  f->Release();
  src->Release();

  kyStream* dst = other->CreateStream("D", 1, kModeReadWriteShared);
  Child(dst, "keep", 0, "K");
  Child(dst, "f", 0, "a data stream where the source has a folder");
  Child(dst, "a", 1);  // a folder where the source has a data stream
  dst->Release();

  ASSERT_NE(nullptr, Reopen());
  src = storage->OpenStream("S", kModeReadShared);
  dst = other->OpenStream("D", kModeReadWriteShared);
  ASSERT_TRUE(src->CopyFolder(dst));
  src->Release();
  dst->Release();

  ASSERT_NE(nullptr, ReopenOther());
  dst = other->OpenStream("D", kModeReadShared);
  EXPECT_EQ("K", At(dst, "keep"));
  EXPECT_EQ("A-data", At(dst, "a"));
  EXPECT_EQ("<folder>", At(dst, "f"));
  EXPECT_EQ(Pattern(300), At(dst, "f/x"));
  EXPECT_EQ("<folder>", At(dst, "f/deeper"));
  EXPECT_EQ("timed", At(dst, "d"));
  kyStream* d = dst->OpenStream("d", kModeReadShared);
  EXPECT_EQ(0, d->GetDuration());  // made with type 0
  d->Release();
  CStringArray names;
  dst->EnumStreams(names);
  EXPECT_EQ(4, names.GetSize());
  dst->Release();
}

TEST_P(CopyTest, CopyFolderIntoItselfOrBelowIsRefused) {
  ASSERT_NE(nullptr, Create());
  kyStream* s = Root("S");
  Child(s, "f", 1);
  Child(s, "x", 0, "x");
  s->Release();
  ASSERT_NE(nullptr, Reopen());
  const Bytes image = kytest::ReadAll(path);
  s = storage->OpenStream("S", kModeReadWriteShared);
  kyStream* same = storage->OpenStream("S", kModeReadWriteShared);
  kyStream* below = same->OpenStream("f", kModeReadWriteShared);
  EXPECT_FALSE(s->CopyFolder(s));
  EXPECT_FALSE(s->CopyFolder(same));
  EXPECT_FALSE(s->CopyFolder(below));
  // The same file opened by a second storage object is the same folder.
  kyStorage* twin = kyStorage::Open(path.c_str(), kModeReadWriteShared, 256, 0);
  ASSERT_NE(nullptr, twin);
  kyStream* twinS = twin->OpenStream("S", kModeReadWriteShared);
  EXPECT_FALSE(s->CopyFolder(twinS));
  twinS->Release();
  twin->Release();
  EXPECT_EQ(image, kytest::ReadAll(path));
  // Into its parent's sibling is fine.
  kyStream* t = Root("T");
  EXPECT_TRUE(below->CopyFolder(t));
  EXPECT_TRUE(s->CopyFolder(t));
  EXPECT_EQ("x", At(t, "x"));
  t->Release();
  below->Release();
  same->Release();
  s->Release();
}

INSTANTIATE_TEST_SUITE_P(Widths, CopyTest, ::testing::Bool());

}  // namespace
