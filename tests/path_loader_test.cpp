// The path loader: what a path reaches and holds, creation, release order,
// removal by path.

#include <gtest/gtest.h>

#include <memory>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

// A storage holding the folders Top/Mid/Leaf, released by the fixture.
class PathLoaderTest : public RootTest {
 protected:
  void SetUp() override {
    RootTest::SetUp();
    Make();
    kyStream* top = Must(storage->CreateStream("Top", 1, kRW));
    kyStream* mid = Must(top->CreateStream("Mid", 1, kRW, 1));
    Must(mid->CreateStream("Leaf", 1, kRW, 1))->Release();
    mid->Release();
    top->Release();
  }
  void TearDown() override {
    loader.CloseOpenStorages();  // before the storage goes
    RootTest::TearDown();
  }
  // The names from the root down to `stm`, joined by '/'.
  static std::string PathOf(kyStream* stm) {
    std::string path;
    for (; stm != nullptr; stm = stm->GetParentStm())
      path = stm->GetName() + (path.empty() ? "" : "/" + path);
    return path;
  }
  CPathLoader loader;
};

TEST_P(PathLoaderTest, PathsReachTheirStreamAndHoldTheLevelsOpened) {
  // The path of the stream reached ("" for none) and Top's open objects.
  const struct {
    const char *path, *reached;
    int bCreate, topHeld;
  } cases[] = {{"Top/Mid/Leaf", "Top/Mid/Leaf", 0, 1},
               {"Top/Mid/", "Top/Mid", 0, 1},
               {"Top", "Top", 0, 1},
               {"/Top", "", 0, 0},
               {"", "", 0, 0},
               {"Top//Mid", "", 0, 1},
               {"Top/Nope/Leaf", "", 0, 1},
               {"Top//Mid", "", 1, 1},
               {"Nope", "", 0, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    kyStream* got = loader.GetStreamByPath(storage, c.path, 0, c.bCreate);
    EXPECT_EQ(c.reached, got ? PathOf(got) : "");
    t_OpenStream* top = kyTestAccess::IsStreamOpen(storage, "Top");
    EXPECT_EQ(c.topHeld, top ? top->m_nCount : 0);
    loader.CloseOpenStorages();
    EXPECT_EQ(0, Records());
  }
  EXPECT_EQ(nullptr, loader.GetStreamByPath(nullptr, "Top", 0, 0));
}

TEST_P(PathLoaderTest, CreationMakesEveryMissingLevelAFolder) {
  kyStream* made = loader.GetStreamByPath(storage, "Top/New/Deeper", 1, 1);
  ASSERT_NE(nullptr, made);
  EXPECT_EQ("Top/New/Deeper", PathOf(made));
  EXPECT_EQ(made, loader.GetSubStreamByPath(made, "", 0, 0));  // holds nothing new
  made = loader.GetStreamByPath(storage, "Other/X", 1, 1);
  ASSERT_NE(nullptr, made);
  EXPECT_TRUE(made->IsFolder() && made->GetParentStm()->IsFolder());
  loader.CloseOpenStorages();
  Reopen();
  kyStream* again = loader.GetStreamByPath(storage, "Top/New/Deeper", 0, 0);
  ASSERT_NE(nullptr, again);
  EXPECT_TRUE(again->IsFolder());
}

// Releases go innermost first: one leave each for Leaf, Mid and Top.
TEST_P(PathLoaderTest, HeldStreamsAreReleasedLeafMidTop) {
  kyStream* leaf = Must(loader.GetStreamByPath(storage, "Top/Mid/Leaf", 1, 0));
  ASSERT_EQ(1, storage->StartRecording());
  unsigned char byte = 7;
  kyTestAccess::Recorder(storage)->OpWrite(&byte, 1, 0, leaf, 0);
  loader.CloseOpenStorages();
  std::unique_ptr<CCompRecorder> rec(Must(storage->StopRecording()));
  const unsigned char* p = kyTestAccess::Buffer(rec.get());
  EXPECT_EQ(Bytes(p, p + rec->GetDataLength()),
            Bytes({1,   3,   0,   'T', 'o', 'p', 1, 1, 3, 0, 'M', 'i', 'd', 1, 1, 4, 0,
                   'L', 'e', 'a', 'f', 1,   5,   0, 0, 1, 0, 0,   0,   7,   3, 3, 3}));
}

TEST_P(PathLoaderTest, DeleteByPathRemovesAndLeavesNothingHeld) {
  ASSERT_NE(nullptr, loader.GetStreamByPath(storage, "Top", 0, 0));
  EXPECT_EQ(1, loader.DeleteStreamByPath(storage, "Top/Mid"));
  EXPECT_EQ(0, Records());                                      // the earlier Top too
  EXPECT_EQ(0, loader.DeleteStreamByPath(storage, "Top/Mid"));  // gone
  EXPECT_EQ(0, Records());
  // A stream the loader already holds is another open object: refused.
  ASSERT_NE(nullptr, loader.GetStreamByPath(storage, "Top", 0, 0));
  EXPECT_EQ(0, loader.DeleteStreamByPath(storage, "Top"));
  EXPECT_EQ(0, Records());
  EXPECT_EQ(1, loader.DeleteStreamByPath(storage, "Top"));
  EXPECT_EQ(nullptr, storage->OpenStream("Top", kRO));
}

INSTANTIATE_TEST_SUITE_P(OffsetWidths, PathLoaderTest, ::testing::Bool(), RootWidthName);

}  // namespace
