// Switching a storage's recording on and off, and what StopRecording hands
// back: the recorder with its data, or the recorder emptied when the
// recording was stopped or left streams entered.

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "support/root_fixture.h"

namespace {

using namespace kytest;

typedef std::vector<unsigned char> Data;

class RecordingSwitch : public RootTest {
 protected:
  void SetUp() override {
    RootTest::SetUp();
    Make();
    ASSERT_EQ(storage->StopRecording(), nullptr);  // nothing to stop yet
    ASSERT_EQ(storage->StartRecording(), 1);
  }
  CCompRecorder* Recorder() { return kyTestAccess::Recorder(storage); }
  // Stops the recording; the recorder's bytes, or none without a buffer.
  Data Stop() {
    std::unique_ptr<CCompRecorder> got(storage->StopRecording());
    EXPECT_NE(got, nullptr);
    EXPECT_EQ(Recorder(), nullptr);
    const unsigned char* p = got ? kyTestAccess::Buffer(got.get()) : nullptr;
    return p ? Data(p, p + got->GetDataLength()) : Data();
  }
  int streamA = 0;  // stands for a stream object; only its identity counts
  int streamB = 0;
};

TEST_P(RecordingSwitch, StartTwiceKeepsTheFirstRecorderAndItsData) {
  CCompRecorder* first = Recorder();
  EXPECT_EQ(kyTestAccess::GrowBy(first), 4096u);
  first->OpEnterFast("A", 1, &streamA);
  EXPECT_EQ(storage->StartRecording(), 1);
  EXPECT_EQ(Recorder(), first);
  first->OpLeave(&streamA);
  first->OpRemove("Old", nullptr);
  EXPECT_EQ(Stop(), Data({2, 1, 0, 'A', 1, 3, 4, 3, 0, 'O', 'l', 'd'}));
  EXPECT_EQ(storage->StopRecording(), nullptr);  // a second stop
}

// A recording that was stopped, or that leaves a stream entered, comes
// back empty.
TEST_P(RecordingSwitch, StoppedOrUnbalancedRecordingsComeBackEmpty) {
  Recorder()->OpEnterFast("A", 0, &streamA);
  Recorder()->OpEnterFast("B", 0, &streamB);  // stops: a stream is entered
  Recorder()->OpLeave(&streamA);
  ASSERT_EQ(Recorder()->HasBeenStopped(), 1);
  ASSERT_EQ(Recorder()->GetStmDepth(), 0);
  EXPECT_EQ(Stop(), Data());
  ASSERT_EQ(storage->StartRecording(), 1);
  Recorder()->OpEnterFast("A", 0, &streamA);  // never left
  EXPECT_EQ(Stop(), Data());
  // With a real stream still open; its release records nowhere.
  ASSERT_EQ(storage->StartRecording(), 1);
  kyStream* s = storage->OpenOrCreateStreamFast("Open", 0);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(Stop(), Data());
  s->Release();
}

TEST_P(RecordingSwitch, AStorageReleasedWhileRecordingDeletesItsRecorder) {
  Recorder()->OpRemove("X", nullptr);
  storage->Release();  // the sanitizers' leak check catches a lost recorder
  storage = nullptr;
}

// Real streams of the storage: a write two levels below a root folder, the
// streams released innermost first, as the seven records of a balanced
// recording; a fast open and its release as a fast enter and a leave.
TEST_P(RecordingSwitch, StreamsOfTheStorageRecordTheirChainAndReleases) {
  delete storage->StopRecording();
  kyStream* root = storage->CreateStream("R", 1, kRW);
  kyStream* folder = root->CreateStream("F", 1, kRW, 1);
  kyStream* entry = folder->CreateStream("E", 0, kRW, 1);
  ASSERT_NE(entry, nullptr);
  ASSERT_EQ(storage->StartRecording(), 1);
  unsigned char value[4] = {0x80, 2, 0, 0};
  Recorder()->OpWrite(value, 4, 0, entry, 1);
  for (kyStream* s : {entry, folder, root}) s->Release();
  EXPECT_EQ(Stop(), Data({1, 1, 0, 'R', 1, 1, 1, 0,    'F', 1, 1, 1, 0, 'E', 0,
                          5, 0, 1, 4,   0, 0, 0, 0x80, 2,   0, 0, 3, 3, 3}));
  ASSERT_EQ(storage->StartRecording(), 1);
  kyStream* s = storage->OpenOrCreateStreamFast("10000000", 1);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(-1, s->Release());  // created, never opened: still leaves
  EXPECT_EQ(Stop(), Data({2, 8, 0, '1', '0', '0', '0', '0', '0', '0', '0', 1, 3}));
}

INSTANTIATE_TEST_SUITE_P(OffsetWidths, RecordingSwitch, ::testing::Bool(), RootWidthName);

}  // namespace
