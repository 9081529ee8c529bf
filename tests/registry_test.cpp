// The open-stream registry: counting opens, the admission rule, and what
// kyStream::Release reports.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kystore.h"
#include "platform/win_file.h"
#include "support/test_access.h"
#include "support/test_util.h"

namespace {

class RegistryTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    kyStorage::g_bUse64BitOffsets = GetParam() ? 1 : 0;
    path = dir.File("reg.kys");
    storage = kyStorage::Create(path.c_str(), kModeReadWriteShared, 64);
    ASSERT_NE(nullptr, storage);
    kyStream* s = storage->CreateStream("data", kModeReadWriteShared);
    ASSERT_NE(nullptr, s);
    s->Release();
  }
  void TearDown() override {
    if (storage) storage->Release();
  }
  t_OpenStream* Record(const char* name) { return kyTestAccess::IsStreamOpen(storage, name); }
  int Records() { return kyTestAccess::Registry(storage).GetCount(); }

  kytest::GlobalsGuard globals;
  kytest::TempDir dir;
  std::string path;
  kyStorage* storage = nullptr;
};

TEST_P(RegistryTest, RecordsCountOpensOfOneName) {
  EXPECT_EQ(-1, kyTestAccess::CloseStream(storage, "never"));
  t_OpenStream* a = kyTestAccess::AddNewOpenStream(storage, "x", 0x12);
  t_OpenStream* b = kyTestAccess::AddNewOpenStream(storage, "x", 0x16);  // as GoNext may do
  ASSERT_NE(nullptr, a);
  EXPECT_EQ(1, a->m_nCount);
  EXPECT_EQ(0x12u, a->m_dwMode);
  EXPECT_EQ(a, Record("x"));  // the older record is found first
  EXPECT_EQ(nullptr, Record("X"));
  EXPECT_EQ(1, kyTestAccess::CloseStream(storage, "x"));
  EXPECT_EQ(b, Record("x"));
  EXPECT_EQ(1, kyTestAccess::CloseStream(storage, "x"));
  EXPECT_EQ(nullptr, Record("x"));
  EXPECT_EQ(-1, kyTestAccess::CloseStream(storage, "x"));
}

TEST_P(RegistryTest, TwoOpensShareOneRecord) {
  kyStream* first = storage->OpenStream("data", 0x16);
  kyStream* second = storage->OpenStream("data", 0x16);
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);
  EXPECT_NE(first, second);
  EXPECT_EQ(1, Records());
  EXPECT_EQ(2, Record("data")->m_nCount);
  EXPECT_EQ(0x16u, kyTestAccess::OpenMode(first));
  EXPECT_EQ(2, first->Release());
  EXPECT_EQ(1, second->Release());
  EXPECT_EQ(0, Records());
}

TEST_P(RegistryTest, CreatedStreamIsNotRegistered) {
  kyStream* created = storage->CreateStream("fresh", kModeReadWriteShared);
  ASSERT_NE(nullptr, created);
  EXPECT_EQ(nullptr, Record("fresh"));
  kyStream* opened = storage->OpenStream("fresh", 0x12);
  ASSERT_NE(nullptr, opened);
  EXPECT_EQ(1, opened->Release());
  EXPECT_EQ(-1, created->Release());
}

struct AdmissionCase {
  DWORD held;
  DWORD asked;
  bool admitted;
};

TEST_P(RegistryTest, AdmissionRule) {
  const AdmissionCase cases[] = {
      {0x36, 0x02, false}, {0x36, 0x12, false}, {0x36, 0x16, false}, {0x36, 0x36, false},
      {0x0A, 0x12, false}, {0x0A, 0x16, false}, {0x0A, 0x2A, false}, {0x0A, 0x02, true},
      {0x0A, 0x0A, true},  {0x16, 0x36, true},  {0x16, 0x12, true},  {0x12, 0x36, true},
  };
  for (const AdmissionCase& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.held << " then " << c.asked);
    kyStream* holder = storage->OpenStream("data", c.held);
    ASSERT_NE(nullptr, holder);
    kyStream* second = storage->OpenStream("data", c.asked);
    EXPECT_EQ(c.admitted, second != nullptr);
    EXPECT_EQ(c.admitted ? 2 : 1, Record("data")->m_nCount);
    EXPECT_EQ(c.held, Record("data")->m_dwMode);  // later opens never change it
    if (second) {
      EXPECT_EQ(2, second->Release());
    }
    EXPECT_EQ(1, holder->Release());
  }
  // Once released, an exclusive holder no longer stands in the way.
  kyStream* again = storage->OpenStream("data", 0x36);
  ASSERT_NE(nullptr, again);
  EXPECT_EQ(1, again->Release());
}

TEST_P(RegistryTest, ExclusiveHolderAdmitsNothingThenAnything) {
  kyStream* holder = storage->OpenStream("data", 0x16);
  kyStream* exclusive = storage->OpenStream("data", 0x36);
  ASSERT_NE(nullptr, exclusive);
  kyStream* third = storage->OpenStream("data", 0x12);
  ASSERT_NE(nullptr, third);  // the record keeps 0x16
  EXPECT_EQ(3, Record("data")->m_nCount);
  EXPECT_EQ(3, third->Release());
  EXPECT_EQ(2, exclusive->Release());
  EXPECT_EQ(1, holder->Release());
}

TEST_P(RegistryTest, RefusedOpenReadsNothing) {
  kyStream* holder = storage->OpenStream("data", 0x36);
  ASSERT_NE(nullptr, holder);
  ASSERT_EQ(5, kyTestAccess::SetFilePointer(storage, 5, FILE_BEGIN));
  EXPECT_EQ(nullptr, storage->OpenStream("data", 0x12));
  EXPECT_EQ(5, kyTestAccess::SetFilePointer(storage, 0, FILE_CURRENT));
  // The map walk meets the held stream and stops there.
  void* cursor = nullptr;
  EXPECT_EQ(nullptr, storage->OpenStreamFirst(cursor, 0x12));
  EXPECT_EQ(1, holder->Release());
}

TEST_P(RegistryTest, EmptyNameIsNeverRegistered) {
  // The first ordinary slot is taken by "data"; slot 7 is free.
  tag_kyStreamOffset where;
  ASSERT_TRUE(kyTestAccess::FindStreamOffset(storage, "data", where));
  where.headerOffset += GetParam() ? 92 : 80;
  kyStream* empty = storage->OpenStreamByOffset(where, "", 0x36);
  ASSERT_NE(nullptr, empty);
  EXPECT_STREQ("", empty->GetName());
  EXPECT_EQ(0, Records());
  kyStream* another = storage->OpenStreamByOffset(where, "", 0x36);
  ASSERT_NE(nullptr, another);
  EXPECT_EQ(0, another->Release());
  EXPECT_EQ(0, empty->Release());
  EXPECT_EQ(nullptr, storage->OpenStreamByOffset(where, nullptr, 0x12));
}

TEST_P(RegistryTest, ReleaseLeavesTheRecorder) {
  ASSERT_EQ(1, storage->StartRecording());
  CCompRecorder* rec = kyTestAccess::Recorder(storage);
  kyStream* s = storage->OpenOrCreateStreamFast("entry", 0);
  ASSERT_NE(nullptr, s);
  EXPECT_EQ(1, rec->GetStmDepth());
  EXPECT_EQ(-1, s->Release());  // created, never opened
  EXPECT_EQ(0, rec->GetStmDepth());
  delete storage->StopRecording();
}

TEST_P(RegistryTest, ChildReleaseClosesOnTheParentsList) {
  kyStream* parent = storage->CreateStream("folder", 1, kModeReadWriteShared);
  ASSERT_NE(nullptr, parent);
  t_kyStreamU h;
  memset(&h, 0, sizeof(h));
  h.Magic() = kStreamHeaderMagic;
  strcpy(h.Name(), "child");
  t_OpenStream* rec = new t_OpenStream("child", 0x16);
  rec->m_nCount = 2;
  kyTestAccess::Children(parent).AddTail(rec);
  kyStream* a = kyTestAccess::MakeChildStream(parent, h, 1000);
  kyStream* b = kyTestAccess::MakeChildStream(parent, h, 1000);
  EXPECT_EQ(rec, parent->IsStreamOpen("child"));
  EXPECT_EQ(2, a->Release());
  EXPECT_EQ(1, b->Release());
  EXPECT_EQ(nullptr, parent->IsStreamOpen("child"));
  EXPECT_EQ(0, Records());  // nothing went to the storage's list
  EXPECT_EQ(-1, parent->Release());
}

INSTANTIATE_TEST_SUITE_P(Widths, RegistryTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& i) {
                           return i.param ? "Offsets64" : "Offsets32";
                         });

}  // namespace
