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

struct RecordCase {
  RecOpEnum op;
  const char* name;
  const char* data;
  DWORD n;
  Bytes bytes;
};

TEST(RecorderRecords, EveryKindHasItsExactBytes) {
  const RecordCase cases[] = {
      {RecOpEnter, "Cfg", nullptr, 1, {1, 3, 0, 'C', 'f', 'g', 1}},
      {RecOpEnter, "W", nullptr, 0, {1, 1, 0, 'W', 0}},
      {RecOpEnterFast, "ab", nullptr, 0x301, {2, 2, 0, 'a', 'b', 1}},  // low byte of the flag
      {RecOpLeave, "ignored", "x", 1, {3}},
      {RecOpRemove, "Old", nullptr, 7, {4, 3, 0, 'O', 'l', 'd'}},
      {RecOpRemove, "", nullptr, 0, {4, 0, 0}},
      {RecOpWrite, "10", "xyz", 3, {5, 1, 0, 3, 0, 0, 0, 'x', 'y', 'z'}},
      {RecOpWrite, "01", "q", 1, {5, 0, 1, 1, 0, 0, 0, 'q'}},
      {RecOpWrite, "11", "", 0, {5, 1, 1, 0, 0, 0, 0}},
      {RecOpWrite, "1", "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}},  // flag text too short
      {RecOpWrite, "111", "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}},
      {RecOpWrite, nullptr, "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}},
      {RecOpAppend, "1", "ab", 2, {6, 1, 2, 0, 0, 0, 'a', 'b'}},
      {RecOpAppend, "0", "ab", 2, {6, 0, 2, 0, 0, 0, 'a', 'b'}},
      {RecOpAppend, "10", "a", 1, {6, 0, 1, 0, 0, 0, 'a'}},
  };
  for (const RecordCase& c : cases) {
    SCOPED_TRACE(testing::Message() << c.op << " " << (c.name ? c.name : "null"));
    CCompRecorder r;
    kyTestAccess::PushOp(&r, c.op, c.name, c.data ? U(c.data) : nullptr, c.n);
    EXPECT_EQ(r.HasBeenStopped(), 0);
    EXPECT_EQ(Data(r), c.bytes);
  }
  std::vector<unsigned char> data(0x10203, 0x5A);
  CCompRecorder r;
  kyTestAccess::PushOp(&r, RecOpAppend, "1", data.data(), 0x10203);
  Bytes d = Data(r);
  ASSERT_EQ(d.size(), 6u + 0x10203u);
  EXPECT_EQ(Bytes(d.begin(), d.begin() + 6), Bytes({6, 1, 0x03, 0x02, 0x01, 0x00}));
}

TEST(RecorderRecords, PopOpReadsEveryKindBack) {
  const std::string name60(60, 'n');
  const RecordCase cases[] = {
      {RecOpEnter, "Cfg", nullptr, 1, {}},   {RecOpEnterFast, name60.c_str(), nullptr, 0xFF, {}},
      {RecOpWrite, "10", "four", 4, {}},     {RecOpAppend, "1", "ab", 2, {}},
      {RecOpRemove, "Gone", nullptr, 0, {}}, {RecOpLeave, "", nullptr, 0, {}},
  };
  CCompRecorder r;
  for (const RecordCase& c : cases)
    kyTestAccess::PushOp(&r, c.op, c.name, c.data ? U(c.data) : nullptr, c.n);
  r.SeekToBegin();
  for (const RecordCase& c : cases) {
    SCOPED_TRACE(c.op);
    RecOpEnum op;
    char name[61] = "stale";
    unsigned char* data = nullptr;
    DWORD n = 0;
    ASSERT_EQ(r.PopOp(&op, name, &data, &n), 1);
    EXPECT_EQ(op, c.op);
    EXPECT_STREQ(name, c.name);
    if (c.op == RecOpRemove || c.op == RecOpLeave) continue;
    EXPECT_EQ(n, c.n);
    if (c.data == nullptr) {
      EXPECT_EQ(data, nullptr);  // left unchanged
    } else {
      EXPECT_EQ(std::string(reinterpret_cast<char*>(data), n), c.data);
      EXPECT_GE(data, kyTestAccess::Buffer(&r));  // in place, not a copy
      EXPECT_LT(data, kyTestAccess::Buffer(&r) + r.GetDataLength());
    }
  }
  RecOpEnum op;
  char name[61];
  unsigned char* data;
  DWORD n;
  EXPECT_EQ(r.PopOp(&op, name, &data, &n), 0);
  r.ThrowExceptions(1);
  EXPECT_EQ(r.PopOp(&op, name, &data, &n), 0);
  // Nonzero flag bytes read as one.
  unsigned char rec[] = {5, 7, 0, 0, 0, 0, 0, 6, 0x80, 0, 0, 0, 0};
  r.Attach(rec, sizeof(rec), 0);
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

TEST(RecorderRecords, MalformedRecordsAreRefused) {
  for (unsigned char kind : {1, 2, 4}) {  // names up to 60 characters
    SCOPED_TRACE(int(kind));
    for (unsigned char length : {60, 61}) {
      Bytes rec = {kind, length, 0};
      rec.insert(rec.end(), length, 'a');
      if (kind != 4) rec.push_back(0);
      EXPECT_EQ(CountRecords(rec), length == 60 ? 1 : 0);
    }
    EXPECT_EQ(CountRecords({kind, 0xFF, 0xFF, 'a'}), 0);
  }
  // Data lengths that reach beyond the buffer.
  EXPECT_EQ(CountRecords({5, 0, 0, 3, 0, 0, 0, 'a', 'b', 'c'}), 1);
  EXPECT_EQ(CountRecords({5, 0, 0, 4, 0, 0, 0, 'a', 'b', 'c'}), 0);
  EXPECT_EQ(CountRecords({6, 1, 3, 0, 0, 0, 'a', 'b', 'c'}), 1);
  EXPECT_EQ(CountRecords({6, 1, 4, 0, 0, 0, 'a', 'b', 'c'}), 0);
  EXPECT_EQ(CountRecords({6, 1, 0xFF, 0xFF, 0xFF, 0xFF, 'a'}), 0);
  EXPECT_EQ(CountRecords({5, 1, 1, 0xFD, 0xFF, 0xFF, 0xFF, 'a'}), 0);
  // Unknown kinds are handed out as read, with 0 and an empty name.
  for (unsigned char kind : {0, 7, 0x80, 0xFF}) {
    EXPECT_EQ(CountRecords({kind, 0, 0, 0, 0, 0, 0}), 0) << int(kind);
    unsigned char rec[] = {kind, 0, 0};
    CCompRecorder r;
    r.Attach(rec, 3, 0);
    RecOpEnum op = RecOpLeave;
    char name[61] = "x";
    EXPECT_EQ(r.PopOp(&op, name, nullptr, nullptr), 0);
    EXPECT_EQ(static_cast<int>(op), kind);
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

// Records the reader would refuse stop the recording instead; a stopped
// recorder records nothing more.
TEST(RecorderRecords, UnreadableRecordsStopTheRecording) {
  const std::string name61(61, 'x');
  for (RecOpEnum op : {RecOpEnter, RecOpEnterFast, RecOpRemove, RecOpWrite}) {
    SCOPED_TRACE(op);
    CCompRecorder r;
    kyTestAccess::PushOp(&r, RecOpLeave, nullptr, nullptr, 0);
    if (op == RecOpWrite)
      kyTestAccess::PushOp(&r, op, "00", nullptr, 3);  // missing data
    else
      kyTestAccess::PushOp(&r, op, name61.c_str(), nullptr, 0);
    EXPECT_EQ(r.HasBeenStopped(), 1);
    kyTestAccess::PushOp(&r, RecOpLeave, nullptr, nullptr, 0);
    kyTestAccess::PushOp(&r, RecOpAppend, "1", U("abc"), 3);
    EXPECT_EQ(Data(r), Bytes({3}));
  }
}

TEST(RecorderRecords, ARecordGrowsTheBufferAsItsPiecesWould) {
  CCompRecorder r;
  std::vector<unsigned char> fill(10000, 1);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", fill.data(), 4090 - 7);  // exactly 4090 bytes
  EXPECT_EQ(r.GetLength(), 4096u);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", fill.data(), 3);  // head crosses the end
  EXPECT_EQ(r.GetLength(), 8192u);
  EXPECT_EQ(r.GetDataLength(), 4100u);
  // The 6-byte head fits; the 10000-byte piece grows the buffer by itself.
  kyTestAccess::PushOp(&r, RecOpAppend, "1", fill.data(), 10000);
  EXPECT_EQ(r.GetLength(), 8192u + 10000u);
  EXPECT_EQ(r.GetDataLength(), 4100u + 6u + 10000u);
  // A record that cannot fit leaves no part behind.
  kyTestAccess::SetBufferPos(&r, 0xFFFFFFF0u);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", fill.data(), 32);
  EXPECT_EQ(r.HasBeenStopped(), 1);
  EXPECT_EQ(r.GetDataLength(), 4100u + 6u + 10000u);
  EXPECT_EQ(r.GetLength(), 8192u + 10000u);
  EXPECT_EQ(r.GetBufferPos(), 0xFFFFFFF0u);
}

}  // namespace
