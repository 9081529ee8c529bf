// Switching a storage's recording on and off, and what StopRecording hands
// back: the recorder with its data, or the recorder emptied when the
// recording was stopped or left streams entered.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "support/test_access.h"
#include "support/test_util.h"

namespace {

struct StorageDeleter {
  void operator()(kyStorage* s) const { s->Release(); }
};

class RecordingSwitch : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    kytest::OffsetWidth width(GetParam());
    storage.reset(kyStorage::Create(dir.File("rec.kys").c_str(), 0x16, 4096));
    ASSERT_NE(storage, nullptr);
  }
  CCompRecorder* Recorder() { return kyTestAccess::Recorder(storage.get()); }

  kytest::TempDir dir;
  std::unique_ptr<kyStorage, StorageDeleter> storage;
  int streamA = 0;  // stands for a stream object; only its identity counts
  int streamB = 0;
};

TEST_P(RecordingSwitch, StopWithoutRecordingGivesNull) {
  EXPECT_EQ(storage->StopRecording(), nullptr);
}

TEST_P(RecordingSwitch, StartTwiceKeepsTheFirstRecorderAndItsData) {
  ASSERT_EQ(storage->StartRecording(), 1);
  CCompRecorder* first = Recorder();
  ASSERT_NE(first, nullptr);
  first->OpEnterFast("A", 0, &streamA);
  EXPECT_EQ(storage->StartRecording(), 1);
  EXPECT_EQ(Recorder(), first);
  EXPECT_EQ(first->GetDataLength(), 5u);
  first->OpLeave(&streamA);

  std::unique_ptr<CCompRecorder> got(storage->StopRecording());
  EXPECT_EQ(got.get(), first);
  EXPECT_EQ(Recorder(), nullptr);
  EXPECT_EQ(got->GetDataLength(), 6u);
  EXPECT_EQ(storage->StopRecording(), nullptr);  // a second stop
}

TEST_P(RecordingSwitch, ANewRecorderGrowsBy4096) {
  ASSERT_EQ(storage->StartRecording(), 1);
  EXPECT_EQ(kyTestAccess::GrowBy(Recorder()), 4096u);
  EXPECT_EQ(Recorder()->GetDataLength(), 0u);
  delete storage->StopRecording();
}

TEST_P(RecordingSwitch, ABalancedRecordingComesBackWithItsRecords) {
  ASSERT_EQ(storage->StartRecording(), 1);
  Recorder()->OpEnterFast("A", 1, &streamA);
  Recorder()->OpLeave(&streamA);
  Recorder()->OpRemove("Old", nullptr);
  std::unique_ptr<CCompRecorder> got(storage->StopRecording());
  ASSERT_NE(got, nullptr);
  unsigned int n = 0;
  unsigned char* data = got->Detach(&n);
  const unsigned char expected[] = {2, 1, 0, 'A', 1, 3, 4, 3, 0, 'O', 'l', 'd'};
  ASSERT_EQ(n, sizeof(expected));
  EXPECT_EQ(memcmp(data, expected, n), 0);
  CCompRecorder::Free(data);
}

TEST_P(RecordingSwitch, AStoppedRecordingComesBackEmpty) {
  ASSERT_EQ(storage->StartRecording(), 1);
  Recorder()->OpEnterFast("A", 0, &streamA);
  Recorder()->OpEnterFast("B", 0, &streamB);  // stops: a stream is entered
  Recorder()->OpLeave(&streamA);
  ASSERT_EQ(Recorder()->HasBeenStopped(), 1);
  ASSERT_EQ(Recorder()->GetStmDepth(), 0);
  std::unique_ptr<CCompRecorder> got(storage->StopRecording());
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->GetDataLength(), 0u);
  EXPECT_EQ(kyTestAccess::Buffer(got.get()), nullptr);
  EXPECT_EQ(Recorder(), nullptr);
}

TEST_P(RecordingSwitch, AnUnbalancedRecordingComesBackEmpty) {
  ASSERT_EQ(storage->StartRecording(), 1);
  Recorder()->OpEnterFast("A", 0, &streamA);  // never left
  std::unique_ptr<CCompRecorder> got(storage->StopRecording());
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->GetDataLength(), 0u);
  EXPECT_EQ(got->GetStmDepth(), 1);
}

TEST_P(RecordingSwitch, AStorageReleasedWhileRecordingDeletesItsRecorder) {
  ASSERT_EQ(storage->StartRecording(), 1);
  Recorder()->OpRemove("X", nullptr);
  storage.reset();  // the leak check of `make sanitize` catches a lost recorder
}

// Real streams of the storage: a write two levels below a root folder, the
// streams released innermost first, as the seven records of a balanced
// recording.
TEST_P(RecordingSwitch, StreamsOfTheStorageRecordTheirChainAndReleases) {
  kyStream* root = storage->CreateStream("R", 1, 0x16);
  ASSERT_NE(root, nullptr);
  kyStream* folder = root->CreateStream("F", 1, 0x16, 1);
  ASSERT_NE(folder, nullptr);
  kyStream* entry = folder->CreateStream("E", 0, 0x16, 1);
  ASSERT_NE(entry, nullptr);
  ASSERT_EQ(storage->StartRecording(), 1);
  unsigned char value[4] = {0x80, 2, 0, 0};
  Recorder()->OpWrite(value, 4, 0, entry, 1);
  entry->Release();
  folder->Release();
  root->Release();
  std::unique_ptr<CCompRecorder> got(storage->StopRecording());
  ASSERT_NE(got, nullptr);
  const unsigned char expected[] = {1, 1, 0, 'R', 1, 1, 1, 0,    'F', 1, 1, 1, 0, 'E', 0,
                                    5, 0, 1, 4,   0, 0, 0, 0x80, 2,   0, 0, 3, 3, 3};
  ASSERT_EQ(got->GetDataLength(), sizeof(expected));
  EXPECT_EQ(memcmp(kyTestAccess::Buffer(got.get()), expected, sizeof(expected)), 0);
}

TEST_P(RecordingSwitch, FastOpenAndReleaseRecordAFastEnterAndALeave) {
  ASSERT_EQ(storage->StartRecording(), 1);
  kyStream* s = storage->OpenOrCreateStreamFast("10000000", 1);
  ASSERT_NE(s, nullptr);
  s->Release();
  std::unique_ptr<CCompRecorder> got(storage->StopRecording());
  ASSERT_NE(got, nullptr);
  const unsigned char expected[] = {2, 8, 0, '1', '0', '0', '0', '0', '0', '0', '0', 1, 3};
  ASSERT_EQ(got->GetDataLength(), sizeof(expected));
  EXPECT_EQ(memcmp(kyTestAccess::Buffer(got.get()), expected, sizeof(expected)), 0);
}

TEST_P(RecordingSwitch, StoppingWhileAStreamIsOpenGivesAnEmptyRecorder) {
  ASSERT_EQ(storage->StartRecording(), 1);
  kyStream* s = storage->OpenOrCreateStreamFast("Open", 0);
  ASSERT_NE(s, nullptr);
  std::unique_ptr<CCompRecorder> got(storage->StopRecording());
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->GetDataLength(), 0u);
  s->Release();  // no recorder any more: nothing is recorded anywhere
  EXPECT_EQ(got->GetDataLength(), 0u);
}

INSTANTIATE_TEST_SUITE_P(OffsetWidths, RecordingSwitch, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& i) {
                           return i.param ? "Offsets64" : "Offsets32";
                         });

}  // namespace
