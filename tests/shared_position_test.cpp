// Reads the library makes on its own behalf (checking a preloaded child's
// slot, a folder's child count asked of the storage) leave the shared file
// position where the caller left it, so that a stream reading along goes on
// where it stopped.

#include <functional>
#include <string>

#include "support/folder_fixture.h"

namespace {

using kytest::FolderTest;
using kytest::Hold;

TEST(PositionedRead, LeavesTheHandlePositionAlone) {
  kytest::TempDir dir;
  const std::string path = dir.File("f");
  kytest::WriteAll(path, {'a', 'b', 'c', 'd', 'e', 'f'});
  HANDLE h = CreateFileA(path.c_str(), GENERIC_READ, 3, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  LARGE_INTEGER at, now;
  at.QuadPart = 1;
  ASSERT_TRUE(SetFilePointerEx(h, at, nullptr, FILE_BEGIN));
  char buf[8] = {};
  DWORD n = 0;
  ASSERT_TRUE(ReadFileAt(h, 3, buf, 8, &n));  // the end cuts it short
  EXPECT_EQ("def", std::string(buf, n));
  EXPECT_FALSE(ReadFileAt(h, -1, buf, 1, &n));
  EXPECT_FALSE(ReadFileAt(INVALID_HANDLE_VALUE, 0, buf, 1, &n));
  at.QuadPart = 0;
  ASSERT_TRUE(SetFilePointerEx(h, at, &now, FILE_CURRENT));
  EXPECT_EQ(1, now.QuadPart);
  CloseHandle(h);
}

class SharedPositionTest : public FolderTest {};

TEST_P(SharedPositionTest, OwnReadsDoNotMoveAReadingStream) {
  {
    Hold(Root("S", 0))->Write("0123456789", 10);
    auto f = Hold(Root("F"));
    Child(f, "D", 0, "child data");
    Child(f, "E", 1);
  }
  // Each step runs between two reads of S on a freshly opened storage.
  struct Step {
    const char* what;
    std::function<void(kyStream* f)> run;
  };
  const Step steps[] = {
      {"lookup through the map",
       [](kyStream* f) {
         t_kyStreamU h;
         tag_kyStreamOffset o;
         EXPECT_TRUE(f->FindStream("D", h, o));
       }},
      {"walk of the map",
       [](kyStream* f) {
         void* cursor = nullptr;
         Hold(f->OpenPreloadChildrenFirst(&cursor, kModeReadShared));
       }},
      {"open by locator",
       [](kyStream* f) {
         void* cursor = nullptr;
         t_kyStreamWithOffset v;
         CString name;
         ASSERT_EQ(1, f->GetPreloadChildrenOffsetFirst(&cursor, 0, v, name));
         tag_kyStreamOffset o;
         memcpy(&o, &v.offset, sizeof(o));
         EXPECT_NE(nullptr, Hold(f->OpenPreloadChildrenByOffset(v.hdr, o, name, kModeReadShared)));
       }},
  };
  for (int load = 0; load < 2; ++load) {
    for (const Step& step : steps) {
      SCOPED_TRACE(std::string(step.what) + (load ? " in memory" : " on the file"));
      ASSERT_NE(nullptr, Reopen(kModeReadShared, load));
      auto s = Open("S");
      auto f = Open("F");
      f->PreloadChildren();
      char buf[4] = {};
      ASSERT_EQ(3, s->Read(buf, 3));
      step.run(f.get());
      ASSERT_EQ(3, s->Read(buf, 3));
      EXPECT_EQ("345", std::string(buf, 3));
    }
  }
}

TEST_P(SharedPositionTest, SubfolderCountMovesThePositionOnlyByItsOpen) {
  {
    auto f = Hold(Root("F"));
    Child(f, "a");
    Child(f, "b");
  }
  ASSERT_NE(nullptr, Reopen(kModeReadShared));
  // Whatever opening the root stream does to the position, the count read
  // adds nothing to it.
  auto positionAfter = [this](const std::function<void()>& call) {
    kyTestAccess::SetFilePointer(storage, 7, FILE_BEGIN);
    call();
    return kyTestAccess::SetFilePointer(storage, 0, FILE_CURRENT);
  };
  const int64_t opened = positionAfter([this] { Open("F"); });
  EXPECT_EQ(opened, positionAfter([this] { EXPECT_EQ(2u, storage->GetSubfolderCount("F")); }));
  EXPECT_EQ(0u, storage->GetSubfolderCount("missing"));
}

INSTANTIATE_TEST_SUITE_P(Widths, SharedPositionTest, ::testing::Bool());

}  // namespace
