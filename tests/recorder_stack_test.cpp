// The recorder's stream stack: the enter chains recorded ahead of an
// operation, leaves, removes, and the cases that stop the recording because
// the stack could not follow.  Stream objects are built in memory with
// parents; nothing touches a file.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/test_access.h"

namespace {

typedef std::vector<std::string> Lines;

unsigned char* U(const char* s) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}

// Stream objects with parents, deleted children first.
class Tree {
 public:
  ~Tree() {
    for (size_t i = m_streams.size(); i > 0; --i) kyTestAccess::DeleteStream(m_streams[i - 1]);
  }
  kyStream* Root(const char* name, bool folder) {
    t_kyStreamU h = Header(name, folder);
    return Keep(kyTestAccess::MakeLooseRootStream(h));
  }
  kyStream* Child(kyStream* parent, const char* name, bool folder) {
    t_kyStreamU h = Header(name, folder);
    return Keep(kyTestAccess::MakeChildStream(parent, h, 1000 + 100 * m_streams.size()));
  }
  // A chain of `levels` folders below `top`, named L1, L2, ...; the deepest.
  kyStream* Chain(kyStream* top, int levels) {
    for (int i = 1; i <= levels; ++i) top = Child(top, ("L" + std::to_string(i)).c_str(), true);
    return top;
  }

 private:
  static t_kyStreamU Header(const char* name, bool folder) {
    t_kyStreamU h;
    memset(&h, 0, sizeof(h));
    h.Magic() = kStreamHeaderMagic;
    strncpy(h.Name(), name, kMaxNameLength);
    h.Flags() = folder ? kFolderFlag : 0;
    return h;
  }
  kyStream* Keep(kyStream* s) {
    m_streams.push_back(s);
    return s;
  }
  std::vector<kyStream*> m_streams;
};

// The recording, one readable line per record (read from a clone, so the
// recorder itself is not disturbed).
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
    std::string line = kKinds[op];
    if (op == RecOpEnter || op == RecOpEnterFast)
      line += std::string(name) + " " + std::to_string(n);
    if (op == RecOpRemove) line += name;
    if (op == RecOpWrite || op == RecOpAppend)
      line += std::string(name) + " " + std::string(reinterpret_cast<char*>(data), n);
    out.push_back(line);
  }
  EXPECT_EQ(c->GetBufferPos(), c->GetDataLength()) << "the recording ends inside a record";
  return out;
}

class RecorderStack : public ::testing::Test {
 protected:
  Tree tree;
  CCompRecorder rec;
  kyStream* root = tree.Root("R", true);
  kyStream* folder = tree.Child(root, "F", true);
  kyStream* entry = tree.Child(folder, "E", false);
  kyStream* sibling = tree.Child(root, "G", true);
};

TEST_F(RecorderStack, WriteTwoLevelsBelowTheRootEntersTheWholeChain) {
  rec.OpWrite(U("640"), 3, 0, entry, 1);
  const std::vector<unsigned char> expected = {1, 1, 0, 'R', 1,  // enter R, folder
                                               1, 1, 0, 'F', 1,  // enter F, folder
                                               1, 1, 0, 'E', 0,  // enter E
                                               5, 0, 1, 3,   0, 0, 0, '6', '4', '0'};
  unsigned char* p = kyTestAccess::Buffer(&rec);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::vector<unsigned char>(p, p + rec.GetDataLength()), expected);
  EXPECT_EQ(rec.GetStmDepth(), 3);
  EXPECT_EQ(kyTestAccess::Stack(&rec)[2].pStm, entry);
  EXPECT_STREQ(kyTestAccess::Stack(&rec)[1].szName, "F");
  EXPECT_EQ(kyTestAccess::Stack(&rec)[0].iFlag, 1);
  // The same stream again needs no enters; releases in nesting order leave.
  rec.OpAppend(U("ab"), 2, entry, 1);
  rec.OpLeave(entry);
  rec.OpLeave(folder);
  rec.OpLeave(root);
  EXPECT_EQ(rec.GetStmDepth(), 0);
  EXPECT_EQ(Records(rec), Lines({"enter R 1", "enter F 1", "enter E 0", "write 01 640",
                                 "append 1 ab", "leave", "leave", "leave"}));
}

TEST_F(RecorderStack, LeaveOfAStreamNotOnTopRecordsNothing) {
  CCompRecorder empty;
  empty.OpLeave(root);
  EXPECT_EQ(empty.GetDataLength(), 0u);
  EXPECT_EQ(empty.HasBeenStopped(), 0);
  rec.OpWrite(U("x"), 1, 0, entry, 1);
  unsigned int before = rec.GetDataLength();
  for (kyStream* s : {root, sibling, static_cast<kyStream*>(nullptr)}) rec.OpLeave(s);
  rec.OpWrite(U("x"), 1, 0, nullptr, 0);  // operations without a stream record nothing
  rec.OpAppend(U("x"), 1, nullptr, 1);
  EXPECT_EQ(rec.GetStmDepth(), 3);
  EXPECT_EQ(rec.GetDataLength(), before);
  EXPECT_EQ(rec.HasBeenStopped(), 0);
}

TEST_F(RecorderStack, TheThirtyThirdNestedEnterStopsTheRecorder) {
  kyStream* s = root;
  rec.OpEnter("R", 1, root);
  for (int depth = 2; depth <= 32; ++depth) {
    s = tree.Child(s, "N", true);
    rec.OpEnter("N", 1, s);
  }
  ASSERT_EQ(rec.GetStmDepth(), 32);
  ASSERT_EQ(rec.HasBeenStopped(), 0);
  unsigned int length = rec.GetDataLength();
  rec.OpEnter("X", 0, tree.Child(s, "X", false));
  EXPECT_EQ(rec.HasBeenStopped(), 1);
  EXPECT_EQ(rec.GetStmDepth(), 32);
  rec.OpLeave(s);
  rec.OpWrite(U("more"), 4, 0, s, 0);
  EXPECT_EQ(rec.GetDataLength(), length);
}

TEST_F(RecorderStack, AWriteThirtyThreeLevelsDownStopsTheRecorder) {
  kyStream* s = root;
  for (const char* data : {"a", "b", "c"}) {  // 11, 21, 31 levels
    s = tree.Chain(s, 10);
    rec.OpWrite(U(data), 1, 0, s, 0);
  }
  EXPECT_EQ(rec.GetStmDepth(), 31);
  EXPECT_EQ(rec.HasBeenStopped(), 0);
  unsigned int length = rec.GetDataLength();
  rec.OpWrite(U("d"), 1, 0, tree.Chain(s, 2), 0);  // 33 levels
  EXPECT_EQ(rec.HasBeenStopped(), 1);
  EXPECT_EQ(rec.GetDataLength(), length + 6);  // the 32nd enter (L1) got in, nothing more
}

TEST_F(RecorderStack, TenMissingAncestorsAreEnteredElevenAreNot) {
  rec.OpWrite(U("lost"), 4, 0, tree.Chain(root, 11), 0);  // 11 ancestors
  EXPECT_EQ(rec.GetDataLength(), 0u);
  EXPECT_EQ(rec.HasBeenStopped(), 0);                   // only that operation goes unrecorded
  rec.OpWrite(U("ok"), 2, 0, tree.Chain(root, 10), 0);  // 10 ancestors: L9 ... L1 and R
  EXPECT_EQ(rec.GetStmDepth(), 11);
  Lines lines = Records(rec);
  ASSERT_EQ(lines.size(), 12u);
  EXPECT_EQ(lines.front(), "enter R 1");
  EXPECT_EQ(lines[10], "enter L10 1");
  EXPECT_EQ(lines[11], "write 00 ok");
}

// Operations the stack cannot follow from the top E: below R but not below
// E, above E, in another root, and unrelated more than ten levels up.
TEST_F(RecorderStack, AnOperationOutsideTheEnteredChainStopsTheRecording) {
  kyStream* targets[] = {tree.Child(sibling, "C", false), folder, tree.Root("Q", false),
                         tree.Chain(tree.Root("Z", true), 12)};
  for (kyStream* target : targets) {
    CCompRecorder r;
    r.OpWrite(U("x"), 1, 0, entry, 0);
    unsigned int length = r.GetDataLength();
    if (target == folder)
      r.OpAppend(U("y"), 1, target, 1);
    else
      r.OpWrite(U("y"), 1, 0, target, 0);
    EXPECT_EQ(r.HasBeenStopped(), 1) << target->GetName();
    EXPECT_EQ(r.GetDataLength(), length);
  }
}

TEST_F(RecorderStack, EnterRefusals) {
  rec.OpEnter("R", 1, root);
  rec.OpEnter("E", 0, entry);  // its parent is not on top: nothing happens
  EXPECT_EQ(rec.GetStmDepth(), 1);
  EXPECT_EQ(rec.HasBeenStopped(), 0);
  EXPECT_EQ(Records(rec), Lines({"enter R 1"}));
  // Names longer than sixty stop the recording.
  const std::string name61(61, 'n');
  for (int fast = 0; fast < 2; ++fast) {
    CCompRecorder r;
    if (fast)
      r.OpEnterFast(name61.c_str(), 0, root);
    else
      r.OpEnter(name61.c_str(), 1, root);
    EXPECT_EQ(r.HasBeenStopped(), 1);
    EXPECT_EQ(r.GetStmDepth(), 0);
    EXPECT_EQ(r.GetDataLength(), 0u);
  }
}

TEST_F(RecorderStack, FastEnterRecordsOnlyWithAnEmptyStack) {
  rec.OpEnterFast("R", 1, root);
  EXPECT_EQ(rec.GetStmDepth(), 1);
  rec.OpAppend(U("v"), 1, folder, 0);
  rec.OpLeave(folder);
  rec.OpLeave(root);
  EXPECT_EQ(Records(rec), Lines({"fast R 1", "enter F 1", "append 0 v", "leave", "leave"}));
  unsigned int length = rec.GetDataLength();
  rec.OpEnterFast("R", 0, root);
  rec.OpEnterFast("Q", 0, sibling);  // a stream is entered: stops
  EXPECT_EQ(rec.HasBeenStopped(), 1);
  EXPECT_EQ(rec.GetDataLength(), length + 5);
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
  EXPECT_EQ(rec.HasBeenStopped(), 0);
  EXPECT_EQ(rec.GetStmDepth(), 1);
  EXPECT_EQ(Records(rec),
            Lines({"remove Old", "enter R 1", "write 00 x", "enter F 1", "enter E 0", "write 00 2",
                   "leave", "leave", "enter G 1", "remove G2", "leave"}));
}

}  // namespace
