// The framework map's walk order, which applications see as the unsorted
// order of root streams, and the sorted view on top of it.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "kystore.h"

namespace {

typedef CMap<CString, const char*, int, int> NameMap;
typedef CMapSort<CString, const char*, int, int> SortMap;

std::vector<std::string> Walk(const NameMap& map) {
  std::vector<std::string> out;
  CString key;
  int value;
  for (POSITION pos = map.GetStartPosition(); pos != nullptr;) {
    map.GetNextAssoc(pos, key, value);
    out.push_back(key.GetString());
  }
  return out;
}

// An independent model of the walk: 17 buckets by h = h * 33 + (signed)c,
// newest first within a bucket.
class WalkModel {
 public:
  static uint32_t Hash(const std::string& s) {
    uint32_t h = 0;
    for (char c : s)
      h = h * 33u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(c)));
    return h;
  }
  void Insert(const std::string& s) {
    std::vector<std::string>& b = m_buckets[Hash(s) % 17];
    for (const std::string& k : b)
      if (k == s) return;  // an overwrite keeps its place
    b.insert(b.begin(), s);
  }
  void Remove(const std::string& s) {
    std::vector<std::string>& b = m_buckets[Hash(s) % 17];
    for (size_t i = 0; i < b.size(); ++i)
      if (b[i] == s) b.erase(b.begin() + static_cast<long>(i));
  }
  std::vector<std::string> Walk() const {
    std::vector<std::string> out;
    for (const auto& b : m_buckets) out.insert(out.end(), b.second.begin(), b.second.end());
    return out;
  }

 private:
  std::map<uint32_t, std::vector<std::string>> m_buckets;
};

const char* const kNames[] = {"alpha", "beta", "gamma", "delta",  "epsilon", "zeta",    "eta",
                              "theta", "iota", "kappa", "lambda", "caf\xe9", "\xff\xfe"};

TEST(HashKeyTest, BytesCountAsSignedChars) {
  EXPECT_EQ(0u, HashKey(""));
  EXPECT_EQ(97u, HashKey("a"));
  EXPECT_EQ(3299u, HashKey("ab"));
  EXPECT_EQ(0xFFFFFFE9u, HashKey("\xe9"));
  EXPECT_EQ(3178u, HashKey("a\xe9"));
  // Read unsigned, these two would land in buckets 10 and 16.
  EXPECT_EQ(9u, HashKey("caf\xe9") % 17);
  EXPECT_EQ(0u, HashKey("\xff\xfe") % 17);
}

TEST(CMapWalkTest, BucketsAscendingNewestFirst) {
  NameMap map;
  for (int i = 0; i < 13; ++i) map[kNames[i]] = i;
  const std::vector<std::string> expected = {"\xff\xfe", "gamma",   "beta",   "delta",   "iota",
                                             "kappa",    "epsilon", "lambda", "caf\xe9", "theta",
                                             "alpha",    "zeta",    "eta"};
  EXPECT_EQ(expected, Walk(map));
}

TEST(CMapWalkTest, OverwriteKeepsPlaceAndReinsertGoesToFront) {
  NameMap map;
  for (int i = 0; i < 13; ++i) map[kNames[i]] = i;
  map["theta"] = 100;  // bucket 9 stays caf\xe9, theta, alpha
  ASSERT_TRUE(map.RemoveKey("alpha"));
  EXPECT_FALSE(map.RemoveKey("alpha"));
  map["alpha"] = 7;  // back at the front of bucket 9
  const std::vector<std::string> expected = {"\xff\xfe", "gamma",   "beta",   "delta", "iota",
                                             "kappa",    "epsilon", "lambda", "alpha", "caf\xe9",
                                             "theta",    "zeta",    "eta"};
  EXPECT_EQ(expected, Walk(map));
  int v = 0;
  EXPECT_TRUE(map.Lookup("theta", v));
  EXPECT_EQ(100, v);
}

TEST(CMapWalkTest, MatchesModelOverManyChanges) {
  NameMap map;
  WalkModel model;
  uint32_t seed = 12345;
  for (int step = 0; step < 2000; ++step) {
    seed = seed * 1103515245u + 12345u;
    std::string name = "s";
    name += static_cast<char>(0x60 + (seed >> 8) % 40);  // reaches bytes >= 0x80
    name += static_cast<char>(0x41 + (seed >> 16) % 8);
    if ((seed >> 24) % 4 == 0) {
      map.RemoveKey(name.c_str());
      model.Remove(name);
    } else {
      map[name.c_str()] = step;
      model.Insert(name);
    }
  }
  EXPECT_EQ(model.Walk(), Walk(map));
}

std::vector<std::string> SortedWalk(SortMap& map, int order) {
  std::vector<std::string> out;
  if (map.Sort(order) != 0) return out;
  CString key;
  int value = 0;
  for (int i = 0; i >= 0;) {
    map.GetNextSorted(i, key, value);
    out.push_back(key.GetString());
  }
  return out;
}

TEST(CMapSortTest, ByteOrderBothWays) {
  SortMap map;
  EXPECT_EQ(-1, map.Sort(0));
  for (const char* n : {"b", "a", "B", "c", "\xe9", "A"}) map.SetAt(n, 1);
  EXPECT_EQ((std::vector<std::string>{"A", "B", "a", "b", "c", "\xe9"}), SortedWalk(map, 0));
  EXPECT_EQ((std::vector<std::string>{"\xe9", "c", "b", "a", "B", "A"}), SortedWalk(map, 1));
}

TEST(CMapSortTest, ChangesRebuildTheView) {
  SortMap map;
  map.SetAt("m", 1);
  map.SetAt("k", 2);
  EXPECT_EQ((std::vector<std::string>{"k", "m"}), SortedWalk(map, 0));
  map.SetAt("l", 3);
  EXPECT_FALSE(map.IsSorted());
  EXPECT_EQ((std::vector<std::string>{"k", "l", "m"}), SortedWalk(map, 0));
  EXPECT_TRUE(map.RemoveKey("k"));
  // A removal empties the view at once: no walk can reach the removed pair.
  EXPECT_EQ(0, map.GetSortedCount());
  CString key;
  int value = 0;
  EXPECT_FALSE(map.GetSortedAt(0, key, value));
  EXPECT_EQ((std::vector<std::string>{"l", "m"}), SortedWalk(map, 0));
  map.SetAt("l", 30);  // overwrite: the view is rebuilt with the new value
  ASSERT_EQ(0, map.Sort(0));
  ASSERT_TRUE(map.GetSortedAt(0, key, value));
  EXPECT_EQ(30, value);
}

TEST(CMapSortTest, IndexRunsToMinusOneAndIgnoresOutsiders) {
  SortMap map;
  map.SetAt("x", 5);
  ASSERT_EQ(0, map.Sort(0));
  CString key;
  int value = 0;
  int index = 0;
  map.GetNextSorted(index, key, value);
  EXPECT_EQ(-1, index);
  EXPECT_EQ("x", std::string(key.GetString()));
  key = "untouched";
  index = 1;
  map.GetNextSorted(index, key, value);
  EXPECT_EQ(1, index);
  EXPECT_EQ("untouched", std::string(key.GetString()));
  EXPECT_FALSE(map.GetSortedAt(-1, key, value));
}

}  // namespace
