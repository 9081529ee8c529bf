// The recorder's stream stack: which streams the recorded operations stand
// in, and the enter and leave records that keep a replay in the same place.
//
// Entries are pushed lazily, when an operation is recorded on a stream that
// is not on top (its ancestors below the top are entered first), and popped
// when the stream on top is released.  Whenever the stack cannot follow an
// operation the recording is stopped instead of recording something that
// would replay in the wrong place.

#include <cstring>

#include "kystore/recorder.h"
#include "kystore/stream.h"

namespace {

const int kMaxDepth = 32;
// Most ancestors entered for one operation.
const int kMaxInsertedParents = 10;
// Longest name the reader of a recording accepts; the stream stack holds it
// with room to spare.
const size_t kMaxEnterName = 60;
// Bound of the walk up a parent chain; a chain longer than this is treated
// as unrelated, which stops the recording (the safe side).
const int kMaxAncestorWalk = 4096;

kyStream* AsStream(void* stm) {
  return static_cast<kyStream*>(stm);
}

// True for a name that a stack entry holds and a reader accepts.
bool EnterNameFits(const char* name) {
  return name != nullptr && strnlen(name, kMaxEnterName + 1) <= kMaxEnterName;
}

// True when `ancestor` lies on the parent chain of `stm`.
bool IsBelow(kyStream* stm, kyStream* ancestor) {
  kyStream* p = stm->GetParentStm();
  for (int hops = 0; p != nullptr && hops < kMaxAncestorWalk; ++hops, p = p->GetParentStm())
    if (p == ancestor) return true;
  return false;
}

void FillEntry(RecStmStruct& entry, const char* name, int flag, void* stm) {
  memset(entry.szName, 0, sizeof(entry.szName));
  strncpy(entry.szName, name, kMaxEnterName);
  entry.iFlag = flag;
  entry.pStm = stm;
}

}  // namespace

void CCompRecorder::Stop() {
  m_bStopped = 1;
}

// A name that would not fit the stack entry or that a reader would refuse
// stops the recording (stream names never exceed 60 characters).
void CCompRecorder::OpEnter(const char* name, int bFolder, void* stm) {
  if (m_iStmDepth >= kMaxDepth || !EnterNameFits(name)) {
    Stop();
    return;
  }
  if (m_iStmDepth > 0) {
    if (stm == nullptr) return;
    if (m_aStmStack[m_iStmDepth - 1].pStm != AsStream(stm)->GetParentStm()) return;
  }
  FillEntry(m_aStmStack[m_iStmDepth], name, bFolder, stm);
  ++m_iStmDepth;
  PushOp(RecOpEnter, name, nullptr, static_cast<DWORD>(bFolder));
}

void CCompRecorder::OpEnterFast(const char* name, int bSeekToEnd, void* stm) {
  if (m_iStmDepth > 0 || !EnterNameFits(name)) {
    Stop();
    return;
  }
  FillEntry(m_aStmStack[0], name, bSeekToEnd, stm);
  m_iStmDepth = 1;
  PushOp(RecOpEnterFast, name, nullptr, static_cast<DWORD>(bSeekToEnd));
}

void CCompRecorder::OpLeave(void* stm) {
  if (m_iStmDepth == 0 || m_aStmStack[m_iStmDepth - 1].pStm != stm) return;
  --m_iStmDepth;
  PushOp(RecOpLeave, nullptr, nullptr, 0);
}

int CCompRecorder::UpdateStmStack(void* stm) {
  if (m_iStmDepth > 0 && m_aStmStack[m_iStmDepth - 1].pStm == stm) return 1;
  RecStmStruct* top = m_iStmDepth > 0 ? &m_aStmStack[m_iStmDepth - 1] : nullptr;
  return InsertParents(top, stm) ? 1 : 0;
}

// Enters the ancestors of `stm` that lie below `top`, outermost first, then
// `stm` itself.  More than ten of them leave this one operation unrecorded
// (the recording goes on).  A stream that is not below `top` at all cannot be
// followed by the stack: the recording stops, so that its operation is never
// recorded inside the unrelated top stream.
int CCompRecorder::InsertParents(RecStmStruct* top, void* stm) {
  if (stm == nullptr) return 0;
  kyStream* stream = AsStream(stm);
  kyStream* topStream = top != nullptr ? static_cast<kyStream*>(top->pStm) : nullptr;
  kyStream* chain[kMaxInsertedParents];
  int count = 0;
  if (stream->GetParentStm() != nullptr) {
    count = stream->GetChildrenOf(topStream, chain, kMaxInsertedParents);
    if (count < 0) {
      if (topStream == nullptr || IsBelow(stream, topStream)) return 0;
      Stop();
      return 0;
    }
  }
  for (int i = count - 1; i >= 0; --i) {
    OpEnter(chain[i]->GetName(), chain[i]->IsFolder(), chain[i]);
    if (m_bStopped) return 0;
  }
  OpEnter(stream->GetName(), stream->IsFolder(), stream);
  if (m_bStopped) return 0;
  if (m_iStmDepth == 0 || m_aStmStack[m_iStmDepth - 1].pStm != stm) {
    Stop();
    return 0;
  }
  return 1;
}

void CCompRecorder::OpWrite(unsigned char* data, DWORD n, int bEraseOld, void* stm,
                            int bPrependSize) {
  if (stm == nullptr || !UpdateStmStack(stm)) return;
  const char flags[3] = {bEraseOld ? '1' : '0', bPrependSize ? '1' : '0', '\0'};
  PushOp(RecOpWrite, flags, data, n);
}

void CCompRecorder::OpAppend(unsigned char* data, DWORD n, void* stm, int bWithPrefix) {
  if (stm == nullptr || !UpdateStmStack(stm)) return;
  const char flags[2] = {bWithPrefix ? '1' : '0', '\0'};
  PushOp(RecOpAppend, flags, data, n);
}

// A root stream can only be removed from an empty stack; with streams
// entered its removal is not recorded.
void CCompRecorder::OpRemove(const char* name, void* parent) {
  if (parent == nullptr) {
    if (m_iStmDepth == 0) PushOp(RecOpRemove, name, nullptr, 0);
    return;
  }
  if (UpdateStmStack(parent)) PushOp(RecOpRemove, name, nullptr, 0);
}
