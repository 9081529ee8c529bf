// The path loader: what a path reaches and holds, creation, release order,
// removal by path.

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/record_builders.h"
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
  const std::tuple<const char*, std::string, int, int> cases[] = {
      {"Top/Mid/Leaf", "Top/Mid/Leaf", 0, 1},
      {"Top/Mid/", "Top/Mid", 0, 1},
      {"Top", "Top", 0, 1},
      {"/Top", "", 0, 0},
      {"", "", 0, 0},
      {"Top//Mid", "", 0, 1},
      {"Top/Nope/Leaf", "", 0, 1},
      {"Top//Mid", "", 1, 1},
      {"Nope", "", 0, 0}};
  for (const auto& [where, reached, bCreate, topHeld] : cases) {
    kyStream* got = loader.GetStreamByPath(storage, where, 0, bCreate);
    EXPECT_EQ(reached, got ? PathOf(got) : "") << where;
    t_OpenStream* top = kyTestAccess::IsStreamOpen(storage, "Top");
    EXPECT_EQ(topHeld, top ? top->m_nCount : 0) << where;
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
  EXPECT_EQ(StopBytes(storage),
            Rec().Enter("Top", 1).Enter("Mid", 1).Enter("Leaf", 1).Write(0, 0, "\7").Leave(3).b);
}

TEST_P(PathLoaderTest, DeleteByPathRemovesAndLeavesNothingHeld) {
  ASSERT_NE(nullptr, loader.GetStreamByPath(storage, "Top", 0, 0));
  EXPECT_EQ(1, loader.DeleteStreamByPath(storage, "Top/Mid"));
  EXPECT_EQ(0, loader.DeleteStreamByPath(storage, "Top/Mid") + Records());  // gone; Top released
  // A stream the loader already holds is another open object: refused.
  ASSERT_NE(nullptr, loader.GetStreamByPath(storage, "Top", 0, 0));
  EXPECT_EQ(0, loader.DeleteStreamByPath(storage, "Top") + Records());
  EXPECT_EQ(1, loader.DeleteStreamByPath(storage, "Top"));
  EXPECT_EQ(nullptr, storage->OpenStream("Top", kRO));
}

INSTANTIATE_TEST_SUITE_P(OffsetWidths, PathLoaderTest, ::testing::Bool(), RootWidthName);

}  // namespace
