// The recorder as a growable byte buffer: growth steps, reads and the
// "Read error" exception, ownership through Attach, Detach, Empty, Clone and
// copy assignment.  Double frees and leaks show up under `make sanitize`.

#include <gtest/gtest.h>

#include <cstdlib>
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

unsigned char* MallocCopy(const char* text) {
  size_t n = strlen(text);
  unsigned char* p = static_cast<unsigned char*>(malloc(n));
  memcpy(p, text, n);
  return p;
}

void AddText(CCompRecorder& r, const char* text) {
  r.Add(reinterpret_cast<unsigned char*>(const_cast<char*>(text)),
        static_cast<unsigned int>(strlen(text)), 4096);
}

TEST(RecorderBuffer, NewRecorderIsEmptyAndGrowsByAtLeast4096) {
  CCompRecorder r(100);
  EXPECT_EQ(kyTestAccess::GrowBy(&r), 4096u);
  EXPECT_EQ(kyTestAccess::Buffer(&r), nullptr);
  EXPECT_EQ(r.GetLength(), 0u);
  EXPECT_EQ(r.GetDataLength(), 0u);
  EXPECT_EQ(r.GetBufferPos(), 0u);
  EXPECT_EQ(r.GetStmDepth(), 0);
  EXPECT_EQ(r.HasBeenStopped(), 0);
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&r), 1);
  CCompRecorder big(10000);
  EXPECT_EQ(kyTestAccess::GrowBy(&big), 10000u);
}

TEST(RecorderBuffer, GrowsBy4096OrByTheSizeOfALargerPiece) {
  CCompRecorder r;
  unsigned char one = 7;
  r.Add(&one, 1, 4096);
  EXPECT_EQ(r.GetLength(), 4096u);
  EXPECT_EQ(r.GetDataLength(), 1u);

  std::vector<unsigned char> fill(4095, 0xAB);
  r.Add(fill.data(), 4095, 4096);
  EXPECT_EQ(r.GetLength(), 4096u);  // exactly full, no growth yet

  std::vector<unsigned char> big(10000, 0xCD);
  r.Add(big.data(), 10000, 4096);
  EXPECT_EQ(r.GetLength(), 14096u);
  EXPECT_EQ(r.GetDataLength(), 14096u);

  r.Add(&one, 1, 4096);
  EXPECT_EQ(r.GetLength(), 14096u + 4096u);
  Bytes d = Data(r);
  EXPECT_EQ(d[0], 7);
  EXPECT_EQ(d[4095], 0xAB);
  EXPECT_EQ(d[4096], 0xCD);
  EXPECT_EQ(d[14095], 0xCD);
  EXPECT_EQ(d[14096], 7);
  EXPECT_EQ(r.HasBeenStopped(), 0);
}

TEST(RecorderBuffer, AddOfNothingAllocatesNothing) {
  CCompRecorder r;
  unsigned char b = 1;
  r.Add(nullptr, 5, 4096);
  r.Add(&b, 0, 4096);
  EXPECT_EQ(kyTestAccess::Buffer(&r), nullptr);
  EXPECT_EQ(r.GetLength(), 0u);
}

TEST(RecorderBuffer, AddWritesAtThePositionAndKeepsTheLongerDataLength) {
  CCompRecorder r;
  AddText(r, "abcdef");
  r.SeekToBegin();
  AddText(r, "XY");
  EXPECT_EQ(r.GetBufferPos(), 2u);
  EXPECT_EQ(r.GetDataLength(), 6u);
  Bytes d = Data(r);
  EXPECT_EQ(std::string(d.begin(), d.end()), "XYcdef");
}

TEST(RecorderBuffer, ExpandUsesTheGrowthStepAndRefusesToWrapTheLength) {
  CCompRecorder r(8192);
  EXPECT_EQ(r.Expand(0), 1);  // no buffer yet: 4096, then the step
  EXPECT_EQ(r.GetLength(), 4096u + 8192u);
  EXPECT_EQ(r.Expand(100), 1);
  EXPECT_EQ(r.GetLength(), 4096u + 8192u + 100u);
  EXPECT_EQ(r.Expand(0xFFFFFFFFu - 100), 0);
  EXPECT_EQ(r.GetLength(), 4096u + 8192u + 100u);
}

TEST(RecorderBuffer, AddThatCannotFitStopsAndWritesNothing) {
  CCompRecorder r;
  AddText(r, "abcd");
  kyTestAccess::SetBufferPos(&r, 0xFFFFFFFEu);  // position + n wraps 32 bits
  AddText(r, "xyz");
  EXPECT_EQ(r.HasBeenStopped(), 1);
  EXPECT_EQ(r.GetLength(), 4096u);
  EXPECT_EQ(r.GetDataLength(), 4u);
  Bytes d = Data(r);
  EXPECT_EQ(std::string(d.begin(), d.end()), "abcd");
}

TEST(RecorderBuffer, ReadCopiesAdvancesAndRefusesShortReads) {
  CCompRecorder r;
  AddText(r, "hello");
  r.SeekToBegin();
  unsigned char out[8] = {};
  EXPECT_EQ(r.Read(out, 2, 0), 1);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 2), "he");
  EXPECT_EQ(r.GetBufferPos(), 2u);
  EXPECT_EQ(r.Read(out, 4, 1), 0);  // 3 remain; not asked to throw
  EXPECT_EQ(r.GetBufferPos(), 2u);
  EXPECT_EQ(r.Read(out, 3, 0), 1);
  EXPECT_EQ(r.Read(out, 0, 1), 1);
  EXPECT_EQ(r.Read(out, 1, 0), 0);
}

TEST(RecorderBuffer, ReadThrowsReadErrorOnlyWhenBothFlagsAsk) {
  CCompRecorder r;
  AddText(r, "ab");
  r.SeekToBegin();
  unsigned char out[4];
  EXPECT_EQ(r.Read(out, 3, 1), 0);  // the recorder does not throw
  r.ThrowExceptions(1);
  EXPECT_EQ(r.Read(out, 3, 0), 0);  // the caller does not ask
  try {
    r.Read(out, 3, 1);
    FAIL() << "no exception";
  } catch (const CString& e) {
    EXPECT_EQ(e, CString("Read error"));
  }
  EXPECT_EQ(r.GetBufferPos(), 0u);
  r.ThrowExceptions(0);
  EXPECT_EQ(r.Read(out, 3, 1), 0);
}

TEST(RecorderBuffer, PeekByteAndPeekAllDoNotMove) {
  CCompRecorder r;
  unsigned char b = 0;
  unsigned int n = 99;
  EXPECT_EQ(r.PeekByte(b), 0);
  EXPECT_EQ(r.PeekAll(&n), nullptr);
  EXPECT_EQ(n, 0u);
  AddText(r, "xyz");
  r.SeekToBegin();
  unsigned char skip[3];
  ASSERT_EQ(r.Read(skip, 1, 0), 1);
  EXPECT_EQ(r.PeekByte(b), 1);
  EXPECT_EQ(b, 'y');
  EXPECT_EQ(r.PeekAll(&n), kyTestAccess::Buffer(&r) + 1);
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(r.GetBufferPos(), 1u);
  r.SeekToBegin();
  ASSERT_EQ(r.Read(skip, 3, 0), 1);
  EXPECT_EQ(r.PeekByte(b), 0);
}

TEST(RecorderBuffer, EmptyFreesAnOwnedBufferButKeepsABorrowedOne) {
  CCompRecorder owned;
  AddText(owned, "data");
  owned.Empty();
  EXPECT_EQ(kyTestAccess::Buffer(&owned), nullptr);
  EXPECT_EQ(owned.GetLength(), 0u);
  EXPECT_EQ(owned.GetDataLength(), 0u);
  EXPECT_EQ(owned.GetBufferPos(), 0u);

  unsigned char mine[6] = {'b', 'o', 'r', 'r', 'o', 'w'};
  CCompRecorder borrowed;
  borrowed.Attach(mine, 6, 0);
  unsigned char b;
  ASSERT_EQ(borrowed.Read(&b, 1, 0), 1);
  borrowed.Empty();
  EXPECT_EQ(kyTestAccess::Buffer(&borrowed), mine);
  EXPECT_EQ(borrowed.GetLength(), 6u);
  EXPECT_EQ(borrowed.GetDataLength(), 0u);
  EXPECT_EQ(borrowed.GetBufferPos(), 0u);
  EXPECT_EQ(borrowed.PeekByte(b), 0);
}

TEST(RecorderBuffer, EmptyKeepsTheStackAndTheStoppedFlag) {
  CCompRecorder r;
  int stream = 0;
  r.OpEnterFast("Root", 1, &stream);
  r.OpEnterFast("Other", 0, &stream);  // stops: a stream is entered
  r.Empty();
  EXPECT_EQ(r.GetStmDepth(), 1);
  EXPECT_EQ(r.HasBeenStopped(), 1);
}

TEST(RecorderBuffer, AttachTakesOwnershipAsToldAndFreesTheOldOwnedBuffer) {
  CCompRecorder r;
  AddText(r, "old");  // owned; Attach must free it (leak check)
  unsigned char* heap = MallocCopy("abc");
  r.Attach(heap, 3, 1);
  EXPECT_EQ(kyTestAccess::Buffer(&r), heap);
  EXPECT_EQ(r.GetLength(), 3u);
  EXPECT_EQ(r.GetDataLength(), 3u);
  EXPECT_EQ(r.GetBufferPos(), 0u);
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&r), 1);
  r.Attach(heap, 2, 1);  // the same buffer again is not freed
  EXPECT_EQ(r.GetDataLength(), 2u);

  unsigned char stack[3] = {1, 2, 3};
  r.Attach(stack, 3, 0);  // frees `heap`
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&r), 0);
  r.Attach(nullptr, 50, 0);  // no buffer means no bytes
  EXPECT_EQ(r.GetLength(), 0u);
  EXPECT_EQ(r.GetDataLength(), 0u);
}

TEST(RecorderBuffer, GrowingABorrowedBufferMovesTheDataAndLeavesItAlone) {
  unsigned char mine[4] = {'a', 'b', 'c', 'd'};
  CCompRecorder r;
  r.Attach(mine, 4, 0);
  r.SeekToBegin();
  unsigned char skip[4];
  ASSERT_EQ(r.Read(skip, 4, 0), 1);
  AddText(r, "ef");
  EXPECT_NE(kyTestAccess::Buffer(&r), mine);
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&r), 1);
  EXPECT_EQ(r.GetLength(), 4u + 4096u);
  Bytes d = Data(r);
  EXPECT_EQ(std::string(d.begin(), d.end()), "abcdef");
  EXPECT_EQ(std::string(mine, mine + 4), "abcd");
}

TEST(RecorderBuffer, DetachHandsTheBufferOverAndKeepsTheCounters) {
  CCompRecorder r;
  AddText(r, "recorded");
  unsigned int n = 0;
  unsigned char* p = r.Detach(&n);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(n, 8u);
  EXPECT_EQ(std::string(p, p + 8), "recorded");
  EXPECT_EQ(kyTestAccess::Buffer(&r), nullptr);
  EXPECT_EQ(r.GetDataLength(), 8u);
  EXPECT_EQ(r.GetLength(), 4096u);
  EXPECT_EQ(r.GetBufferPos(), 8u);
  // Nothing is readable without a buffer, whatever the counters say.
  unsigned char b;
  unsigned int left = 1;
  r.SeekToBegin();
  EXPECT_EQ(r.Read(&b, 1, 0), 0);
  EXPECT_EQ(r.PeekByte(b), 0);
  EXPECT_EQ(r.PeekAll(&left), nullptr);
  EXPECT_EQ(left, 0u);
  EXPECT_EQ(r.Detach(nullptr), nullptr);
  CCompRecorder::Free(p);
  CCompRecorder::Free(nullptr);

  // A new buffer after a detach starts without data.
  AddText(r, "x");
  EXPECT_EQ(r.GetDataLength(), 1u);
  EXPECT_EQ(r.GetLength(), 4096u);
}

TEST(RecorderBuffer, CloneCopiesExactlyTheDataAndStartsAtZero) {
  CCompRecorder empty(9000);
  CCompRecorder* c0 = empty.Clone();
  ASSERT_NE(c0, nullptr);
  EXPECT_EQ(kyTestAccess::Buffer(c0), nullptr);
  EXPECT_EQ(kyTestAccess::GrowBy(c0), 9000u);
  delete c0;

  CCompRecorder r;
  AddText(r, "clone me");
  r.ThrowExceptions(1);
  int stream = 0;
  r.OpEnterFast("S", 0, &stream);
  CCompRecorder* c = r.Clone();
  ASSERT_NE(c, nullptr);
  EXPECT_NE(kyTestAccess::Buffer(c), kyTestAccess::Buffer(&r));
  EXPECT_EQ(c->GetLength(), r.GetLength());
  EXPECT_EQ(c->GetDataLength(), r.GetDataLength());
  EXPECT_EQ(Data(*c), Data(r));
  EXPECT_EQ(c->GetBufferPos(), 0u);
  EXPECT_EQ(c->GetStmDepth(), 0);
  EXPECT_EQ(c->HasBeenStopped(), 0);
  unsigned char out[64];
  EXPECT_EQ(c->Read(out, 64, 1), 0);  // does not throw
  delete c;
}

TEST(RecorderBuffer, CloneOfABorrowedBufferOwnsItsCopy) {
  unsigned char mine[3] = {9, 8, 7};
  CCompRecorder r;
  r.Attach(mine, 3, 0);
  CCompRecorder* c = r.Clone();
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(kyTestAccess::OwnsBuffer(c), 1);
  EXPECT_EQ(Data(*c), Bytes({9, 8, 7}));
  delete c;  // frees the copy only
  EXPECT_EQ(mine[0], 9);
}

TEST(RecorderBuffer, CopyAssignmentLeavesOneOwner) {
  CCompRecorder* a = new CCompRecorder;
  AddText(*a, "shared");
  CCompRecorder b;
  AddText(b, "replaced");  // b's own buffer is freed by the assignment
  b = *a;
  EXPECT_EQ(kyTestAccess::Buffer(&b), kyTestAccess::Buffer(a));
  EXPECT_EQ(b.GetDataLength(), 6u);
  EXPECT_EQ(b.GetBufferPos(), 6u);
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&b), 1);
  EXPECT_EQ(kyTestAccess::OwnsBuffer(a), 0);
  delete a;  // must not free the buffer b now owns
  Bytes d = Data(b);
  EXPECT_EQ(std::string(d.begin(), d.end()), "shared");
}

TEST(RecorderBuffer, RepeatedAndSelfAssignmentKeepExactlyOneOwner) {
  CCompRecorder a;
  AddText(a, "x");
  CCompRecorder b;
  b = a;
  b = a;  // same buffer again: b keeps ownership
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&b), 1);
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&a), 0);
  a = b;  // back again: a owns
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&a), 1);
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&b), 0);
  CCompRecorder& self = a;
  a = self;
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&a), 1);
  EXPECT_EQ(a.GetDataLength(), 1u);
}

TEST(RecorderBuffer, CopyAssignmentCopiesStackAndFlags) {
  CCompRecorder a;
  int stream = 0;
  a.OpEnterFast("Root", 1, &stream);
  a.ThrowExceptions(1);
  CCompRecorder b;
  b = a;
  EXPECT_EQ(b.GetStmDepth(), 1);
  EXPECT_STREQ(kyTestAccess::Stack(&b)[0].szName, "Root");
  EXPECT_EQ(kyTestAccess::Stack(&b)[0].pStm, &stream);
  b.SeekToBegin();
  unsigned char out[100];
  EXPECT_THROW(b.Read(out, 100, 1), CString);
}

}  // namespace
