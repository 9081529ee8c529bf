// The recording buffer format: the exact bytes of every record kind, reading
// them back, and PopOp refusing malformed or cut records with and without
// exceptions switched on.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/test_access.h"

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes Data(CCompRecorder& r) {
  unsigned char* p = kyTestAccess::Buffer(&r);
  return p ? Bytes(p, p + r.GetDataLength()) : Bytes();
}

unsigned char* U(const char* s) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}

Bytes Push(RecOpEnum op, const char* name, const char* data, DWORD n) {
  CCompRecorder r;
  kyTestAccess::PushOp(&r, op, name, data ? U(data) : nullptr, n);
  EXPECT_EQ(r.HasBeenStopped(), 0);
  return Data(r);
}

struct RecordCase {
  const char* what;
  RecOpEnum op;
  const char* name;
  const char* data;
  DWORD n;
  Bytes bytes;
};

TEST(RecorderRecords, EveryKindHasItsExactBytes) {
  const RecordCase cases[] = {
      {"enter folder", RecOpEnter, "Cfg", nullptr, 1, {1, 3, 0, 'C', 'f', 'g', 1}},
      {"enter stream", RecOpEnter, "W", nullptr, 0, {1, 1, 0, 'W', 0}},
      {"fast enter, low byte of flag",
       RecOpEnterFast,
       "ab",
       nullptr,
       0x301,
       {2, 2, 0, 'a', 'b', 1}},
      {"leave ignores its name", RecOpLeave, "ignored", "x", 1, {3}},
      {"remove", RecOpRemove, "Old", nullptr, 7, {4, 3, 0, 'O', 'l', 'd'}},
      {"remove of empty name", RecOpRemove, "", nullptr, 0, {4, 0, 0}},
      {"write 10", RecOpWrite, "10", "xyz", 3, {5, 1, 0, 3, 0, 0, 0, 'x', 'y', 'z'}},
      {"write 01", RecOpWrite, "01", "q", 1, {5, 0, 1, 1, 0, 0, 0, 'q'}},
      {"write 11 empty", RecOpWrite, "11", "", 0, {5, 1, 1, 0, 0, 0, 0}},
      {"write flag text too short", RecOpWrite, "1", "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}},
      {"write flag text too long", RecOpWrite, "111", "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}},
      {"write without flag text", RecOpWrite, nullptr, "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}},
      {"append with prefix", RecOpAppend, "1", "ab", 2, {6, 1, 2, 0, 0, 0, 'a', 'b'}},
      {"append without prefix", RecOpAppend, "0", "ab", 2, {6, 0, 2, 0, 0, 0, 'a', 'b'}},
      {"append flag text too long", RecOpAppend, "10", "a", 1, {6, 0, 1, 0, 0, 0, 'a'}},
  };
  for (const RecordCase& c : cases) EXPECT_EQ(Push(c.op, c.name, c.data, c.n), c.bytes) << c.what;
}

TEST(RecorderRecords, LongDataLengthIsLittleEndian) {
  std::vector<unsigned char> data(0x10203, 0x5A);
  CCompRecorder r;
  kyTestAccess::PushOp(&r, RecOpAppend, "1", data.data(), 0x10203);
  Bytes d = Data(r);
  ASSERT_EQ(d.size(), 6u + 0x10203u);
  EXPECT_EQ(Bytes(d.begin(), d.begin() + 6), Bytes({6, 1, 0x03, 0x02, 0x01, 0x00}));
  EXPECT_EQ(d.back(), 0x5A);
}

TEST(RecorderRecords, PopOpReadsEveryKindBack) {
  CCompRecorder r;
  std::string name60(60, 'n');
  kyTestAccess::PushOp(&r, RecOpEnter, "Cfg", nullptr, 1);
  kyTestAccess::PushOp(&r, RecOpEnterFast, name60.c_str(), nullptr, 0xFF);
  kyTestAccess::PushOp(&r, RecOpWrite, "10", U("four"), 4);
  kyTestAccess::PushOp(&r, RecOpAppend, "1", U("ab"), 2);
  kyTestAccess::PushOp(&r, RecOpRemove, "Gone", nullptr, 0);
  kyTestAccess::PushOp(&r, RecOpLeave, nullptr, nullptr, 0);
  r.SeekToBegin();

  RecOpEnum op;
  char name[61];
  unsigned char* data = nullptr;
  DWORD n = 0;
  ASSERT_EQ(r.PopOp(&op, name, &data, &n), 1);
  EXPECT_EQ(op, RecOpEnter);
  EXPECT_STREQ(name, "Cfg");
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(data, nullptr);  // left unchanged

  ASSERT_EQ(r.PopOp(&op, name, &data, &n), 1);
  EXPECT_EQ(op, RecOpEnterFast);
  EXPECT_EQ(std::string(name), name60);
  EXPECT_EQ(n, 0xFFu);

  ASSERT_EQ(r.PopOp(&op, name, &data, &n), 1);
  EXPECT_EQ(op, RecOpWrite);
  EXPECT_STREQ(name, "10");
  EXPECT_EQ(n, 4u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(data), 4), "four");
  EXPECT_GE(data, kyTestAccess::Buffer(&r));  // in place, not a copy
  EXPECT_LT(data, kyTestAccess::Buffer(&r) + r.GetDataLength());

  ASSERT_EQ(r.PopOp(&op, name, &data, &n), 1);
  EXPECT_EQ(op, RecOpAppend);
  EXPECT_STREQ(name, "1");
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(data), 2), "ab");

  ASSERT_EQ(r.PopOp(&op, name, &data, &n), 1);
  EXPECT_EQ(op, RecOpRemove);
  EXPECT_STREQ(name, "Gone");

  strcpy(name, "stale");
  ASSERT_EQ(r.PopOp(&op, name, &data, &n), 1);
  EXPECT_EQ(op, RecOpLeave);
  EXPECT_STREQ(name, "");

  EXPECT_EQ(r.PopOp(&op, name, &data, &n), 0);
  r.ThrowExceptions(1);
  EXPECT_EQ(r.PopOp(&op, name, &data, &n), 0);
}

TEST(RecorderRecords, NonzeroFlagBytesReadAsOne) {
  unsigned char rec[] = {5, 7, 0, 0, 0, 0, 0, 6, 0x80, 0, 0, 0, 0};
  CCompRecorder r;
  r.Attach(rec, sizeof(rec), 0);
  RecOpEnum op;
  char name[61];
  unsigned char* data;
  DWORD n;
  ASSERT_EQ(r.PopOp(&op, name, &data, &n), 1);
  EXPECT_STREQ(name, "10");
  ASSERT_EQ(r.PopOp(&op, name, &data, &n), 1);
  EXPECT_STREQ(name, "1");
}

// Runs PopOp over `bytes` with exceptions off and on; returns the records
// read before the first 0 (the same in both modes, checked here).
int CountRecords(Bytes bytes) {
  int counts[2];
  for (int bThrow = 0; bThrow < 2; ++bThrow) {
    CCompRecorder r;
    r.Attach(bytes.data(), static_cast<unsigned int>(bytes.size()), 0);
    r.ThrowExceptions(bThrow);
    RecOpEnum op;
    char name[61];
    unsigned char* data;
    DWORD n;
    int count = 0;
    while (count < 100 && r.PopOp(&op, name, &data, &n)) ++count;
    counts[bThrow] = count;
  }
  EXPECT_EQ(counts[0], counts[1]);
  return counts[0];
}

TEST(RecorderRecords, NameLengthOf61IsRefused) {
  for (unsigned char kind : {1, 2, 4}) {
    Bytes ok = {kind, 60, 0};
    ok.insert(ok.end(), 60, 'a');
    if (kind != 4) ok.push_back(0);
    EXPECT_EQ(CountRecords(ok), 1) << int(kind);
    Bytes bad = {kind, 61, 0};
    bad.insert(bad.end(), 61, 'a');
    if (kind != 4) bad.push_back(0);
    EXPECT_EQ(CountRecords(bad), 0) << int(kind);
    EXPECT_EQ(CountRecords({kind, 0xFF, 0xFF, 'a'}), 0) << int(kind);
  }
}

TEST(RecorderRecords, DataLengthBeyondTheBufferIsRefused) {
  EXPECT_EQ(CountRecords({5, 0, 0, 3, 0, 0, 0, 'a', 'b', 'c'}), 1);
  EXPECT_EQ(CountRecords({5, 0, 0, 4, 0, 0, 0, 'a', 'b', 'c'}), 0);
  EXPECT_EQ(CountRecords({6, 1, 3, 0, 0, 0, 'a', 'b', 'c'}), 1);
  EXPECT_EQ(CountRecords({6, 1, 4, 0, 0, 0, 'a', 'b', 'c'}), 0);
  EXPECT_EQ(CountRecords({6, 1, 0xFF, 0xFF, 0xFF, 0xFF, 'a'}), 0);
  EXPECT_EQ(CountRecords({5, 1, 1, 0xFD, 0xFF, 0xFF, 0xFF, 'a'}), 0);
}

TEST(RecorderRecords, UnknownKindsAreRefusedAndLeaveTheKindOutput) {
  for (unsigned char kind : {0, 7, 0x80, 0xFF}) {
    EXPECT_EQ(CountRecords({kind, 0, 0, 0, 0, 0, 0}), 0) << int(kind);
    unsigned char rec[] = {kind, 0, 0};
    CCompRecorder r;
    r.Attach(rec, 3, 0);
    RecOpEnum op = RecOpLeave;
    char name[61] = "x";
    EXPECT_EQ(r.PopOp(&op, name, nullptr, nullptr), 0);
    EXPECT_EQ(op, RecOpLeave);
    EXPECT_STREQ(name, "");
  }
}

// One record of every kind; each cut inside a record leaves exactly the
// records before it readable.
TEST(RecorderRecords, EveryTruncationReadsOnlyTheCompleteRecords) {
  CCompRecorder r;
  kyTestAccess::PushOp(&r, RecOpEnter, "Root", nullptr, 1);
  kyTestAccess::PushOp(&r, RecOpEnterFast, "Fast", nullptr, 1);
  kyTestAccess::PushOp(&r, RecOpRemove, "Rm", nullptr, 0);
  kyTestAccess::PushOp(&r, RecOpWrite, "11", U("data"), 4);
  kyTestAccess::PushOp(&r, RecOpAppend, "0", U("more"), 4);
  kyTestAccess::PushOp(&r, RecOpLeave, nullptr, nullptr, 0);
  Bytes all = Data(r);
  const size_t ends[] = {8, 16, 21, 32, 42, 43};
  ASSERT_EQ(all.size(), ends[5]);
  for (size_t cut = 0; cut <= all.size(); ++cut) {
    int complete = 0;
    while (complete < 6 && ends[complete] <= cut) ++complete;
    EXPECT_EQ(CountRecords(Bytes(all.begin(), all.begin() + cut)), complete) << cut;
  }
}

TEST(RecorderRecords, NamesTheReaderWouldRefuseStopTheRecording) {
  std::string name61(61, 'x');
  for (RecOpEnum op : {RecOpEnter, RecOpEnterFast, RecOpRemove}) {
    CCompRecorder r;
    kyTestAccess::PushOp(&r, op, name61.c_str(), nullptr, 0);
    EXPECT_EQ(r.HasBeenStopped(), 1);
    EXPECT_EQ(r.GetDataLength(), 0u);
  }
}

TEST(RecorderRecords, MissingDataStopsTheRecording) {
  CCompRecorder r;
  kyTestAccess::PushOp(&r, RecOpWrite, "00", nullptr, 3);
  EXPECT_EQ(r.HasBeenStopped(), 1);
  EXPECT_EQ(r.GetDataLength(), 0u);
}

TEST(RecorderRecords, AStoppedRecorderRecordsNothing) {
  CCompRecorder r;
  kyTestAccess::PushOp(&r, RecOpLeave, nullptr, nullptr, 0);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", nullptr, 3);  // stops
  kyTestAccess::PushOp(&r, RecOpLeave, nullptr, nullptr, 0);
  kyTestAccess::PushOp(&r, RecOpAppend, "1", U("abc"), 3);
  EXPECT_EQ(Data(r), Bytes({3}));
}

TEST(RecorderRecords, ARecordGrowsTheBufferAsItsPiecesWould) {
  CCompRecorder r;
  std::vector<unsigned char> fill(4090, 0);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", fill.data(), 4090 - 7);  // exactly 4090 bytes
  EXPECT_EQ(r.GetLength(), 4096u);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", fill.data(), 3);  // head crosses the end
  EXPECT_EQ(r.GetLength(), 8192u);
  EXPECT_EQ(r.GetDataLength(), 4100u);
  std::vector<unsigned char> big(10000, 1);
  kyTestAccess::PushOp(&r, RecOpAppend, "1", big.data(), 10000);
  // The 6-byte head fits; the 10000-byte piece grows the buffer by itself.
  EXPECT_EQ(r.GetLength(), 8192u + 10000u);
  EXPECT_EQ(r.GetDataLength(), 4100u + 6u + 10000u);
}

TEST(RecorderRecords, ARecordThatCannotFitLeavesNoPartBehind) {
  CCompRecorder r;
  kyTestAccess::PushOp(&r, RecOpLeave, nullptr, nullptr, 0);
  kyTestAccess::SetBufferPos(&r, 0xFFFFFFF0u);
  std::vector<unsigned char> data(32, 1);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", data.data(), 32);
  EXPECT_EQ(r.HasBeenStopped(), 1);
  EXPECT_EQ(r.GetDataLength(), 1u);
  EXPECT_EQ(r.GetLength(), 4096u);
  EXPECT_EQ(r.GetBufferPos(), 0xFFFFFFF0u);
}

}  // namespace
