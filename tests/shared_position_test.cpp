// Reads the library makes on its own behalf (checking a preloaded child's
// slot) leave the shared file position where the caller left it, so that a
// stream reading along goes on where it stopped.  The positioned read behind
// them is tested with the platform, the child count of a root folder with
// the root streams.

#include <functional>
#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::FolderTest;
using kytest::Hold;

class SharedPositionTest : public FolderTest {};

TEST_P(SharedPositionTest, OwnReadsDoNotMoveAReadingStream) {
  {
    Hold(Root("S", 0))->Write("0123456789", 10);
    auto f = Hold(Root("F"));
    Child(f, "D", 0, "child data");
    Child(f, "E", 1);
  }
  // Each step runs between two reads of S on a freshly opened storage: a
  // lookup through the map, a walk of the map, an open by locator.
  const std::function<void(kyStream*)> steps[] = {
      [](kyStream* f) {
        t_kyStreamU h;
        tag_kyStreamOffset o;
        EXPECT_TRUE(f->FindStream("D", h, o));
      },
      [](kyStream* f) {
        void* cursor = nullptr;
        EXPECT_NE(nullptr, Hold(f->OpenPreloadChildrenFirst(&cursor, kModeReadShared)));
      },
      [](kyStream* f) {
        void* cursor = nullptr;
        t_kyStreamWithOffset v;
        CString name;
        ASSERT_EQ(1, f->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name));
        tag_kyStreamOffset o;
        memcpy(&o, &v.offset, sizeof(o));
        EXPECT_NE(nullptr, Hold(f->OpenPreloadChildrenByOffset(v.hdr, o, name, kModeReadShared)));
      },
  };
  for (int i = 0; i < 6; ++i) {
    SCOPED_TRACE(i);
    ASSERT_NE(nullptr, Reopen(kModeReadShared, i / 3));  // from the file, then in memory
    auto s = Open("S");
    auto f = Open("F");
    f->PreloadChildren();
    char buf[4] = {};
    ASSERT_EQ(3, s->Read(buf, 3));
    steps[i % 3](f.get());
    ASSERT_EQ(3, s->Read(buf, 3));
    EXPECT_EQ("345", std::string(buf, 3));
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, SharedPositionTest, ::testing::Bool());

}  // namespace
