// Root streams in name order: the sorted map walk, the view being rebuilt
// after changes, and the walk that opens nothing and works out durations
// from time-stamped names.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

typedef std::vector<std::pair<std::string, DWORD>> Durations;

class SortedTest : public RootTest {
 protected:
  void SetUp() override {
    RootTest::SetUp();
    Make();
  }
  Names Walk(int order) {
    storage->EnableSorting(1, order);
    return MapWalk(storage);
  }
  Durations Iterate(int order = 0, DWORD fixed = 0, DWORD last = 0) {
    CIterateSortedStreams it;
    it.iOrder = order;
    it.dwFixedDuration = fixed;
    it.dwLastDuration = last;
    Durations out;
    while (storage->IterateSortedStreamsNoOPENS(&it))
      out.push_back({it.strName.GetString(), it.offset.dwDuration});
    EXPECT_EQ(0, storage->IterateSortedStreamsNoOPENS(&it));  // stays at the end
    EXPECT_EQ(0, Records());                                  // nothing was opened
    return out;
  }
};

TEST_P(SortedTest, BothOrdersByteWiseRebuiltAfterChanges) {
  EXPECT_EQ(Names(), Walk(0));
  for (const char* n : {"b", "a", "c", "B"}) Add(n);
  EXPECT_EQ((Names{"B", "a", "b", "c"}), Walk(0));
  EXPECT_EQ((Names{"c", "b", "a", "B"}), Walk(1));
  Add("aa");
  ASSERT_TRUE(storage->RemoveStream("b"));
  EXPECT_EQ((Names{"B", "a", "aa", "c"}), Walk(0));
  Add("b");
  EXPECT_EQ((Names{"c", "b", "aa", "a", "B"}), Walk(1));
  for (int load = 0; load < 2; ++load) {
    Reopen(kRO, load);
    EXPECT_EQ((Names{"B", "a", "aa", "b", "c"}), Walk(0));
    EXPECT_EQ((Names{"c", "b", "aa", "a", "B"}), Walk(7));
  }
}

TEST_P(SortedTest, ChangesDuringAWalk) {
  for (const char* n : {"a", "b", "c"}) Add(n);
  storage->EnableSorting(1, 0);
  void* cursor = nullptr;
  storage->OpenStreamFirst(cursor, kRO)->Release();
  Add("ab");  // a creation leaves the walk on the view it started with
  Names rest;
  for (kyStream* s; (s = storage->OpenStreamNext(cursor, kRO)) != nullptr; s->Release())
    rest.push_back(s->GetName());
  EXPECT_EQ((Names{"b", "c"}), rest);
  // A removal empties the view: a walk ends at its next step.
  storage->OpenStreamFirst(cursor, kRO)->Release();
  ASSERT_TRUE(storage->RemoveStream("c"));
  EXPECT_EQ(nullptr, storage->OpenStreamNext(cursor, kRO));
  CIterateSortedStreams it;
  ASSERT_EQ(1, storage->IterateSortedStreamsNoOPENS(&it));
  ASSERT_TRUE(storage->RemoveStream("b"));
  EXPECT_EQ(0, storage->IterateSortedStreamsNoOPENS(&it));
}

TEST_P(SortedTest, DurationsFromTimeStamps) {
  // Names of eight characters are times in seconds, read as hexadecimal
  // numbers as far as they go ("0000001g" is 1, "0x000040" is 0x40); the
  // gap to the next such name is the duration, the last repeats the one
  // before, and a gap of over a day (also one that wraps around) gives the
  // last duration (3600 unless set).  A name that reads as no number at all
  // gets 0 itself and, as the next name, gives the previous duration.
  // Other lengths keep 0 and are skipped.
  for (const char* n :
       {"0000ffff", "00000020", "00000010", "00000015x", "0000001g", "x", "0x000040", "zzzzzzzz"})
    Add(n);
  const Durations expected = {
      {"00000010", 3600},  {"00000015x", 0},    {"0000001g", 31}, {"00000020", 65503},
      {"0000ffff", 65503}, {"0x000040", 65503}, {"x", 0},         {"zzzzzzzz", 0}};
  EXPECT_EQ(expected, Iterate());
  for (int load = 0; load < 2; ++load) {
    Reopen(kRO, load);
    EXPECT_EQ(expected, Iterate());
  }
  Make();
  Add("00000000");
  EXPECT_EQ((Durations{{"00000000", 3600}}), Iterate());
  Add("00015f90");  // 90000 seconds later
  EXPECT_EQ((Durations{{"00000000", 3600}, {"00015f90", 3600}}), Iterate());
  EXPECT_EQ((Durations{{"00000000", 500}, {"00015f90", 500}}), Iterate(0, 0, 500));
  // Descending, every difference wraps around and takes the previous value.
  EXPECT_EQ((Durations{{"00015f90", 3600}, {"00000000", 3600}}), Iterate(1));
}

TEST_P(SortedTest, OwnAndFixedDurations) {
  Add("00000010");
  Add("00000030", 0x00020000);  // two minutes of its own
  Add("00000050");
  Add("name", 0x00010001);  // a folder with one minute
  const Durations own = {{"00000010", 32}, {"00000030", 120}, {"00000050", 32}, {"name", 60}};
  EXPECT_EQ(own, Iterate());
  EXPECT_EQ((Durations{{"00000010", 60}, {"00000030", 60}, {"00000050", 60}, {"name", 60}}),
            Iterate(0, 60));
  Reopen(kRO, 1);
  EXPECT_EQ(own, Iterate());
}

TEST_P(SortedTest, WalkStateAndLocators) {
  CIterateSortedStreams it;
  EXPECT_EQ(0, storage->IterateSortedStreamsNoOPENS(&it));
  EXPECT_EQ(0, it.bFirst);
  EXPECT_EQ(0, storage->IterateSortedStreamsNoOPENS(nullptr));
  Add("b");
  Add("a");
  CIterateSortedStreams walk;
  ASSERT_EQ(1, storage->IterateSortedStreamsNoOPENS(&walk));
  EXPECT_EQ(1, walk.iPos);
  ASSERT_EQ(1, storage->IterateSortedStreamsNoOPENS(&walk));
  EXPECT_EQ(-1, walk.iPos);
  kyStream* b = storage->OpenStreamByOffset(walk.offset, walk.strName, kRO);
  ASSERT_NE(nullptr, b);
  EXPECT_STREQ("b", b->GetName());
  EXPECT_EQ(1, b->Release());
}

INSTANTIATE_TEST_SUITE_P(Widths, SortedTest, ::testing::Bool(), RootWidthName);

}  // namespace
