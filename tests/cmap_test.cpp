// The framework map's walk order, which applications see as the unsorted
// order of root streams, and the sorted view on top of it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/root_fixture.h"

namespace {

using kytest::Names;

typedef CMap<CString, const char*, int, int> NameMap;
typedef CMapSort<CString, const char*, int, int> SortMap;

Names Walk(const NameMap& map) {
  Names out;
  CString key;
  int value;
  for (POSITION pos = map.GetStartPosition(); pos != nullptr;) {
    map.GetNextAssoc(pos, key, value);
    out.push_back(key.GetString());
  }
  return out;
}

TEST(HashKeyTest, BytesCountAsSignedChars) {
  EXPECT_EQ(0u, HashKey(""));
  EXPECT_EQ(3299u, HashKey("ab"));
  EXPECT_EQ(0xFFFFFFE9u, HashKey("\xe9"));
  EXPECT_EQ(3178u, HashKey("a\xe9"));
  // Read unsigned, these two would land in buckets 10 and 16.
  EXPECT_EQ(9u, HashKey("caf\xe9") % 17);
  EXPECT_EQ(0u, HashKey("\xff\xfe") % 17);
}

// Buckets ascending, newest first within a bucket, worked out by hand.
TEST(CMapWalkTest, BucketsAscendingNewestFirst) {
  NameMap map;
  for (const char* n : {"alpha", "beta", "gamma", "delta", "epsilon", "zeta", "eta", "theta",
                        "iota", "kappa", "lambda", "caf\xe9", "\xff\xfe"})
    map[n] = 1;
  EXPECT_EQ((Names{"\xff\xfe", "gamma", "beta", "delta", "iota", "kappa", "epsilon", "lambda",
                   "caf\xe9", "theta", "alpha", "zeta", "eta"}),
            Walk(map));
}

// Overwrites keep their place, removed keys come back at the front.
TEST(CMapWalkTest, MatchesModelOverManyChanges) {
  NameMap map;
  kytest::WalkModel model;
  uint32_t seed = 12345;
  for (int step = 0; step < 2000; ++step) {
    seed = seed * 1103515245u + 12345u;
    std::string name = "s";
    name += static_cast<char>(0x60 + (seed >> 8) % 40);  // reaches bytes >= 0x80
    name += static_cast<char>(0x41 + (seed >> 16) % 8);
    if ((seed >> 24) % 4 == 0) {
      int old = 0;
      const bool present = map.Lookup(name.c_str(), old) != 0;
      EXPECT_EQ(present, map.RemoveKey(name.c_str()) != 0);
      model.Remove(name);
    } else {
      map[name.c_str()] = step;
      model.Insert(name);
    }
  }
  EXPECT_EQ(model.Walk(), Walk(map));
}

Names SortedWalk(SortMap& map, int order) {
  Names out;
  if (map.Sort(order) != 0) return out;
  CString key;
  int value = 0;
  for (int i = 0; i >= 0;) {
    map.GetNextSorted(i, key, value);
    out.push_back(key.GetString());
  }
  return out;
}

TEST(CMapSortTest, ByteOrderBothWaysAndChangesRebuildTheView) {
  SortMap map;
  EXPECT_EQ(-1, map.Sort(0));
  for (const char* n : {"b", "a", "B", "c", "\xe9", "A"}) map.SetAt(n, 1);
  EXPECT_EQ((Names{"A", "B", "a", "b", "c", "\xe9"}), SortedWalk(map, 0));
  EXPECT_EQ((Names{"\xe9", "c", "b", "a", "B", "A"}), SortedWalk(map, 1));
  map.SetAt("ab", 3);
  EXPECT_FALSE(map.IsSorted());
  EXPECT_EQ((Names{"A", "B", "a", "ab", "b", "c", "\xe9"}), SortedWalk(map, 0));
  EXPECT_TRUE(map.RemoveKey("A"));
  // A removal empties the view at once: no walk can reach the removed pair.
  EXPECT_EQ(0, map.GetSortedCount());
  CString key;
  int value = 0;
  EXPECT_FALSE(map.GetSortedAt(0, key, value));
  map.SetAt("B", 30);  // overwrite: the view is rebuilt with the new value
  ASSERT_EQ(0, map.Sort(0));
  ASSERT_TRUE(map.GetSortedAt(0, key, value));
  EXPECT_EQ(30, value);
  EXPECT_FALSE(map.GetSortedAt(-1, key, value));
  // The index runs to -1 after the last pair and leaves outsiders alone.
  int index = 5;
  map.GetNextSorted(index, key, value);
  EXPECT_EQ(-1, index);
  EXPECT_STREQ("\xe9", key.GetString());
  index = 6;
  map.GetNextSorted(index, key, value);
  EXPECT_EQ(6, index);
  EXPECT_STREQ("\xe9", key.GetString());
}

}  // namespace
