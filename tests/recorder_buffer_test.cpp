// The recorder as a growable byte buffer: growth steps, reads and the
// "Read error" exception, ownership through Attach, Detach, Empty, Clone and
// copy assignment.  Double frees and leaks show up under the sanitizers.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/test_access.h"

namespace {

std::string Text(CCompRecorder& r) {
  const char* p = reinterpret_cast<const char*>(kyTestAccess::Buffer(&r));
  return p ? std::string(p, r.GetDataLength()) : std::string();
}

void AddText(CCompRecorder& r, const char* text) {
  r.Add(reinterpret_cast<unsigned char*>(const_cast<char*>(text)),
        static_cast<unsigned int>(strlen(text)), 4096);
}

TEST(RecorderBuffer, GrowsBy4096OrByTheSizeOfALargerPiece) {
  CCompRecorder r(100);
  EXPECT_EQ(kyTestAccess::GrowBy(&r), 4096u);
  unsigned char one = 7;
  r.Add(nullptr, 5, 4096);  // nothing to add allocates nothing
  r.Add(&one, 0, 4096);
  EXPECT_EQ(kyTestAccess::Buffer(&r), nullptr);
  r.Add(&one, 1, 4096);
  std::vector<unsigned char> fill(4095, 0xAB), big(10000, 0xCD);
  r.Add(fill.data(), 4095, 4096);
  EXPECT_EQ(r.GetLength(), 4096u);  // exactly full, no growth yet
  r.Add(big.data(), 10000, 4096);
  EXPECT_EQ(r.GetLength(), 14096u);
  r.Add(&one, 1, 4096);
  EXPECT_EQ(r.GetLength(), 14096u + 4096u);
  EXPECT_EQ(r.GetDataLength(), 14097u);
  const unsigned char* d = kyTestAccess::Buffer(&r);
  EXPECT_EQ(std::vector<unsigned char>({7, 0xAB, 0xAB, 0xCD, 0xCD, 7}),
            std::vector<unsigned char>({d[0], d[1], d[4095], d[4096], d[14095], d[14096]}));
}

TEST(RecorderBuffer, GrowthThatWouldWrapIsRefused) {
  CCompRecorder r(8192);
  EXPECT_EQ(r.Expand(0), 1);  // no buffer yet: 4096, then the step
  EXPECT_EQ(r.Expand(100), 1);
  EXPECT_EQ(r.GetLength(), 4096u + 8192u + 100u);
  EXPECT_EQ(r.Expand(0xFFFFFFFFu - 100), 0);
  EXPECT_EQ(r.GetLength(), 4096u + 8192u + 100u);
  // An Add whose end wraps 32 bits stops the recorder and writes nothing.
  CCompRecorder a;
  AddText(a, "abcd");
  kyTestAccess::SetBufferPos(&a, 0xFFFFFFFEu);
  AddText(a, "xyz");
  EXPECT_EQ(a.HasBeenStopped(), 1);
  EXPECT_EQ(a.GetLength(), 4096u);
  EXPECT_EQ(Text(a), "abcd");
}

TEST(RecorderBuffer, AddReadAndPeekAtThePosition) {
  CCompRecorder r;
  unsigned char b = 0;
  unsigned int n = 99;
  EXPECT_EQ(r.PeekByte(b), 0);
  EXPECT_EQ(r.PeekAll(&n), nullptr);
  EXPECT_EQ(n, 0u);
  AddText(r, "hello");
  r.SeekToBegin();
  AddText(r, "XY");  // overwrites, keeping the longer data length
  EXPECT_EQ(Text(r), "XYllo");
  EXPECT_EQ(r.PeekByte(b), 1);  // peeks do not move
  EXPECT_EQ(b, 'l');
  EXPECT_EQ(r.PeekAll(&n), kyTestAccess::Buffer(&r) + 2);
  EXPECT_EQ(n, 3u);
  unsigned char out[8] = {};
  EXPECT_EQ(r.Read(out, 2, 0), 1);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 2), "ll");
  // Short reads are refused; "Read error" is thrown only when both the
  // recorder and the caller ask for it.
  EXPECT_EQ(r.Read(out, 2, 1), 0);
  r.ThrowExceptions(1);
  EXPECT_EQ(r.Read(out, 2, 0), 0);
  try {
    r.Read(out, 2, 1);
    FAIL() << "no exception";
  } catch (const CString& e) {
    EXPECT_EQ(e, CString("Read error"));
  }
  EXPECT_EQ(r.GetBufferPos(), 4u);
  EXPECT_EQ(r.Read(out, 1, 0), 1);
  EXPECT_EQ(r.Read(out, 0, 1), 1);
  EXPECT_EQ(r.Read(out, 1, 0), 0);
  EXPECT_EQ(r.PeekByte(b), 0);
}

TEST(RecorderBuffer, EmptyFreesAnOwnedBufferKeepsABorrowedOneAndTheStack) {
  CCompRecorder owned;
  AddText(owned, "data");
  int stream = 0;
  owned.OpEnterFast("Root", 1, &stream);
  owned.OpEnterFast("Other", 0, &stream);  // stops: a stream is entered
  owned.Empty();
  EXPECT_EQ(kyTestAccess::Buffer(&owned), nullptr);
  EXPECT_EQ(owned.GetLength() + owned.GetDataLength() + owned.GetBufferPos(), 0u);
  EXPECT_EQ(owned.GetStmDepth(), 1);
  EXPECT_EQ(owned.HasBeenStopped(), 1);

  unsigned char mine[6] = {'b', 'o', 'r', 'r', 'o', 'w'};
  CCompRecorder borrowed;
  borrowed.Attach(mine, 6, 0);
  unsigned char b;
  ASSERT_EQ(borrowed.Read(&b, 1, 0), 1);
  borrowed.Empty();
  EXPECT_EQ(kyTestAccess::Buffer(&borrowed), mine);
  EXPECT_EQ(borrowed.GetLength(), 6u);
  EXPECT_EQ(borrowed.GetDataLength() + borrowed.GetBufferPos(), 0u);
  EXPECT_EQ(borrowed.PeekByte(b), 0);
}

TEST(RecorderBuffer, AttachTakesOwnershipAsToldAndFreesTheOldOwnedBuffer) {
  CCompRecorder r;
  AddText(r, "old");  // owned; Attach must free it (leak check)
  unsigned char* heap = static_cast<unsigned char*>(malloc(3));
  memcpy(heap, "abc", 3);
  r.Attach(heap, 3, 1);
  EXPECT_EQ(Text(r), "abc");
  EXPECT_EQ(r.GetBufferPos(), 0u);
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&r), 1);
  r.Attach(heap, 2, 1);  // the same buffer again is not freed
  EXPECT_EQ(Text(r), "ab");
  unsigned char mine[3] = {'x', 'y', 'z'};
  r.Attach(mine, 3, 0);  // frees `heap`
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&r), 0);
  // Growing a borrowed buffer moves the data and leaves the buffer alone.
  unsigned char skip[3];
  ASSERT_EQ(r.Read(skip, 3, 0), 1);
  AddText(r, "ef");
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&r), 1);
  EXPECT_EQ(r.GetLength(), 3u + 4096u);
  EXPECT_EQ(Text(r), "xyzef");
  EXPECT_EQ(std::string(mine, mine + 3), "xyz");
  r.Attach(nullptr, 50, 0);  // no buffer means no bytes
  EXPECT_EQ(r.GetLength() + r.GetDataLength(), 0u);
}

TEST(RecorderBuffer, DetachHandsTheBufferOverAndKeepsTheCounters) {
  CCompRecorder r;
  AddText(r, "recorded");
  unsigned int n = 0;
  unsigned char* p = r.Detach(&n);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(p, p + n), "recorded");
  EXPECT_EQ(kyTestAccess::Buffer(&r), nullptr);
  EXPECT_EQ(r.GetDataLength(), 8u);
  EXPECT_EQ(r.GetLength(), 4096u);
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
  AddText(r, "x");  // a new buffer after a detach starts without data
  EXPECT_EQ(r.GetDataLength(), 1u);
  EXPECT_EQ(r.GetLength(), 4096u);
}

TEST(RecorderBuffer, CloneOwnsACopyOfExactlyTheDataAndStartsAfresh) {
  CCompRecorder empty(9000);
  std::unique_ptr<CCompRecorder> c0(empty.Clone());
  EXPECT_EQ(kyTestAccess::Buffer(c0.get()), nullptr);
  EXPECT_EQ(kyTestAccess::GrowBy(c0.get()), 9000u);

  unsigned char mine[8] = {'c', 'l', 'o', 'n', 'e', ' ', 'm', 'e'};
  CCompRecorder r;
  r.Attach(mine, 8, 0);
  r.ThrowExceptions(1);
  int stream = 0;
  r.OpEnterFast("S", 0, &stream);
  std::unique_ptr<CCompRecorder> c(r.Clone());
  EXPECT_EQ(kyTestAccess::OwnsBuffer(c.get()), 1);
  EXPECT_NE(kyTestAccess::Buffer(c.get()), kyTestAccess::Buffer(&r));
  EXPECT_EQ(c->GetLength(), r.GetLength());
  EXPECT_EQ(Text(*c), Text(r));
  EXPECT_EQ(c->GetBufferPos(), 0u);
  EXPECT_EQ(c->GetStmDepth(), 0);
  unsigned char out[64];
  EXPECT_EQ(c->Read(out, 64, 1), 0);  // does not throw
  c.reset();                          // frees the copy only
  EXPECT_EQ(kyTestAccess::Buffer(&r), mine);
}

// Each recorder owns what it holds after an assignment, so any of them may
// be destroyed, emptied or grown first; the source is never changed.
TEST(RecorderBuffer, CopyAssignmentGivesTheTargetItsOwnCopy) {
  for (int first = 0; first < 3; ++first) {
    SCOPED_TRACE(first);
    CCompRecorder* a = new CCompRecorder;
    AddText(*a, "shared");
    int stream = 0;
    a->OpEnterFast("Root", 1, &stream);
    a->ThrowExceptions(1);
    const std::string before = Text(*a);
    const unsigned int pos = a->GetBufferPos(), length = a->GetLength();
    CCompRecorder* b = new CCompRecorder(9000);
    AddText(*b, "replaced");  // b's own buffer is freed by the assignment
    *b = *a;
    EXPECT_NE(kyTestAccess::Buffer(b), kyTestAccess::Buffer(a));
    EXPECT_EQ(kyTestAccess::OwnsBuffer(b), 1);
    EXPECT_EQ(kyTestAccess::OwnsBuffer(a), 1);
    EXPECT_EQ(Text(*b), before);
    EXPECT_EQ(b->GetLength(), length);
    EXPECT_EQ(b->GetBufferPos(), pos);
    EXPECT_EQ(kyTestAccess::GrowBy(b), 4096u);
    EXPECT_EQ(b->GetStmDepth(), 1);  // the stack and the flags come along
    EXPECT_EQ(kyTestAccess::Stack(b)[0].pStm, &stream);
    EXPECT_STREQ(kyTestAccess::Stack(b)[0].szName, "Root");
    CCompRecorder*& gone = first == 1 ? b : a;
    CCompRecorder* kept = first == 1 ? a : b;
    if (first == 2) {
      std::vector<unsigned char> big(20000, 1);
      a->Add(big.data(), 20000, 4096);  // a moves to a larger buffer
      a->Empty();
    }
    delete gone;
    gone = nullptr;
    EXPECT_EQ(Text(*kept), before);
    kept->SeekToBegin();
    unsigned char out[100];
    EXPECT_THROW(kept->Read(out, 100, 1), CString);
    delete kept;
  }
  // Onto itself, or from a recorder without a buffer: nothing to copy.
  CCompRecorder a, empty;
  AddText(a, "same");
  unsigned char* held = kyTestAccess::Buffer(&a);
  CCompRecorder& self = a;
  a = self;
  EXPECT_EQ(kyTestAccess::Buffer(&a), held);
  a = empty;
  EXPECT_EQ(kyTestAccess::Buffer(&a), nullptr);
  EXPECT_EQ(a.GetDataLength(), 0u);
}

// A recorder that lends its buffer to another keeps it when assigned from
// the borrower: the bytes are already its own.
TEST(RecorderBuffer, CopyAssignmentFromTheBorrowerOfOurBuffer) {
  CCompRecorder owner, borrower;
  AddText(owner, "lent out");
  borrower.Attach(kyTestAccess::Buffer(&owner), owner.GetDataLength(), 0);
  unsigned char c;
  borrower.Read(&c, 1, 0);
  owner = borrower;
  EXPECT_EQ(kyTestAccess::Buffer(&owner), kyTestAccess::Buffer(&borrower));
  EXPECT_EQ(kyTestAccess::OwnsBuffer(&owner), 1);
  EXPECT_EQ(owner.GetBufferPos(), 1u);
  EXPECT_EQ(Text(owner), "lent out");
}

}  // namespace
