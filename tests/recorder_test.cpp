// The operation recorder: its buffer and who owns it, the bytes of every
// record kind, PopOp, the stack of entered streams, and real recordings.

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/folder_fixture.h"
#include "support/record_builders.h"

namespace {

using kytest::Bytes;
using kytest::Chars;
using kytest::Data;
typedef std::vector<std::string> Lines;

// Buffer length, data length, position, stack depth, stopped, owns its buffer.
std::string State(CCompRecorder& r) {
  return std::to_string(r.GetLength()) + " " + std::to_string(r.GetDataLength()) + " @" +
         std::to_string(r.GetBufferPos()) + " depth " + std::to_string(r.GetStmDepth()) +
         (r.HasBeenStopped() ? " stopped" : "") +
         (kyTestAccess::Buffer(&r) && kyTestAccess::OwnsBuffer(&r) ? " own" : "");
}

// The records read back by a clone, one line each.
Lines Records(CCompRecorder& r) {
  static const char* const kKinds[] = {"",        "enter ", "fast ",  "leave",
                                       "remove ", "write ", "append "};
  std::unique_ptr<CCompRecorder> c(r.Clone());
  Lines out;
  RecOpEnum op;
  char name[61];
  unsigned char* data;
  DWORD n;
  while (c->PopOp(&op, name, &data, &n)) {
    out.push_back(kKinds[op] + std::string(op == RecOpLeave ? "" : name));
    if (op == RecOpEnter || op == RecOpEnterFast) out.back() += " " + std::to_string(n);
    if (op == RecOpWrite || op == RecOpAppend)
      out.back() += " " + std::string(reinterpret_cast<char*>(data), n);
  }
  return out;
}

// Every record kind as PushOp writes it and PopOp reads it back.
const struct {
  RecOpEnum op;
  const char *name, *data;
  DWORD n;
  Bytes bytes;
  std::string back;
} kRecords[] = {
    {RecOpEnter, "Cfg", nullptr, 1, {1, 3, 0, 'C', 'f', 'g', 1}, "enter Cfg 1"},
    {RecOpEnter, "W", nullptr, 0, {1, 1, 0, 'W', 0}, "enter W 0"},
    {RecOpEnterFast, "ab", nullptr, 0x301, {2, 2, 0, 'a', 'b', 1}, "fast ab 1"},  // low byte
    {RecOpEnterFast, "ab", nullptr, 0xFF, {2, 2, 0, 'a', 'b', 0xFF}, "fast ab 255"},
    {RecOpLeave, "ignored", "x", 1, {3}, "leave"},
    {RecOpRemove, "Old", nullptr, 7, {4, 3, 0, 'O', 'l', 'd'}, "remove Old"},
    {RecOpRemove, "", nullptr, 0, {4, 0, 0}, "remove "},
    {RecOpWrite, "10", "xyz", 3, {5, 1, 0, 3, 0, 0, 0, 'x', 'y', 'z'}, "write 10 xyz"},
    {RecOpWrite, "01", "q", 1, {5, 0, 1, 1, 0, 0, 0, 'q'}, "write 01 q"},
    {RecOpWrite, "11", "", 0, {5, 1, 1, 0, 0, 0, 0}, "write 11 "},
    {RecOpWrite, "111", "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}, "write 00 q"},  // not two flags
    {RecOpWrite, nullptr, "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}, "write 00 q"},
    {RecOpAppend, "1", "ab", 2, {6, 1, 2, 0, 0, 0, 'a', 'b'}, "append 1 ab"},
    {RecOpAppend, "10", "a", 1, {6, 0, 1, 0, 0, 0, 'a'}, "append 0 a"},
};

class RecorderTest : public ::testing::Test {
 protected:
  ~RecorderTest() override {
    for (size_t i = streams.size(); i > 0; --i) kyTestAccess::DeleteStream(streams[i - 1]);
  }
  static unsigned char* U(const char* s) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
  }
  static void Add(CCompRecorder& r, const char* s) { r.Add(U(s), unsigned(strlen(s)), 4096); }
  // A stream object in memory; a chain of `levels` folders L1, L2, ... below `top`.
  kyStream* Make(kyStream* parent, const char* name, bool folder) {
    t_kyStreamU h;
    memset(&h, 0, sizeof(h));
    h.Magic() = kStreamHeaderMagic;
    strncpy(h.Name(), name, kMaxNameLength);
    h.Flags() = folder ? kFolderFlag : 0;
    streams.push_back(parent ? kyTestAccess::MakeChildStream(parent, h, 1000 + 100 * streams.size())
                             : kyTestAccess::MakeLooseRootStream(h));
    return streams.back();
  }
  kyStream* Chain(kyStream* top, int levels) {
    for (int i = 1; i <= levels; ++i) top = Make(top, ("L" + std::to_string(i)).c_str(), true);
    return top;
  }

  std::vector<kyStream*> streams;  // deleted children first
  CCompRecorder rec;
  kyStream* root = Make(nullptr, "R", true);
  kyStream* folder = Make(root, "F", true);
  kyStream* entry = Make(folder, "E", false);
  kyStream* sibling = Make(root, "G", true);
};

// Growth by the step (at least 4096) or a larger piece, never past 32 bits;
// Attach frees an owned buffer it replaces, a borrowed one is copied to grow.
TEST_F(RecorderTest, TheBufferGrowsAndChangesHandsAsTold) {
  CCompRecorder r(100);
  std::vector<unsigned char> fill(4096, 0xAB), big(10000, 0xCD);
  r.Add(nullptr, 5, 4096);  // nothing to add allocates nothing
  EXPECT_EQ(State(r), "0 0 @0 depth 0");
  r.Add(fill.data(), 4096, 4096);
  r.Add(big.data(), 10000, 4096);
  EXPECT_EQ(r.GetLength(), 14096u);
  r.Add(fill.data(), 1, 4096);
  EXPECT_EQ(State(r), "18192 14097 @14097 depth 0 own");
  kyTestAccess::SetBufferPos(&r, 0xFFFFFFFEu);
  Add(r, "xyz");  // its end would wrap 32 bits: stops, writes nothing
  EXPECT_EQ(State(r), "18192 14097 @4294967294 depth 0 stopped own");
  unsigned char* heap = static_cast<unsigned char*>(malloc(3));
  r.Attach(heap, 3, 1);  // frees the grown buffer
  r.Attach(heap, 2, 1);  // the same buffer again is not freed
  unsigned char mine[3] = {'x', 'y', 'z'};
  r.Attach(mine, 3, 0);  // frees `heap`
  kyTestAccess::SetBufferPos(&r, 3);
  Add(r, "ef");  // copies the borrowed bytes before it grows
  EXPECT_EQ(State(r), "4099 5 @5 depth 0 stopped own");
  EXPECT_EQ(Bytes(mine, mine + 3), Chars("xyz"));
  unsigned int n = 0;
  unsigned char* p = r.Detach(&n);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Bytes(p, p + n), Chars("xyzef"));
  CCompRecorder::Free(p);
  EXPECT_EQ(kyTestAccess::Buffer(&r), nullptr);
}

// After an assignment each recorder owns its own copy, so either may be
// destroyed, emptied or grown first (this was a use-after-free).
TEST_F(RecorderTest, CopyAssignmentGivesTheTargetItsOwnCopy) {
  for (int first = 0; first < 3; ++first) {
    SCOPED_TRACE(first);
    CCompRecorder* a = new CCompRecorder;
    Add(*a, "shared");
    a->OpEnterFast("Root", 1, root);
    a->ThrowExceptions(1);
    const std::string state = State(*a);
    const Bytes before = Data(a);
    CCompRecorder* b = new CCompRecorder(9000);
    Add(*b, "replaced");  // b's own buffer is freed by the assignment
    *b = *a;
    EXPECT_NE(kyTestAccess::Buffer(b), kyTestAccess::Buffer(a));
    EXPECT_EQ(State(*b) + State(*a), state + state);
    EXPECT_EQ(Data(b), before);
    EXPECT_EQ(kyTestAccess::Stack(b)[0].pStm, root);  // the stack and the flags come along
    CCompRecorder*& gone = first == 1 ? b : a;
    CCompRecorder* kept = first == 1 ? a : b;
    if (first == 2) {
      std::vector<unsigned char> big(20000, 1);
      a->Add(big.data(), 20000, 4096);  // a moves to a larger buffer
      a->Empty();
    }
    delete gone;
    gone = nullptr;
    EXPECT_EQ(Data(kept), before);
    kept->SeekToBegin();
    unsigned char out[100];
    EXPECT_EQ(kept->Read(out, 100, 0), 0);  // too short: refused, thrown only when both ask
    EXPECT_THROW(kept->Read(out, 100, 1), CString);
    delete kept;
  }
  Add(rec, "same");
  unsigned char* held = kyTestAccess::Buffer(&rec);
  // Assigned from a borrower of its own buffer: it keeps that buffer.
  CCompRecorder borrower;
  borrower.Attach(held, rec.GetDataLength(), 0);
  unsigned char c;
  ASSERT_EQ(borrower.Read(&c, 1, 0), 1);
  rec = borrower;
  EXPECT_EQ(kyTestAccess::Buffer(&rec), held);
  EXPECT_EQ(State(rec), "4096 4 @1 depth 0 own");
  EXPECT_EQ(Data(&rec), Chars("same"));
}

TEST_F(RecorderTest, EveryKindHasItsExactBytesAndReadsBack) {
  for (const auto& c : kRecords) {
    SCOPED_TRACE(c.back);
    CCompRecorder r;
    kyTestAccess::PushOp(&r, c.op, c.name, c.data ? U(c.data) : nullptr, c.n);
    EXPECT_EQ(Data(&r), c.bytes);
    EXPECT_EQ(Records(r), Lines{c.back});
  }
  std::vector<unsigned char> data(0x10203, 0x5A);
  kyTestAccess::PushOp(&rec, RecOpAppend, "1", data.data(), 0x10203);
  const Bytes d = Data(&rec);
  EXPECT_EQ(Bytes(d.begin(), d.begin() + 6), Bytes({6, 1, 3, 2, 1, 0}));
  unsigned char flags[] = {5, 7, 0, 0, 0, 0, 0, 6, 0x80, 0, 0, 0, 0};
  rec.Attach(flags, sizeof(flags), 0);
  EXPECT_EQ(Records(rec), (Lines{"write 10 ", "append 1 "}));  // nonzero flag bytes read as one
  for (unsigned char kind : {0, 7, 0x80, 0xFF}) {  // unknown kinds: refused, handed back as read
    unsigned char r[] = {kind, 0, 0, 0, 0, 0, 0};
    rec.Attach(r, sizeof(r), 0);
    RecOpEnum op = RecOpLeave;
    char name[61] = "x";
    EXPECT_EQ(rec.PopOp(&op, name, nullptr, nullptr), 0);
    EXPECT_EQ(std::to_string(op) + name, std::to_string(kind));
  }
}

// A record grows the buffer whole or not at all; one without its data stops
// the recording.
TEST_F(RecorderTest, ARecordThatCannotFitStopsTheRecording) {
  std::vector<unsigned char> fill(10000, 1);
  kyTestAccess::PushOp(&rec, RecOpWrite, "00", fill.data(), 4090 - 7);  // exactly 4090 bytes
  EXPECT_EQ(rec.GetLength(), 4096u);
  kyTestAccess::PushOp(&rec, RecOpWrite, "00", fill.data(), 3);  // head crosses the end
  EXPECT_EQ(State(rec), "8192 4100 @4100 depth 0 own");
  kyTestAccess::PushOp(&rec, RecOpAppend, "1", fill.data(), 10000);  // the piece grows it alone
  EXPECT_EQ(State(rec), "18192 14106 @14106 depth 0 own");
  CCompRecorder r;
  kyTestAccess::PushOp(&r, RecOpWrite, "00", nullptr, 3);  // no data
  EXPECT_EQ(State(r), "0 0 @0 depth 0 stopped");
}

// Streams the stack cannot reach from E, names over 60 and a second fast
// enter stop the recording; an enter whose parent is not on top, a leave of
// a stream not on top and an operation without a stream do nothing.
TEST_F(RecorderTest, WhatTheStackCannotFollowStopsTheRecording) {
  kyStream* targets[] = {Make(sibling, "C", false), folder, Make(nullptr, "Q", false),
                         Chain(Make(nullptr, "Z", true), 12)};
  for (kyStream* target : targets) {
    CCompRecorder r;
    r.OpWrite(U("x"), 1, 0, entry, 0);
    if (target == folder)
      r.OpAppend(U("y"), 1, target, 1);
    else
      r.OpWrite(U("y"), 1, 0, target, 0);
    EXPECT_EQ(State(r), "4096 23 @23 depth 3 stopped own") << target->GetName();
  }
  const std::string name61(61, 'n');
  for (int kind = 0; kind < 3; ++kind) {
    CCompRecorder r;
    if (kind == 0) r.OpEnter(name61.c_str(), 1, root);
    if (kind == 1) r.OpEnterFast(name61.c_str(), 0, root);
    if (kind == 2) r.OpRemove(name61.c_str(), nullptr);
    EXPECT_EQ(State(r), "0 0 @0 depth 0 stopped") << kind;
  }
  rec.OpEnterFast("R", 1, root);
  rec.OpEnter("E", 0, entry);             // its parent is not on top
  rec.OpAppend(U("v"), 1, folder, 0);     // enters the missing F
  rec.OpLeave(sibling);                   // not on top: nothing
  rec.OpWrite(U("x"), 1, 0, nullptr, 0);  // no stream: nothing
  rec.OpLeave(folder);
  rec.OpLeave(root);
  EXPECT_EQ(Records(rec), Lines({"fast R 1", "enter F 1", "append 0 v", "leave", "leave"}));
  rec.OpEnterFast("R", 0, root);
  rec.OpEnterFast("Q", 0, sibling);
  EXPECT_EQ(State(rec), "4096 24 @24 depth 1 stopped own");  // the first fast enter got in
}

class Recording : public kytest::FolderTest {
 protected:
  CCompRecorder* Recorder() { return kyTestAccess::Recorder(storage); }
  // Stops the recording; the records of the recorder handed back.
  Lines Stop() {
    std::unique_ptr<CCompRecorder> got(storage->StopRecording());
    EXPECT_EQ(Recorder(), nullptr);
    return got ? Records(*got) : Lines{"no recorder"};
  }
};

// One recorder at a time, handed over once; a storage released while
// recording deletes its recorder.  What real streams record is checked by
// replaying it.
TEST_P(Recording, OnlyOneRecorderIsHandedOverOnce) {
  EXPECT_EQ(storage->StopRecording(), nullptr);  // nothing to stop yet
  ASSERT_EQ(storage->StartRecording(), 1);
  CCompRecorder* first = Recorder();
  EXPECT_EQ(storage->StartRecording(), 1);
  EXPECT_EQ(Recorder(), first);
  Root("c", 0)->Release();
  ASSERT_TRUE(storage->OpenStream("c", RW)->Remove());
  EXPECT_EQ(Stop(), Lines({"remove c"}));
  EXPECT_EQ(storage->StopRecording(), nullptr);  // a second stop
  ASSERT_EQ(storage->StartRecording(), 1);
  kyStream* fast = storage->OpenOrCreateStreamFast("Open", 0);  // never left
  EXPECT_EQ(Stop(), Lines());
  fast->Release();  // records nowhere
  ASSERT_EQ(storage->StartRecording(), 1);
  Recorder()->OpRemove("X", nullptr);
  Close();
}

INSTANTIATE_TEST_SUITE_P(Widths, Recording, ::testing::Bool(), kytest::WidthName);

}  // namespace
