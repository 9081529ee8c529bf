// Shared by the root stream tests: a storage of either offset width with
// 64 root slots per directory block, slot arithmetic, the map walks, and an
// independent model of the framework map's walk order.
#ifndef KYSTORE_TESTS_SUPPORT_ROOT_FIXTURE_H_
#define KYSTORE_TESTS_SUPPORT_ROOT_FIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/test_access.h"
#include "support/test_util.h"

namespace kytest {

typedef std::vector<std::string> Names;

const DWORD kRW = kModeReadWriteShared;
const DWORD kRO = kModeReadShared;

// A stream the test cannot go on without; a null one ends the test with a
// failure (gtest reports the exception) instead of a crash.
inline kyStream* Must(kyStream* s) {
  if (s == nullptr) throw std::runtime_error("no stream");
  return s;
}

// The map's walk computed on its own: 17 buckets by h = h * 33 + (signed
// char)c, buckets ascending, newest first within a bucket; an overwrite
// keeps its place.
class WalkModel {
 public:
  void Insert(const std::string& s) {
    Names& b = Bucket(s);
    if (std::find(b.begin(), b.end(), s) == b.end()) b.insert(b.begin(), s);
  }
  void Remove(const std::string& s) {
    Names& b = Bucket(s);
    b.erase(std::remove(b.begin(), b.end(), s), b.end());
  }
  Names Walk() const {
    Names out;
    for (const auto& b : m_buckets) out.insert(out.end(), b.second.begin(), b.second.end());
    return out;
  }

 private:
  Names& Bucket(const std::string& s) {
    uint32_t h = 0;
    for (char c : s) h = h * 33u + static_cast<uint32_t>(static_cast<int8_t>(c));
    return m_buckets[h % 17];
  }
  std::map<uint32_t, Names> m_buckets;
};

class RootTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { kyStorage::g_bUse64BitOffsets = B64() ? 1 : 0; }
  void TearDown() override {
    if (storage != nullptr) storage->Release();
  }
  bool B64() const { return GetParam(); }
  int64_t HW() const { return B64() ? 92 : 80; }
  int64_t DBS() const { return B64() ? 5904 : 5132; }
  // Offset of header slot `i` of the directory block at `block`.
  int64_t Slot(int64_t block, int64_t i) const { return block + (B64() ? 16 : 12) + HW() * i; }
  static int64_t HeaderOffset(kyStream* s) { return kyTestAccess::Offset(s).headerOffset; }

  // A new storage held by the fixture (released in TearDown).
  kyStorage* Make() {
    if (storage != nullptr) storage->Release();
    storage = kyStorage::Create(path.c_str(), kRW, 64);
    if (storage == nullptr) throw std::runtime_error("no storage");
    return storage;
  }
  // Releases the held storage and opens the file again (load 2: OpenFast).
  kyStorage* Reopen(DWORD mode = kRO, int load = 0) {
    if (storage != nullptr) storage->Release();
    storage = load == 2 ? kyStorage::OpenFast(path.c_str(), mode, 64)
                        : kyStorage::Open(path.c_str(), mode, 64, load);
    if (storage == nullptr) throw std::runtime_error("no storage");
    return storage;
  }
  // Creates and releases a root stream of the held storage.
  void Add(const std::string& name, DWORD type = 0, bool fast = false) {
    Must(fast ? storage->CreateStreamFast(name.c_str(), type, kRW)
              : storage->CreateStream(name.c_str(), type, kRW))
        ->Release();
  }
  // Ordinary root streams o0, o1, ...; 58 fill the first directory block.
  void FillOrdinary(int n) {
    for (int i = 0; i < n; ++i) Add("o" + std::to_string(i));
  }
  // The link from the first directory block to the next, written by width.
  void PutNextLink(Bytes& img, int64_t link) const {
    if (B64())
      Put64(img, 40, link);
    else
      Put32(img, 40, static_cast<uint32_t>(link));
  }
  // Names of a map walk (hash or sorted order); every stream is released.
  static Names MapWalk(kyStorage* s) {
    Names out;
    void* cursor = nullptr;
    for (kyStream* stm = s->OpenStreamFirst(cursor, kRO); stm != nullptr;
         stm = s->OpenStreamNext(cursor, kRO)) {
      out.push_back(stm->GetName());
      EXPECT_EQ(1, stm->Release());
    }
    return out;
  }
  int Records() { return kyTestAccess::Registry(storage).GetCount(); }

  GlobalsGuard globals;
  TempDir dir;
  std::string path = dir.File("root.kys");
  kyStorage* storage = nullptr;
};

inline std::string RootWidthName(const ::testing::TestParamInfo<bool>& p) {
  return p.param ? "Offsets64" : "Offsets32";
}

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_ROOT_FIXTURE_H_
