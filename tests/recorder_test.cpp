// The operation recorder: its growable buffer and who owns it, the exact
// bytes of every record kind and PopOp reading them back or refusing them,
// the stack of entered streams, and a storage's recording switched on and
// off around real streams.  Double frees and leaks show up under the
// sanitizers.

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/folder_fixture.h"

namespace {

using kytest::Bytes;
typedef std::vector<std::string> Lines;

unsigned char* U(const char* s) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}
void AddText(CCompRecorder& r, const char* text) {
  r.Add(U(text), unsigned(strlen(text)), 4096);
}
Bytes Data(CCompRecorder& r) {
  unsigned char* p = kyTestAccess::Buffer(&r);
  return p ? Bytes(p, p + r.GetDataLength()) : Bytes();
}
std::string Text(CCompRecorder& r) {
  const Bytes d = Data(r);
  return std::string(d.begin(), d.end());
}
// The counters in one line: buffer length, data length, position, stack
// depth, stopped, owns the buffer it has.
std::string State(CCompRecorder& r) {
  return std::to_string(r.GetLength()) + " " + std::to_string(r.GetDataLength()) + " @" +
         std::to_string(r.GetBufferPos()) + " depth " + std::to_string(r.GetStmDepth()) +
         (r.HasBeenStopped() ? " stopped" : "") +
         (kyTestAccess::Buffer(&r) && kyTestAccess::OwnsBuffer(&r) ? " own" : "");
}

// The recording read back by a clone (the recorder itself is not
// disturbed), one line per record; data are handed out in place.
Lines Records(CCompRecorder& r) {
  static const char* const kKinds[] = {"",        "enter ", "fast ",  "leave",
                                       "remove ", "write ", "append "};
  std::unique_ptr<CCompRecorder> c(r.Clone());
  const unsigned char* buf = kyTestAccess::Buffer(c.get());
  Lines out;
  RecOpEnum op;
  char name[61];
  unsigned char* data;
  DWORD n;
  while (c->PopOp(&op, name, &data, &n)) {
    std::string line = kKinds[op];
    if (op == RecOpEnter || op == RecOpEnterFast)
      line += std::string(name) + " " + std::to_string(n);
    if (op == RecOpRemove) line += name;
    if (op == RecOpWrite || op == RecOpAppend) {
      EXPECT_TRUE(data >= buf && data + n <= buf + c->GetDataLength());
      line += std::string(name) + " " + std::string(reinterpret_cast<char*>(data), n);
    }
    out.push_back(line);
  }
  EXPECT_EQ(c->GetBufferPos(), c->GetDataLength()) << "the recording ends inside a record";
  return out;
}

// Runs PopOp over `bytes` with exceptions off and on; returns the records
// read before the first 0 (the same in both modes, checked here).
int CountRecords(Bytes bytes) {
  int counts[2];
  for (int bThrow = 0; bThrow < 2; ++bThrow) {
    CCompRecorder r;
    r.Attach(bytes.data(), unsigned(bytes.size()), 0);
    r.ThrowExceptions(bThrow);
    RecOpEnum op;
    char name[61];
    unsigned char* data;
    DWORD n;
    for (counts[bThrow] = 0; counts[bThrow] < 100 && r.PopOp(&op, name, &data, &n);)
      ++counts[bThrow];
  }
  EXPECT_EQ(counts[0], counts[1]);
  return counts[0];
}

// --- the buffer ----------------------------------------------------------------

TEST(RecorderBuffer, GrowsBy4096OrByTheSizeOfALargerPiece) {
  CCompRecorder r(100);  // raised to 4096
  unsigned char one = 7;
  r.Add(nullptr, 5, 4096);  // nothing to add allocates nothing
  r.Add(&one, 0, 4096);
  EXPECT_EQ(kyTestAccess::Buffer(&r), nullptr);
  r.Add(&one, 1, 4096);
  std::vector<unsigned char> fill(4095, 0xAB), big(10000, 0xCD);
  r.Add(fill.data(), 4095, 4096);
  EXPECT_EQ(State(r), "4096 4096 @4096 depth 0 own");  // exactly full, no growth yet
  r.Add(big.data(), 10000, 4096);
  EXPECT_EQ(r.GetLength(), 14096u);
  r.Add(&one, 1, 4096);
  EXPECT_EQ(State(r), "18192 14097 @14097 depth 0 own");
  const Bytes d = Data(r);
  EXPECT_EQ(Bytes({7, 0xAB, 0xAB, 0xCD, 0xCD, 7}),
            Bytes({d[0], d[1], d[4095], d[4096], d[14095], d[14096]}));
  // Growth that would wrap 32 bits is refused; so is an Add whose end
  // wraps, which stops the recorder and writes nothing.
  CCompRecorder e(8192);
  EXPECT_EQ(e.Expand(0), 1);  // no buffer yet: 4096, then the step
  EXPECT_EQ(e.Expand(100), 1);
  EXPECT_EQ(e.Expand(0xFFFFFFFFu - 100), 0);
  EXPECT_EQ(e.GetLength(), 4096u + 8192u + 100u);
  CCompRecorder a;
  AddText(a, "abcd");
  kyTestAccess::SetBufferPos(&a, 0xFFFFFFFEu);
  AddText(a, "xyz");
  EXPECT_EQ(State(a), "4096 4 @4294967294 depth 0 stopped own");
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
  EXPECT_EQ(r.Read(out, 1, 0) + r.Read(out, 0, 1), 2);
  EXPECT_EQ(r.Read(out, 1, 0) + r.PeekByte(b), 0);
}

TEST(RecorderBuffer, EmptyFreesAnOwnedBufferKeepsABorrowedOneAndTheStack) {
  CCompRecorder owned;
  AddText(owned, "data");
  int stream = 0;
  owned.OpEnterFast("Root", 1, &stream);
  owned.OpEnterFast("Other", 0, &stream);  // stops: a stream is entered
  owned.Empty();
  EXPECT_EQ(kyTestAccess::Buffer(&owned), nullptr);
  EXPECT_EQ(State(owned), "0 0 @0 depth 1 stopped");
  unsigned char mine[6] = {'b', 'o', 'r', 'r', 'o', 'w'}, b;
  CCompRecorder borrowed;
  borrowed.Attach(mine, 6, 0);
  ASSERT_EQ(borrowed.Read(&b, 1, 0), 1);
  borrowed.Empty();
  EXPECT_EQ(kyTestAccess::Buffer(&borrowed), mine);
  EXPECT_EQ(State(borrowed), "6 0 @0 depth 0");
  EXPECT_EQ(borrowed.PeekByte(b), 0);
}

TEST(RecorderBuffer, AttachAndDetachHandTheBufferOver) {
  CCompRecorder r;
  AddText(r, "old");  // owned; Attach must free it (leak check)
  unsigned char* heap = static_cast<unsigned char*>(malloc(3));
  memcpy(heap, "abc", 3);
  r.Attach(heap, 3, 1);
  EXPECT_EQ(Text(r), "abc");
  EXPECT_EQ(State(r), "3 3 @0 depth 0 own");
  r.Attach(heap, 2, 1);  // the same buffer again is not freed
  EXPECT_EQ(Text(r), "ab");
  unsigned char mine[3] = {'x', 'y', 'z'};
  r.Attach(mine, 3, 0);  // frees `heap`
  // Growing a borrowed buffer moves the data and leaves the buffer alone.
  ASSERT_EQ(r.Read(mine, 3, 0), 1);
  AddText(r, "ef");
  EXPECT_EQ(State(r), "4099 5 @5 depth 0 own");
  EXPECT_EQ(Text(r), "xyzef");
  EXPECT_EQ(std::string(mine, mine + 3), "xyz");
  r.Attach(nullptr, 50, 0);  // no buffer means no bytes
  EXPECT_EQ(State(r), "0 0 @0 depth 0");
  // Detach hands the buffer over and keeps the counters; nothing is
  // readable without a buffer, whatever they say.
  AddText(r, "recorded");
  unsigned int n = 0;
  unsigned char* p = r.Detach(&n);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(p, p + n), "recorded");
  EXPECT_EQ(State(r), "4096 8 @8 depth 0");
  r.SeekToBegin();
  unsigned char b;
  unsigned int left = 1;
  EXPECT_EQ(r.Read(&b, 1, 0) + r.PeekByte(b), 0);
  EXPECT_EQ(r.PeekAll(&left), nullptr);
  EXPECT_EQ(left, 0u);
  EXPECT_EQ(r.Detach(nullptr), nullptr);
  CCompRecorder::Free(p);
  CCompRecorder::Free(nullptr);
  AddText(r, "x");  // a new buffer after a detach starts without data
  EXPECT_EQ(State(r), "4096 1 @1 depth 0 own");
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
  EXPECT_NE(kyTestAccess::Buffer(c.get()), mine);
  EXPECT_EQ(State(*c), "8 8 @0 depth 0 own");
  EXPECT_EQ(Text(*c), Text(r));
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
    const std::string before = Text(*a), state = State(*a);
    CCompRecorder* b = new CCompRecorder(9000);
    AddText(*b, "replaced");  // b's own buffer is freed by the assignment
    *b = *a;
    EXPECT_NE(kyTestAccess::Buffer(b), kyTestAccess::Buffer(a));
    EXPECT_EQ(State(*b), state);
    EXPECT_EQ(State(*a), state);
    EXPECT_EQ(Text(*b), before);
    EXPECT_EQ(kyTestAccess::GrowBy(b), 4096u);
    EXPECT_EQ(kyTestAccess::Stack(b)[0].pStm, &stream);  // the stack and the flags come along
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
  // A recorder that lends its buffer keeps it when assigned from the
  // borrower: the bytes are already its own.
  CCompRecorder owner, borrower;
  AddText(owner, "lent out");
  borrower.Attach(kyTestAccess::Buffer(&owner), owner.GetDataLength(), 0);
  borrower.Read(held, 1, 0);
  owner = borrower;
  EXPECT_EQ(kyTestAccess::Buffer(&owner), kyTestAccess::Buffer(&borrower));
  EXPECT_EQ(State(owner), "4096 8 @1 depth 0 own");
  EXPECT_EQ(Text(owner), "lent out");
}

// --- records -------------------------------------------------------------------

TEST(RecorderRecords, EveryKindHasItsExactBytesAndReadsBack) {
  const struct {
    RecOpEnum op;
    const char* name;
    const char* data;
    DWORD n;
    Bytes bytes;
    std::string back;
  } cases[] = {
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
      {RecOpWrite, "1", "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}, "write 00 q"},  // flag text too short
      {RecOpWrite, "111", "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}, "write 00 q"},
      {RecOpWrite, nullptr, "q", 1, {5, 0, 0, 1, 0, 0, 0, 'q'}, "write 00 q"},
      {RecOpAppend, "1", "ab", 2, {6, 1, 2, 0, 0, 0, 'a', 'b'}, "append 1 ab"},
      {RecOpAppend, "0", "ab", 2, {6, 0, 2, 0, 0, 0, 'a', 'b'}, "append 0 ab"},
      {RecOpAppend, "10", "a", 1, {6, 0, 1, 0, 0, 0, 'a'}, "append 0 a"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.back);
    CCompRecorder r;
    kyTestAccess::PushOp(&r, c.op, c.name, c.data ? U(c.data) : nullptr, c.n);
    EXPECT_EQ(r.HasBeenStopped(), 0);
    EXPECT_EQ(Data(r), c.bytes);
    EXPECT_EQ(Records(r), Lines{c.back});
  }
  std::vector<unsigned char> data(0x10203, 0x5A);
  CCompRecorder r;
  kyTestAccess::PushOp(&r, RecOpAppend, "1", data.data(), 0x10203);
  const Bytes d = Data(r);
  ASSERT_EQ(d.size(), 6u + 0x10203u);
  EXPECT_EQ(Bytes(d.begin(), d.begin() + 6), Bytes({6, 1, 0x03, 0x02, 0x01, 0x00}));
  // Nonzero flag bytes read as one.
  unsigned char rec[] = {5, 7, 0, 0, 0, 0, 0, 6, 0x80, 0, 0, 0, 0};
  r.Attach(rec, sizeof(rec), 0);
  EXPECT_EQ(Records(r), (Lines{"write 10 ", "append 1 "}));
}

TEST(RecorderRecords, MalformedRecordsAreRefused) {
  for (unsigned char kind : {1, 2, 4}) {  // names up to 60 characters
    for (unsigned char length : {60, 61}) {
      Bytes rec = {kind, length, 0};
      rec.insert(rec.end(), length, 'a');
      if (kind != 4) rec.push_back(0);
      EXPECT_EQ(CountRecords(rec), length == 60 ? 1 : 0) << int(kind);
    }
  }
  // Data lengths whose end wraps 32 bits.
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
  const Bytes all = Data(r);
  const size_t ends[] = {8, 16, 21, 32, 42, 43};
  ASSERT_EQ(all.size(), ends[5]);
  for (size_t cut = 0; cut <= all.size(); ++cut) {
    int complete = 0;
    while (complete < 6 && ends[complete] <= cut) ++complete;
    EXPECT_EQ(CountRecords(Bytes(all.begin(), all.begin() + cut)), complete) << cut;
  }
}

// Records the reader would refuse stop the recording instead; a stopped
// recorder records nothing more.  A record that cannot fit leaves no part
// behind; one that fits grows the buffer as its pieces would.
TEST(RecorderRecords, UnreadableOrUnfittingRecordsStopTheRecording) {
  const std::string name61(61, 'x');
  for (RecOpEnum op : {RecOpEnter, RecOpEnterFast, RecOpRemove, RecOpWrite}) {
    CCompRecorder r;
    kyTestAccess::PushOp(&r, RecOpLeave, nullptr, nullptr, 0);
    if (op == RecOpWrite)
      kyTestAccess::PushOp(&r, op, "00", nullptr, 3);  // missing data
    else
      kyTestAccess::PushOp(&r, op, name61.c_str(), nullptr, 0);
    EXPECT_EQ(r.HasBeenStopped(), 1) << op;
    kyTestAccess::PushOp(&r, RecOpLeave, nullptr, nullptr, 0);
    kyTestAccess::PushOp(&r, RecOpAppend, "1", U("abc"), 3);
    EXPECT_EQ(Data(r), Bytes({3})) << op;
  }
  CCompRecorder r;
  std::vector<unsigned char> fill(10000, 1);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", fill.data(), 4090 - 7);  // exactly 4090 bytes
  EXPECT_EQ(r.GetLength(), 4096u);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", fill.data(), 3);  // head crosses the end
  EXPECT_EQ(State(r), "8192 4100 @4100 depth 0 own");
  // The 6-byte head fits; the 10000-byte piece grows the buffer by itself.
  kyTestAccess::PushOp(&r, RecOpAppend, "1", fill.data(), 10000);
  EXPECT_EQ(State(r), "18192 14106 @14106 depth 0 own");
  kyTestAccess::SetBufferPos(&r, 0xFFFFFFF0u);
  kyTestAccess::PushOp(&r, RecOpWrite, "00", fill.data(), 32);
  EXPECT_EQ(State(r), "18192 14106 @4294967280 depth 0 stopped own");
}

// --- the stream stack ----------------------------------------------------------

// Stream objects with parents, made in memory (nothing touches a file) and
// deleted children first; a recorder, and R/F/E and R/G entered from it.
class RecorderStack : public ::testing::Test {
 protected:
  ~RecorderStack() override {
    for (size_t i = m_streams.size(); i > 0; --i) kyTestAccess::DeleteStream(m_streams[i - 1]);
  }
  kyStream* Make(kyStream* parent, const char* name, bool folder) {
    t_kyStreamU h;
    memset(&h, 0, sizeof(h));
    h.Magic() = kStreamHeaderMagic;
    strncpy(h.Name(), name, kMaxNameLength);
    h.Flags() = folder ? kFolderFlag : 0;
    m_streams.push_back(parent == nullptr ? kyTestAccess::MakeLooseRootStream(h)
                                          : kyTestAccess::MakeChildStream(
                                                parent, h, 1000 + 100 * m_streams.size()));
    return m_streams.back();
  }
  // A chain of `levels` folders below `top`, named L1, L2, ...; the deepest.
  kyStream* Chain(kyStream* top, int levels) {
    for (int i = 1; i <= levels; ++i) top = Make(top, ("L" + std::to_string(i)).c_str(), true);
    return top;
  }

  std::vector<kyStream*> m_streams;
  CCompRecorder rec;
  kyStream* root = Make(nullptr, "R", true);
  kyStream* folder = Make(root, "F", true);
  kyStream* entry = Make(folder, "E", false);
  kyStream* sibling = Make(root, "G", true);
};

// A write two levels below the root enters the whole chain first; the same
// stream again needs no enters; leaves of streams not on top record
// nothing, releases in nesting order leave.
TEST_F(RecorderStack, AWriteEntersTheWholeChain) {
  rec.OpLeave(root);
  EXPECT_EQ(State(rec), "0 0 @0 depth 0");
  rec.OpWrite(U("640"), 3, 0, entry, 1);
  EXPECT_EQ(Data(rec), Bytes({1, 1, 0, 'R', 1,  // enter R, folder
                              1, 1, 0, 'F', 1,  // enter F, folder
                              1, 1, 0, 'E', 0,  // enter E
                              5, 0, 1, 3,   0, 0, 0, '6', '4', '0'}));
  EXPECT_EQ(kyTestAccess::Stack(&rec)[2].pStm, entry);
  EXPECT_STREQ(kyTestAccess::Stack(&rec)[1].szName, "F");
  EXPECT_EQ(kyTestAccess::Stack(&rec)[0].iFlag, 1);
  for (kyStream* s : {root, sibling, static_cast<kyStream*>(nullptr)}) rec.OpLeave(s);
  rec.OpWrite(U("x"), 1, 0, nullptr, 0);  // operations without a stream record nothing
  rec.OpAppend(U("x"), 1, nullptr, 1);
  EXPECT_EQ(State(rec), "4096 25 @25 depth 3 own");
  rec.OpAppend(U("ab"), 2, entry, 1);
  for (kyStream* s : {entry, folder, root}) rec.OpLeave(s);
  EXPECT_EQ(rec.GetStmDepth(), 0);
  EXPECT_EQ(Records(rec), Lines({"enter R 1", "enter F 1", "enter E 0", "write 01 640",
                                 "append 1 ab", "leave", "leave", "leave"}));
}

// The stack holds 32 streams, and up to ten missing ancestors are entered
// for an operation; beyond, the operation goes unrecorded and the
// recording stops, except for too many ancestors alone.
TEST_F(RecorderStack, DepthLimits) {
  kyStream* s = root;
  rec.OpEnter("R", 1, root);
  for (int depth = 2; depth <= 32; ++depth) rec.OpEnter("N", 1, s = Make(s, "N", true));
  ASSERT_EQ(State(rec), "4096 160 @160 depth 32 own");
  rec.OpEnter("X", 0, Make(s, "X", false));
  EXPECT_EQ(State(rec), "4096 160 @160 depth 32 stopped own");
  rec.OpLeave(s);
  rec.OpWrite(U("more"), 4, 0, s, 0);
  EXPECT_EQ(rec.GetDataLength(), 160u);

  CCompRecorder deep;
  s = root;
  for (const char* data : {"a", "b", "c"}) deep.OpWrite(U(data), 1, 0, s = Chain(s, 10), 0);
  EXPECT_EQ(deep.GetStmDepth(), 31);  // 11, 21, 31 levels
  const unsigned int length = deep.GetDataLength();
  deep.OpWrite(U("d"), 1, 0, Chain(s, 2), 0);  // 33 levels
  EXPECT_EQ(deep.HasBeenStopped(), 1);
  EXPECT_EQ(deep.GetDataLength(), length + 6);  // the 32nd enter (L1) got in, nothing more

  CCompRecorder far;
  far.OpWrite(U("lost"), 4, 0, Chain(root, 11), 0);  // 11 ancestors
  EXPECT_EQ(State(far), "0 0 @0 depth 0");           // only that operation goes unrecorded
  far.OpWrite(U("ok"), 2, 0, Chain(root, 10), 0);    // 10 ancestors: L9 ... L1 and R
  const Lines lines = Records(far);
  ASSERT_EQ(lines.size(), 12u);
  EXPECT_EQ(lines.front(), "enter R 1");
  EXPECT_EQ(lines[10], "enter L10 1");
  EXPECT_EQ(lines[11], "write 00 ok");
}

// Operations the stack cannot follow from the top E: below R but not below
// E, above E, in another root, and unrelated more than ten levels up.
TEST_F(RecorderStack, AnOperationOutsideTheEnteredChainStopsTheRecording) {
  kyStream* targets[] = {Make(sibling, "C", false), folder, Make(nullptr, "Q", false),
                         Chain(Make(nullptr, "Z", true), 12)};
  for (kyStream* target : targets) {
    CCompRecorder r;
    r.OpWrite(U("x"), 1, 0, entry, 0);
    const unsigned int length = r.GetDataLength();
    if (target == folder)
      r.OpAppend(U("y"), 1, target, 1);
    else
      r.OpWrite(U("y"), 1, 0, target, 0);
    EXPECT_EQ(r.HasBeenStopped(), 1) << target->GetName();
    EXPECT_EQ(r.GetDataLength(), length);
  }
}

// An enter whose parent is not on top does nothing; a name longer than
// sixty stops the recording; a fast enter records only with an empty stack.
TEST_F(RecorderStack, EnterRefusals) {
  const std::string name61(61, 'n');
  for (int fast = 0; fast < 2; ++fast) {
    CCompRecorder r;
    if (fast)
      r.OpEnterFast(name61.c_str(), 0, root);
    else
      r.OpEnter(name61.c_str(), 1, root);
    EXPECT_EQ(State(r), "0 0 @0 depth 0 stopped");
  }
  rec.OpEnterFast("R", 1, root);
  rec.OpEnter("E", 0, entry);  // its parent is not on top
  EXPECT_EQ(rec.GetStmDepth(), 1);
  rec.OpAppend(U("v"), 1, folder, 0);
  rec.OpLeave(folder);
  rec.OpLeave(root);
  EXPECT_EQ(Records(rec), Lines({"fast R 1", "enter F 1", "append 0 v", "leave", "leave"}));
  rec.OpEnterFast("R", 0, root);
  rec.OpEnterFast("Q", 0, sibling);                          // a stream is entered: stops
  EXPECT_EQ(State(rec), "4096 24 @24 depth 1 stopped own");  // the first fast enter got in
}

// Operations below the top enter only the missing levels; a root's removal
// is recorded only from an empty stack, a child's after entering its folder.
TEST_F(RecorderStack, EntersOnlyTheMissingLevelsAndRemovals) {
  rec.OpRemove("Old", nullptr);
  rec.OpWrite(U("x"), 1, 0, root, 0);
  rec.OpRemove("Other", nullptr);  // streams entered: not recorded
  rec.OpWrite(U("2"), 1, 0, entry, 0);
  rec.OpLeave(entry);
  rec.OpLeave(folder);
  rec.OpRemove("G2", sibling);
  rec.OpLeave(sibling);  // the removal's own leave of its parent
  EXPECT_EQ(State(rec), "4096 50 @50 depth 1 own");
  EXPECT_EQ(Records(rec),
            Lines({"remove Old", "enter R 1", "write 00 x", "enter F 1", "enter E 0", "write 00 2",
                   "leave", "leave", "enter G 1", "remove G2", "leave"}));
}

// --- recording a storage -------------------------------------------------------

class Recording : public kytest::FolderTest {
 protected:
  CCompRecorder* Recorder() { return kyTestAccess::Recorder(storage); }
  // Stops the recording; the records the recorder hands back.
  Lines Stop() {
    std::unique_ptr<CCompRecorder> got(storage->StopRecording());
    EXPECT_NE(got, nullptr);
    EXPECT_EQ(Recorder(), nullptr);
    return got ? Records(*got) : Lines{"none"};
  }
  int streamA = 0;  // stands for a stream object; only its identity counts
  int streamB = 0;
};

TEST_P(Recording, StartTwiceKeepsTheFirstRecorderAndStopHandsItOver) {
  EXPECT_EQ(storage->StopRecording(), nullptr);  // nothing to stop yet
  ASSERT_EQ(storage->StartRecording(), 1);
  CCompRecorder* first = Recorder();
  EXPECT_EQ(kyTestAccess::GrowBy(first), 4096u);
  first->OpEnterFast("A", 1, &streamA);
  EXPECT_EQ(storage->StartRecording(), 1);
  EXPECT_EQ(Recorder(), first);
  first->OpLeave(&streamA);
  first->OpRemove("Old", nullptr);
  EXPECT_EQ(Stop(), Lines({"fast A 1", "leave", "remove Old"}));
  EXPECT_EQ(storage->StopRecording(), nullptr);  // a second stop
  ASSERT_EQ(storage->StartRecording(), 1);
  Recorder()->OpRemove("X", nullptr);
  Close();  // deletes the recorder: the sanitizers' leak check catches a lost one
}

// A recording that was stopped, or that leaves a stream entered, comes
// back empty.
TEST_P(Recording, StoppedOrUnbalancedRecordingsComeBackEmpty) {
  ASSERT_EQ(storage->StartRecording(), 1);
  Recorder()->OpEnterFast("A", 0, &streamA);
  Recorder()->OpEnterFast("B", 0, &streamB);  // stops: a stream is entered
  Recorder()->OpLeave(&streamA);
  ASSERT_EQ(State(*Recorder()), "4096 5 @5 depth 0 stopped own");
  EXPECT_EQ(Stop(), Lines());
  ASSERT_EQ(storage->StartRecording(), 1);
  Recorder()->OpEnterFast("A", 0, &streamA);  // never left
  EXPECT_EQ(Stop(), Lines());
  // With a real stream still open; its release records nowhere.
  ASSERT_EQ(storage->StartRecording(), 1);
  kyStream* s = storage->OpenOrCreateStreamFast("Open", 0);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(Stop(), Lines());
  s->Release();
}

// Real streams of the storage: a write two levels below a root folder, the
// streams released innermost first; a fast open and its release; removals,
// each child's made from its entered parent, a root's with nothing entered.
TEST_P(Recording, StreamsOfTheStorageRecordTheirChainReleasesAndRemovals) {
  kyStream* root = storage->CreateStream("R", 1, RW);
  kyStream* folder = root->CreateStream("F", 1, RW, 1);
  kyStream* entry = folder->CreateStream("E", 0, RW, 1);
  ASSERT_NE(entry, nullptr);
  ASSERT_EQ(storage->StartRecording(), 1);
  unsigned char value[4] = {0x80, 2, 0, 0};
  Recorder()->OpWrite(value, 4, 0, entry, 1);
  for (kyStream* s : {entry, folder, root}) s->Release();
  EXPECT_EQ(Data(*Recorder()), Bytes({1, 1, 0, 'R', 1, 1, 1, 0,    'F', 1, 1, 1, 0, 'E', 0,
                                      5, 0, 1, 4,   0, 0, 0, 0x80, 2,   0, 0, 3, 3, 3}));
  Recorder()->Empty();
  kyStream* s = storage->OpenOrCreateStreamFast("10000000", 1);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(-1, s->Release());  // created, never opened: still leaves
  EXPECT_EQ(Stop(), Lines({"fast 10000000 1", "leave"}));

  Root("S")->Release();
  root = storage->OpenStream("S", RW);
  Child(root, "c", 0, "x");
  Child(root, "d", 0, "y");
  ASSERT_EQ(1, storage->StartRecording());
  ASSERT_TRUE(root->OpenStream("c", RW)->Remove());
  ASSERT_TRUE(root->Remove());
  EXPECT_EQ(Stop(), Lines({"enter S 1", "remove c", "leave", "enter S 1", "remove d", "leave",
                           "remove S"}));
}

INSTANTIATE_TEST_SUITE_P(Widths, Recording, ::testing::Bool(), kytest::WidthName);

}  // namespace
