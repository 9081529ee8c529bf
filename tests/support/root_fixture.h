// Shared by the root stream tests: the storage fixture with walks over the
// root streams and a look into the name map and the registry.
#ifndef KYSTORE_TESTS_SUPPORT_ROOT_FIXTURE_H_
#define KYSTORE_TESTS_SUPPORT_ROOT_FIXTURE_H_

#include "support/stream_fixture.h"

namespace kytest {

class RootTest : public StorageTest {
 protected:
  // Ordinary root streams o0, o1, ...; 58 fill the first directory block.
  void FillOrdinary(int n) {
    for (int i = 0; i < n; ++i) Add("o" + std::to_string(i));
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
  tag_kyStreamOffset Locator(const char* name) {
    tag_kyStreamOffset o{};
    EXPECT_TRUE(kyTestAccess::FindStreamOffset(storage, name, o)) << name;
    return o;
  }
};

inline std::string RootWidthName(const ::testing::TestParamInfo<bool>& p) {
  return WidthName(p);
}

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_ROOT_FIXTURE_H_
