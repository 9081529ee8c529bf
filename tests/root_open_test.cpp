// Opening root streams, a root folder's count, and the open-stream registry.

#include <functional>
#include <string>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

class RootOpenTest : public RootTest {};

TEST_P(RootOpenTest, ByNameFastMapAndLocator) {
  Make();
  kyStream* empty = Must(storage->OpenStreamFirst(kRO));  // the first ordinary slot
  EXPECT_EQ(Slot(32, 6), HeaderOffset(empty));
  EXPECT_EQ(0, empty->Release());  // an empty name is never registered
  Add("fast", 0, true);
  Add("ordinary");
  for (int how = 0; how < 3; ++how) {  // from the file, in memory, OpenFast
    Reopen(kRO, how);
    kyStream* f = Must(storage->OpenStreamFast("fast", kRO));
    EXPECT_EQ(Slot(32, 0), HeaderOffset(f));
    EXPECT_EQ(kRO, kyTestAccess::OpenMode(f));
    EXPECT_EQ(1, f->Release());
    EXPECT_FALSE(storage->OpenStreamFast("ordinary", kRO) || storage->OpenStream(nullptr, kRO));
    for (const char* name : {"ordinary", "fast"})  // no name map after OpenFast
      EXPECT_EQ(how != 2, Hold(storage->OpenStream(name, kRO)) != nullptr) << how << name;
    EXPECT_EQ(0, Records());
  }
  EXPECT_STREQ("ordinary", Hold(Must(Reopen(kRW)->OpenStreamFirst(kRO)))->GetName());
  // A damaged header or a bad locator opens and registers nothing.
  tag_kyStreamOffset where = Locator("ordinary");
  Bytes img = ReadAll(path);
  Put32(img, where.headerOffset, 0xFCFCFC00);
  WriteAll(path, img);
  EXPECT_EQ(nullptr, storage->OpenStream("ordinary", kRO));
  for (int64_t at : {Size() + 10, Size() - 10, int64_t{0}}) {
    where.headerOffset = at;
    EXPECT_EQ(nullptr, storage->OpenStreamByOffset(where, "a", kRO)) << at;
  }
  EXPECT_EQ(0, Records());
}

// The count is read from the folder's data, moving nothing an open would not.
TEST_P(RootOpenTest, SubfolderCount) {
  kyStorage* s = Make();
  Add("folder", 1);
  Add("data");
  const DWORD three = 3;
  for (const char* name : {"folder", "data"})
    ASSERT_EQ(4, Hold(OpenRoot(name, kRW))->Write(&three, 4));
  EXPECT_EQ(3u, s->GetSubfolderCount("folder"));
  EXPECT_EQ(0u, s->GetSubfolderCount("data"));  // not a folder
  auto held = Hold(OpenRoot("folder", 0x36));
  EXPECT_EQ(0u, s->GetSubfolderCount("folder"));  // cannot be opened
  held.reset();
  s = Reopen(kRO);
  auto positionAfter = [s](const std::function<void()>& call) {
    kyTestAccess::SetFilePointer(s, 7, FILE_BEGIN);
    call();
    return kyTestAccess::SetFilePointer(s, 0, FILE_CURRENT);
  };
  const int64_t opened = positionAfter([s] { Hold(s->OpenStream("folder", kRO)); });
  EXPECT_EQ(opened, positionAfter([s] { EXPECT_EQ(3u, s->GetSubfolderCount("folder")); }));
  EXPECT_EQ(3u, Reopen(kRO, 1)->GetSubfolderCount("folder"));
}

TEST_P(RootOpenTest, AdmissionRule) {
  Make();
  Add("data");
  const struct {
    DWORD held, asked;
    bool admitted;
  } cases[] = {
      {0x36, 0x02, false}, {0x36, 0x12, false}, {0x36, 0x16, false}, {0x36, 0x36, false},
      {0x0A, 0x12, false}, {0x0A, 0x16, false}, {0x0A, 0x2A, false}, {0x0A, 0x02, true},
      {0x0A, 0x0A, true},  {0x16, 0x36, true},  {0x16, 0x12, true},  {0x12, 0x36, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.held << " then " << c.asked);
    auto holder = Hold(OpenRoot("data", c.held));
    kyStream* second = storage->OpenStream("data", c.asked);
    EXPECT_EQ(c.admitted, second != nullptr);
    EXPECT_EQ(1, Records());  // opens of one name share a record
    const t_OpenStream* record = kyTestAccess::IsStreamOpen(storage, "data");
    EXPECT_EQ(c.admitted ? 2 : 1, record->m_nCount);
    EXPECT_EQ(c.held, record->m_dwMode);  // later opens never change it
    EXPECT_EQ(c.admitted ? 2 : 0, second ? second->Release() : 0);
  }
  // The record keeps the first mode: an exclusive open admitted after a
  // shared one keeps no third out.
  kyStream* holder = OpenRoot("data", 0x16);
  kyStream* exclusive = OpenRoot("data", 0x36);
  EXPECT_EQ(3, OpenRoot("data", 0x12)->Release());
  EXPECT_EQ(2, exclusive->Release());
  EXPECT_EQ(1, holder->Release());
  EXPECT_EQ(-1, kyTestAccess::CloseStream(storage, "data"));
  // A refused open reads nothing: the shared position stays.
  auto excl = Hold(OpenRoot("data", 0x36));
  ASSERT_EQ(5, kyTestAccess::SetFilePointer(storage, 5, FILE_BEGIN));
  EXPECT_EQ(nullptr, storage->OpenStream("data", 0x12));
  EXPECT_EQ(5, kyTestAccess::SetFilePointer(storage, 0, FILE_CURRENT));
  void* cursor = nullptr;  // the map walk meets the held stream and stops
  EXPECT_EQ(nullptr, storage->OpenStreamFirst(cursor, 0x12));
}

TEST_P(RootOpenTest, CreatedRootsAndEmptyNamesAreNotRegistered) {
  Make();
  kyStream* created = New("fresh", 1);
  EXPECT_EQ(nullptr, kyTestAccess::IsStreamOpen(storage, "fresh"));
  EXPECT_EQ(1, OpenRoot("fresh")->Release());
  EXPECT_EQ(1, Must(created->CreateStream("child", 0, kRW, 1))->Release());
  EXPECT_EQ(nullptr, created->IsStreamOpen("child"));
  EXPECT_EQ(0, Records());
  EXPECT_EQ(-1, created->Release());
  // Slot 7 is free: exclusive opens of it by locator are not registered.
  tag_kyStreamOffset where = Locator("fresh");
  where.headerOffset = Slot(32, 7);
  kyStream* empty = Must(storage->OpenStreamByOffset(where, "", 0x36));
  kyStream* another = Must(storage->OpenStreamByOffset(where, "", 0x36));
  EXPECT_EQ(0, Records());
  EXPECT_EQ(0, another->Release());
  EXPECT_EQ(0, empty->Release());
  EXPECT_EQ(nullptr, storage->OpenStreamByOffset(where, nullptr, 0x12));
  // The creating object holds no open: it may not remove or rename the
  // stream while another object has it open, and its Release closes nothing.
  kyStream* made = New("made");
  kyStream* reader = OpenRoot("made");
  EXPECT_FALSE(made->Remove());
  EXPECT_FALSE(made->Rename("other"));
  EXPECT_EQ(-1, made->Release());
  EXPECT_NE(nullptr, kyTestAccess::IsStreamOpen(storage, "made"));
  EXPECT_EQ(1, reader->Release());
}

INSTANTIATE_TEST_SUITE_P(Widths, RootOpenTest, ::testing::Bool(), WidthName);

}  // namespace
