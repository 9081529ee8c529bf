// The framework map's walk order, sorted walks, and the durations walk.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

// Buckets ascending, newest first, worked out by hand; overwrites keep their
// place, removed keys come back at the front.  Bytes hash as signed chars.
TEST(CMapWalkTest, BucketsAscendingNewestFirst) {
  CMap<CString, const char*, int, int> map;
  auto walk = [&map] {
    Names out;
    CString key;
    int value;
    for (POSITION pos = map.GetStartPosition(); pos != nullptr; out.push_back(key.GetString()))
      map.GetNextAssoc(pos, key, value);
    return out;
  };
  for (const char* n : {"alpha", "beta", "gamma", "delta", "epsilon", "zeta", "eta", "theta",
                        "iota", "kappa", "lambda", "caf\xe9", "\xff\xfe"})
    map[n] = 1;
  EXPECT_EQ((Names{"\xff\xfe", "gamma", "beta", "delta", "iota", "kappa", "epsilon", "lambda",
                   "caf\xe9", "theta", "alpha", "zeta", "eta"}),
            walk());
  map["gamma"] = 2;
  map.RemoveKey("theta");
  EXPECT_FALSE(map.RemoveKey("theta"));
  map.RemoveKey("beta");
  map["beta"] = 3;
  EXPECT_EQ((Names{"\xff\xfe", "beta", "gamma", "delta", "iota", "kappa", "epsilon", "lambda",
                   "caf\xe9", "alpha", "zeta", "eta"}),
            walk());
}

// The lookup index beside the buckets grows with the map: thousands of
// keys, removed and inserted again, still walk as 17 framework buckets do
// (kept here as plain lists, newest first) and are all found.
TEST(CMapWalkTest, LargeMapWalksAsTheBucketsAndFindsEveryKey) {
  CMap<CString, const char*, int, int> map;
  std::vector<Names> buckets(17);
  auto insert = [&](const std::string& k) {
    map[k.c_str()] = static_cast<int>(k.size());
    Names& b = buckets[HashKey(k.c_str()) % 17];
    b.insert(b.begin(), k);
  };
  auto remove = [&](const std::string& k) {
    ASSERT_TRUE(map.RemoveKey(k.c_str()));
    Names& b = buckets[HashKey(k.c_str()) % 17];
    b.erase(std::find(b.begin(), b.end(), k));
  };
  for (int i = 0; i < 3000; ++i) insert("s" + std::to_string(i * 7919 % 100003));
  for (int i = 0; i < 3000; i += 3) remove("s" + std::to_string(i * 7919 % 100003));
  for (int i = 0; i < 3000; i += 6) insert("s" + std::to_string(i * 7919 % 100003));
  Names expected, walked;
  for (const Names& b : buckets) expected.insert(expected.end(), b.begin(), b.end());
  CString key;
  int value;
  for (POSITION pos = map.GetStartPosition(); pos != nullptr; walked.push_back(key.GetString()))
    map.GetNextAssoc(pos, key, value);
  EXPECT_EQ(expected, walked);
  for (const std::string& k : expected) EXPECT_TRUE(map.Lookup(k.c_str(), value)) << k;
  EXPECT_FALSE(map.Lookup("s1", value));
  EXPECT_EQ(static_cast<int>(expected.size()), map.GetCount());
}

typedef std::vector<std::pair<std::string, DWORD>> Durations;

class SortedTest : public RootTest {
 protected:
  void SetUp() override {
    RootTest::SetUp();
    Make();
  }
  Names SortedWalk(int order) {
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

// Unsigned byte order.  A walk keeps its view across a creation; a removal
// empties the view, ending the walk at its next step.
TEST_P(SortedTest, BothOrdersByteWiseRebuiltAfterChanges) {
  EXPECT_EQ(Names(), SortedWalk(0));
  for (const char* n : {"b", "\xe9", "a", "c", "B"}) Add(n);
  EXPECT_EQ((Names{"B", "a", "b", "c", "\xe9"}), SortedWalk(0));
  EXPECT_EQ((Names{"\xe9", "c", "b", "a", "B"}), SortedWalk(1));
  storage->EnableSorting(1, 0);
  void* cursor = nullptr;
  Hold(storage->OpenStreamFirst(cursor, kRO));
  Add("B0");  // rebuilt, the view would go on with it
  EXPECT_STREQ("a", Hold(Must(storage->OpenStreamNext(cursor, kRO)))->GetName());
  ASSERT_TRUE(storage->RemoveStream("c"));
  EXPECT_EQ(nullptr, storage->OpenStreamNext(cursor, kRO));
  CIterateSortedStreams it;
  ASSERT_EQ(1, storage->IterateSortedStreamsNoOPENS(&it));
  ASSERT_TRUE(storage->RemoveStream("b"));
  EXPECT_EQ(0, storage->IterateSortedStreamsNoOPENS(&it));
  EXPECT_EQ((Names{"B", "B0", "a", "\xe9"}), SortedWalk(0));
}

TEST_P(SortedTest, DurationsFromTimeStamps) {
  // 8-character names are hex seconds as far as they read ("0000001g" is 1,
  // "0x000040" 0x40); the gap to the next is the duration, the last repeats
  // it, a gap over a day or wrapping gives the last duration (3600 unless
  // set).  An unreadable name gets 0 and passes the previous duration on;
  // other lengths keep 0.
  for (const char* n :
       {"0000ffff", "00000020", "00000010", "00000015x", "0000001g", "x", "0x000040", "zzzzzzzz"})
    Add(n);
  const Durations expected = {
      {"00000010", 3600},  {"00000015x", 0},    {"0000001g", 31}, {"00000020", 65503},
      {"0000ffff", 65503}, {"0x000040", 65503}, {"x", 0},         {"zzzzzzzz", 0}};
  EXPECT_EQ(expected, Iterate());
  for (int load = 0; load < 2; ++load) EXPECT_EQ(expected, (Reopen(kRO, load), Iterate()));
  Make();
  Add("00000000");
  EXPECT_EQ((Durations{{"00000000", 3600}}), Iterate());
  Add("00015f90");  // 90000 seconds later
  EXPECT_EQ((Durations{{"00000000", 3600}, {"00015f90", 3600}}), Iterate());
  EXPECT_EQ((Durations{{"00000000", 500}, {"00015f90", 500}}), Iterate(0, 0, 500));
  // Descending, every difference wraps around and takes the previous value.
  EXPECT_EQ((Durations{{"00015f90", 3600}, {"00000000", 3600}}), Iterate(1));
}

// Own and fixed durations take precedence.
TEST_P(SortedTest, OwnAndFixedDurationsAndLocators) {
  CIterateSortedStreams it;
  EXPECT_EQ(0, storage->IterateSortedStreamsNoOPENS(&it));
  EXPECT_EQ(0, storage->IterateSortedStreamsNoOPENS(nullptr));
  Add("00000010");
  Add("00000030", 0x00020000);  // two minutes of its own
  Add("00000050");
  Add("name", 0x00010001);  // a folder with one minute
  const Durations own = {{"00000010", 32}, {"00000030", 120}, {"00000050", 32}, {"name", 60}};
  EXPECT_EQ(own, Iterate());
  EXPECT_EQ((Durations{{"00000010", 60}, {"00000030", 60}, {"00000050", 60}, {"name", 60}}),
            Iterate(0, 60));
  EXPECT_EQ(own, (Reopen(kRO, 1), Iterate()));
}

INSTANTIATE_TEST_SUITE_P(Widths, SortedTest, ::testing::Bool(), WidthName);

}  // namespace
