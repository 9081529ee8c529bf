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

typedef std::vector<unsigned char> Bytes;
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
  std::unique_ptr<CCompRecorder> c(r.Clone());
  Lines out;
  RecOpEnum op;
  char name[61];
  unsigned char* data;
  DWORD n;
  while (c->PopOp(&op, name, &data, &n)) {
    switch (op) {
      case RecOpEnter:
        out.push_back("enter " + std::string(name) + " " + std::to_string(n));
        break;
      case RecOpEnterFast:
        out.push_back("fast " + std::string(name) + " " + std::to_string(n));
        break;
      case RecOpLeave:
        out.push_back("leave");
        break;
      case RecOpRemove:
        out.push_back("remove " + std::string(name));
        break;
      case RecOpWrite:
      case RecOpAppend:
        out.push_back(std::string(op == RecOpWrite ? "write " : "append ") + name + " " +
                      std::string(reinterpret_cast<char*>(data), n));
        break;
    }
  }
  EXPECT_EQ(c->GetBufferPos(), c->GetDataLength()) << "the recording ends inside a record";
  return out;
}

class RecorderStack : public ::testing::Test {
 protected:
  RecorderStack() {
    root = tree.Root("R", true);
    folder = tree.Child(root, "F", true);
    entry = tree.Child(folder, "E", false);
    sibling = tree.Child(root, "G", true);
  }
  Tree tree;
  CCompRecorder rec;
  kyStream* root;
  kyStream* folder;
  kyStream* entry;
  kyStream* sibling;
};

TEST_F(RecorderStack, WriteTwoLevelsBelowTheRootEntersTheWholeChain) {
  rec.OpWrite(U("640"), 3, 0, entry, 1);
  const Bytes expected = {1, 1, 0, 'R', 1,                        // enter R, folder
                          1, 1, 0, 'F', 1,                        // enter F, folder
                          1, 1, 0, 'E', 0,                        // enter E
                          5, 0, 1, 3,   0, 0, 0, '6', '4', '0'};  // write
  unsigned char* p = kyTestAccess::Buffer(&rec);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Bytes(p, p + rec.GetDataLength()), expected);
  EXPECT_EQ(rec.GetStmDepth(), 3);
  EXPECT_EQ(kyTestAccess::Stack(&rec)[2].pStm, entry);
  EXPECT_STREQ(kyTestAccess::Stack(&rec)[1].szName, "F");
  EXPECT_EQ(kyTestAccess::Stack(&rec)[0].iFlag, 1);
}

TEST_F(RecorderStack, TwoWritesOnOneStreamRecordOneEnterChain) {
  rec.OpAppend(U("ab"), 2, entry, 1);
  rec.OpWrite(U("cd"), 2, 1, entry, 0);
  EXPECT_EQ(Records(rec),
            Lines({"enter R 1", "enter F 1", "enter E 0", "append 1 ab", "write 10 cd"}));
}

TEST_F(RecorderStack, ReleasesInNestingOrderRecordLeaves) {
  rec.OpWrite(U("x"), 1, 0, entry, 1);
  rec.OpLeave(entry);
  rec.OpLeave(folder);
  rec.OpLeave(root);
  EXPECT_EQ(rec.GetStmDepth(), 0);
  EXPECT_EQ(Records(rec), Lines({"enter R 1", "enter F 1", "enter E 0", "write 01 x", "leave",
                                 "leave", "leave"}));
}

TEST_F(RecorderStack, LeaveOfAStreamNotOnTopRecordsNothing) {
  rec.OpWrite(U("x"), 1, 0, entry, 1);
  unsigned int before = rec.GetDataLength();
  rec.OpLeave(root);
  rec.OpLeave(sibling);
  rec.OpLeave(nullptr);
  EXPECT_EQ(rec.GetStmDepth(), 3);
  EXPECT_EQ(rec.GetDataLength(), before);
  CCompRecorder empty;
  empty.OpLeave(root);
  EXPECT_EQ(empty.GetDataLength(), 0u);
  EXPECT_EQ(empty.HasBeenStopped(), 0);
}

TEST_F(RecorderStack, AWriteBelowTheTopEntersOnlyTheMissingLevels) {
  rec.OpWrite(U("1"), 1, 0, folder, 0);
  rec.OpWrite(U("2"), 1, 0, entry, 0);
  EXPECT_EQ(Records(rec),
            Lines({"enter R 1", "enter F 1", "write 00 1", "enter E 0", "write 00 2"}));
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
  kyStream* deepest = tree.Child(s, "X", false);
  rec.OpEnter("X", 0, deepest);
  EXPECT_EQ(rec.HasBeenStopped(), 1);
  EXPECT_EQ(rec.GetStmDepth(), 32);
  rec.OpLeave(s);
  rec.OpWrite(U("more"), 4, 0, s, 0);
  EXPECT_EQ(rec.GetDataLength(), length);
}

TEST_F(RecorderStack, AWriteThirtyThreeLevelsDownStopsTheRecorder) {
  kyStream* s = tree.Chain(root, 10);
  rec.OpWrite(U("a"), 1, 0, s, 0);  // 11 levels
  s = tree.Chain(s, 10);
  rec.OpWrite(U("b"), 1, 0, s, 0);  // 21 levels
  s = tree.Chain(s, 10);
  rec.OpWrite(U("c"), 1, 0, s, 0);  // 31 levels
  EXPECT_EQ(rec.GetStmDepth(), 31);
  EXPECT_EQ(rec.HasBeenStopped(), 0);
  unsigned int length = rec.GetDataLength();
  s = tree.Chain(s, 2);
  rec.OpWrite(U("d"), 1, 0, s, 0);  // 33 levels
  EXPECT_EQ(rec.HasBeenStopped(), 1);
  EXPECT_EQ(rec.GetDataLength(), length + 6);  // the 32nd enter (L1) got in, nothing more
}

TEST_F(RecorderStack, MoreThanTenMissingAncestorsLeaveOneOperationUnrecorded) {
  kyStream* deep = tree.Chain(root, 11);  // 11 ancestors: L10 ... L1 and R
  rec.OpWrite(U("lost"), 4, 0, deep, 0);
  EXPECT_EQ(rec.GetDataLength(), 0u);
  EXPECT_EQ(rec.HasBeenStopped(), 0);
  rec.OpWrite(U("kept"), 4, 0, entry, 0);
  EXPECT_EQ(Records(rec), Lines({"enter R 1", "enter F 1", "enter E 0", "write 00 kept"}));
}

TEST_F(RecorderStack, TenMissingAncestorsAreEntered) {
  kyStream* deep = tree.Chain(root, 10);  // its ancestors: L9 ... L1 and R
  rec.OpWrite(U("ok"), 2, 0, deep, 0);
  EXPECT_EQ(rec.GetStmDepth(), 11);
  EXPECT_EQ(rec.HasBeenStopped(), 0);
  Lines lines = Records(rec);
  ASSERT_EQ(lines.size(), 12u);
  EXPECT_EQ(lines.front(), "enter R 1");
  EXPECT_EQ(lines[9], "enter L9 1");
  EXPECT_EQ(lines[10], "enter L10 1");
  EXPECT_EQ(lines[11], "write 00 ok");
}

TEST_F(RecorderStack, AnOperationOutsideTheEnteredChainStopsTheRecording) {
  rec.OpWrite(U("x"), 1, 0, entry, 0);
  unsigned int length = rec.GetDataLength();
  kyStream* cousin = tree.Child(sibling, "C", false);
  rec.OpWrite(U("y"), 1, 0, cousin, 0);  // below R, but not below the top E
  EXPECT_EQ(rec.HasBeenStopped(), 1);
  EXPECT_EQ(rec.GetDataLength(), length);
}

TEST_F(RecorderStack, AnOperationOnAStreamAboveTheTopStopsTheRecording) {
  rec.OpWrite(U("x"), 1, 0, entry, 0);
  unsigned int length = rec.GetDataLength();
  rec.OpAppend(U("y"), 1, folder, 1);
  EXPECT_EQ(rec.HasBeenStopped(), 1);
  EXPECT_EQ(rec.GetDataLength(), length);
}

TEST_F(RecorderStack, AnOperationInAnotherRootStopsTheRecording) {
  rec.OpWrite(U("x"), 1, 0, folder, 0);
  kyStream* other = tree.Root("Q", false);
  rec.OpWrite(U("y"), 1, 0, other, 0);
  EXPECT_EQ(rec.HasBeenStopped(), 1);
  kyStream* far = tree.Chain(tree.Root("Z", true), 12);
  CCompRecorder rec2;
  rec2.OpWrite(U("x"), 1, 0, folder, 0);
  rec2.OpWrite(U("y"), 1, 0, far, 0);  // more than ten up, and unrelated
  EXPECT_EQ(rec2.HasBeenStopped(), 1);
}

TEST_F(RecorderStack, EnterOfAStreamWhoseParentIsNotOnTopDoesNothing) {
  rec.OpEnter("R", 1, root);
  rec.OpEnter("E", 0, entry);
  EXPECT_EQ(rec.GetStmDepth(), 1);
  EXPECT_EQ(rec.HasBeenStopped(), 0);
  EXPECT_EQ(Records(rec), Lines({"enter R 1"}));
}

TEST_F(RecorderStack, EnterNamesLongerThanSixtyStopTheRecording) {
  std::string name61(61, 'n');
  std::string name100(100, 'n');
  rec.OpEnter(name61.c_str(), 1, root);
  EXPECT_EQ(rec.HasBeenStopped(), 1);
  EXPECT_EQ(rec.GetStmDepth(), 0);
  CCompRecorder fast;
  fast.OpEnterFast(name100.c_str(), 0, root);
  EXPECT_EQ(fast.HasBeenStopped(), 1);
  EXPECT_EQ(fast.GetStmDepth(), 0);
  EXPECT_EQ(fast.GetDataLength(), 0u);
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

TEST_F(RecorderStack, RootRemovalIsRecordedOnlyFromAnEmptyStack) {
  rec.OpRemove("Old", nullptr);
  rec.OpWrite(U("x"), 1, 0, folder, 0);
  rec.OpRemove("Other", nullptr);  // streams entered: not recorded
  EXPECT_EQ(rec.HasBeenStopped(), 0);
  EXPECT_EQ(Records(rec), Lines({"remove Old", "enter R 1", "enter F 1", "write 00 x"}));
}

TEST_F(RecorderStack, RemovalInsideAFolderEntersTheFolderFirst) {
  rec.OpRemove("E", folder);
  rec.OpLeave(folder);  // the removal's own leave of its parent
  EXPECT_EQ(Records(rec), Lines({"enter R 1", "enter F 1", "remove E", "leave"}));
  EXPECT_EQ(rec.GetStmDepth(), 1);
}

TEST_F(RecorderStack, OperationsWithoutAStreamRecordNothing) {
  rec.OpWrite(U("x"), 1, 0, nullptr, 0);
  rec.OpAppend(U("x"), 1, nullptr, 1);
  EXPECT_EQ(rec.GetDataLength(), 0u);
  EXPECT_EQ(rec.HasBeenStopped(), 0);
}

}  // namespace
