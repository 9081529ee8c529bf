// Root streams in name order: the sorted map walk, the view being rebuilt
// after changes, and the walk that opens nothing and works out durations
// from time-stamped names.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kystore.h"
#include "support/test_access.h"
#include "support/test_util.h"

namespace {

const DWORD kRW = kModeReadWriteShared;
const DWORD kRO = kModeReadShared;

typedef std::vector<std::string> Names;
typedef std::vector<std::pair<std::string, DWORD>> Durations;

class SortedTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    kyStorage::g_bUse64BitOffsets = GetParam() ? 1 : 0;
    path = dir.File("sorted.kys");
    storage = kyStorage::Create(path.c_str(), kRW, 64);
    ASSERT_NE(nullptr, storage);
  }
  void TearDown() override {
    if (storage) storage->Release();
  }
  void Add(const std::string& name, DWORD type = 0) {
    kyStream* stm = storage->CreateStream(name.c_str(), type, kRW);
    ASSERT_NE(nullptr, stm) << name;
    stm->Release();
  }
  void Reopen(int load) {
    storage->Release();
    storage = kyStorage::Open(path.c_str(), kRO, 64, load);
    ASSERT_NE(nullptr, storage);
  }
  Names Walk(int order) {
    storage->EnableSorting(1, order);
    Names out;
    void* cursor = nullptr;
    for (kyStream* s = storage->OpenStreamFirst(cursor, kRO); s != nullptr;
         s = storage->OpenStreamNext(cursor, kRO)) {
      out.push_back(s->GetName());
      s->Release();
    }
    return out;
  }
  Durations Iterate(CIterateSortedStreams& it) {
    Durations out;
    while (storage->IterateSortedStreamsNoOPENS(&it))
      out.push_back({it.strName.GetString(), it.offset.dwDuration});
    EXPECT_EQ(0, storage->IterateSortedStreamsNoOPENS(&it));  // stays at the end
    return out;
  }
  Durations Iterate(int order = 0, DWORD fixed = 0, DWORD last = 0) {
    CIterateSortedStreams it;
    it.iOrder = order;
    it.dwFixedDuration = fixed;
    it.dwLastDuration = last;
    return Iterate(it);
  }

  kytest::GlobalsGuard globals;
  kytest::TempDir dir;
  std::string path;
  kyStorage* storage = nullptr;
};

TEST_P(SortedTest, BothOrdersByteWise) {
  EXPECT_EQ(Names(), Walk(0));
  for (const char* n : {"b", "a", "c", "B"}) Add(n);
  EXPECT_EQ((Names{"B", "a", "b", "c"}), Walk(0));
  EXPECT_EQ((Names{"c", "b", "a", "B"}), Walk(1));
  for (int load = 0; load < 2; ++load) {
    Reopen(load);
    EXPECT_EQ((Names{"B", "a", "b", "c"}), Walk(0));
    EXPECT_EQ((Names{"c", "b", "a", "B"}), Walk(7));
  }
}

TEST_P(SortedTest, ViewIsRebuiltAfterChanges) {
  for (const char* n : {"m", "k", "t"}) Add(n);
  EXPECT_EQ((Names{"k", "m", "t"}), Walk(0));
  Add("aa");
  Add("p");
  EXPECT_EQ((Names{"aa", "k", "m", "p", "t"}), Walk(0));
  ASSERT_TRUE(storage->RemoveStream("m"));
  EXPECT_EQ((Names{"aa", "k", "p", "t"}), Walk(0));
  EXPECT_EQ((Names{"t", "p", "k", "aa"}), Walk(1));
  Add("m");
  EXPECT_EQ((Names{"t", "p", "m", "k", "aa"}), Walk(1));
}

TEST_P(SortedTest, ChangesDuringAWalk) {
  for (const char* n : {"a", "b", "c"}) Add(n);
  storage->EnableSorting(1, 0);
  void* cursor = nullptr;
  kyStream* a = storage->OpenStreamFirst(cursor, kRO);
  ASSERT_NE(nullptr, a);
  a->Release();
  // A creation leaves the walk on the view it started with.
  Add("ab");
  Names rest;
  for (kyStream* s; (s = storage->OpenStreamNext(cursor, kRO)) != nullptr; s->Release())
    rest.push_back(s->GetName());
  EXPECT_EQ((Names{"b", "c"}), rest);
  // A removal empties the view: the walk ends at its next step.
  kyStream* first = storage->OpenStreamFirst(cursor, kRO);
  ASSERT_NE(nullptr, first);
  EXPECT_STREQ("a", first->GetName());
  first->Release();
  ASSERT_TRUE(storage->RemoveStream("c"));
  EXPECT_EQ(nullptr, storage->OpenStreamNext(cursor, kRO));
  CIterateSortedStreams it;
  ASSERT_EQ(1, storage->IterateSortedStreamsNoOPENS(&it));
  ASSERT_TRUE(storage->RemoveStream("b"));
  EXPECT_EQ(0, storage->IterateSortedStreamsNoOPENS(&it));
}

TEST_P(SortedTest, DurationsFromTimeStamps) {
  for (const char* n : {"0000ffff", "00000020", "00000010"}) Add(n);
  const Durations expected = {{"00000010", 16}, {"00000020", 65503}, {"0000ffff", 65503}};
  EXPECT_EQ(expected, Iterate());
  for (int load = 0; load < 2; ++load) {
    Reopen(load);
    EXPECT_EQ(expected, Iterate());
  }
  EXPECT_EQ(0, kyTestAccess::Registry(storage).GetCount());  // nothing was opened
}

TEST_P(SortedTest, SingleStampAndLargeGaps) {
  Add("00000000");
  EXPECT_EQ((Durations{{"00000000", 3600}}), Iterate());
  Add("00015f90");  // 90000 seconds later: more than a day
  EXPECT_EQ((Durations{{"00000000", 3600}, {"00015f90", 3600}}), Iterate());
  EXPECT_EQ((Durations{{"00000000", 500}, {"00015f90", 500}}), Iterate(0, 0, 500));
  // Descending, every difference wraps around and takes the previous value.
  EXPECT_EQ((Durations{{"00015f90", 3600}, {"00000000", 3600}}), Iterate(1));
}

TEST_P(SortedTest, OtherNamesAreSkippedAndKeepZero) {
  // "0000001g" has eight characters but is no hexadecimal number: it is
  // treated like a name of another length.
  for (const char* n : {"00000010", "00000015x", "0000001g", "00000020", "0000FFFF", "x"}) Add(n);
  const Durations expected = {{"00000010", 16},    {"00000015x", 0},    {"0000001g", 0},
                              {"00000020", 65503}, {"0000FFFF", 65503}, {"x", 0}};
  EXPECT_EQ(expected, Iterate());
}

TEST_P(SortedTest, OwnAndFixedDurations) {
  Add("00000010");
  Add("00000030", 0x00020000);  // two minutes of its own
  Add("00000050");
  Add("name", 0x00010001);  // a folder with one minute
  EXPECT_EQ((Durations{{"00000010", 32}, {"00000030", 120}, {"00000050", 32}, {"name", 60}}),
            Iterate());
  EXPECT_EQ((Durations{{"00000010", 60}, {"00000030", 60}, {"00000050", 60}, {"name", 60}}),
            Iterate(0, 60));
  Reopen(1);
  EXPECT_EQ((Durations{{"00000010", 32}, {"00000030", 120}, {"00000050", 32}, {"name", 60}}),
            Iterate());
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
  EXPECT_STREQ("b", walk.strName.GetString());
  kyStream* b = storage->OpenStreamByOffset(walk.offset, walk.strName, kRO);
  ASSERT_NE(nullptr, b);
  EXPECT_STREQ("b", b->GetName());
  EXPECT_EQ(1, b->Release());
}

INSTANTIATE_TEST_SUITE_P(Widths, SortedTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& i) {
                           return i.param ? "Offsets64" : "Offsets32";
                         });

}  // namespace
