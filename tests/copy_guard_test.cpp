// What a copy refuses or reports: a folder copied into itself through the
// same file under another name, and a source folder whose walk stops at a
// damaged slot.

#include <unistd.h>

#include <string>
#include <vector>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
using kytest::FolderTest;
using kytest::Hold;

class CopyGuardTest : public FolderTest {};

TEST_P(CopyGuardTest, TheSameFileUnderAnotherNameIsTheSameFolder) {
  {
    auto s = Hold(Root("S"));
    Child(s, "x", 0, "data");
  }
  const std::string symlinked = dir.File("symlinked.kys"), hardLinked = dir.File("hard.kys");
  ASSERT_EQ(0, symlink(path.c_str(), symlinked.c_str()));
  ASSERT_EQ(0, link(path.c_str(), hardLinked.c_str()));
  ASSERT_NE(nullptr, Reopen());
  const Bytes image = kytest::ReadAll(path);
  auto s = Open("S", kModeReadWriteShared);
  for (const std::string& alias : {symlinked, hardLinked, dir.path() + "/./tree.kys"}) {
    SCOPED_TRACE(alias);
    auto twin = Hold(kyStorage::Open(alias.c_str(), kModeReadWriteShared, 256, 0));
    ASSERT_NE(nullptr, twin);
    auto same = Hold(twin->OpenStream("S", kModeReadWriteShared));
    EXPECT_FALSE(s->CopyFolder(same.get()));
    EXPECT_FALSE(OpenIn(s, "x")->CopyStream(OpenIn(same, "x", kModeReadWriteShared).get()));
  }
  // Loaded into memory, the file keeps the identity it was opened with.
  auto loaded = Hold(kyStorage::Open(symlinked.c_str(), kModeReadShared, 256, 1));
  ASSERT_NE(nullptr, loaded);
  EXPECT_FALSE(Hold(loaded->OpenStream("S", kModeReadShared))->CopyFolder(s.get()));
  EXPECT_EQ(image, kytest::ReadAll(path));
}

TEST_P(CopyGuardTest, AWalkStoppedByADamagedSlotFailsTheCopy) {
  int64_t damaged = 0;
  {
    auto s = Hold(Root("S"));
    for (const char* n : {"a", "b", "c"}) Child(s, n, 0, n);
    damaged = HeaderOffset(OpenIn(s, "b"));
    Hold(Root("T"));
  }
  Bytes image = kytest::ReadAll(path);
  kytest::Put32(image, static_cast<size_t>(damaged), 0);  // no header magic
  kytest::WriteAll(path, image);
  ASSERT_NE(nullptr, Reopen());
  auto s = Open("S");
  long long cursor = 0;
  Hold(s->OpenStreamFirst(&cursor, kModeReadShared));
  EXPECT_EQ(nullptr, s->OpenStreamNext(&cursor, kModeReadShared));
  EXPECT_LT(cursor, s->GetLength());  // ended early: damage, not the end
  auto t = Open("T", kModeReadWriteShared);
  EXPECT_FALSE(s->CopyFolder(t.get()));
  EXPECT_EQ("a", Text(OpenIn(t, "a")));  // what came before the damage is copied
  EXPECT_EQ(std::vector<std::string>{"a"}, ChildNames(t));
  // A walk to the end leaves the cursor at the end of the data.
  for (kyStream* c = t->OpenStreamFirst(&cursor, kModeReadShared); c != nullptr;
       c = t->OpenStreamNext(&cursor, kModeReadShared))
    c->Release();
  EXPECT_EQ(t->GetLength(), cursor);
}

INSTANTIATE_TEST_SUITE_P(Widths, CopyGuardTest, ::testing::Bool());

}  // namespace
