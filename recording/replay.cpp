// Replaying a recording: its records are applied in order, each inside the
// stream that the enter records before it made current.

#include "kystore/recorder.h"
#include "kystore/storage.h"
#include "kystore/stream.h"

namespace {

// The recorder's own stack depth; a recording never nests deeper.
const int kReplayDepth = 32;

// Puts `s` at its start or its end.  A stream without blocks cannot seek,
// but then it already stands at 0, which is both.
bool PlaceAt(kyStream* s, bool atEnd) {
  if (s->Seek(0, atEnd ? 1 : 0, true) == 0) return true;
  return s->GetCurDataPos() == (atEnd ? s->GetLength() : 0);
}

// An entry value appended to `top`.  With the prefix, the offset at which the
// new value starts (the current length, or the prefix's own width for an
// empty stream) is written first at the start, 8 bytes wide with 64-bit
// offsets and 4 with 32-bit ones, so that the prefix always points at the
// newest value.  A stream that cannot be placed is not written: a value in
// the wrong place would be worse than a missing one.
void ReplayAppend(kyStream* top, const unsigned char* data, DWORD n, bool bWithPrefix, bool b64) {
  if (bWithPrefix) {
    const int width = b64 ? 8 : 4;
    const __int64 length = top->GetLength();
    const unsigned long long offset = static_cast<unsigned long long>(length == 0 ? width : length);
    unsigned char prefix[8];
    for (int i = 0; i < width; ++i) prefix[i] = static_cast<unsigned char>(offset >> (8 * i));
    if (PlaceAt(top, false)) top->Write(prefix, width, false, nullptr);
  }
  if (PlaceAt(top, true)) top->Write(data, n, false, nullptr);
}

}  // namespace

int kyStorage::ReplayRecording(unsigned char* buf, DWORD len) {
  if (buf == nullptr || len == 0) return 0;
  // The reader borrows the buffer: it neither frees nor changes it, and the
  // data of write records are used where they lie.
  CCompRecorder reader;
  reader.Attach(buf, len, 0);
  kyStream* entered[kReplayDepth];
  int depth = 0;
  int applied = 0;
  RecOpEnum op;
  char name[kMaxNameLength + 4];
  unsigned char* data = nullptr;
  DWORD n = 0;
  // Every record takes at least one byte, so the loop ends.
  while (reader.PopOp(&op, name, &data, &n) && ReplayRecord(op, name, data, n, entered, depth))
    ++applied;
  while (depth > 0) entered[--depth]->Release();  // innermost first
  reader.Detach(nullptr);
  return applied;
}

bool kyStorage::ReplayRecord(int op, const char* name, unsigned char* data, DWORD n,
                             kyStream** entered, int& depth) {
  kyStream* top = depth > 0 ? entered[depth - 1] : nullptr;
  switch (op) {
    case RecOpEnter:
    case RecOpEnterFast: {
      // A 33rd stream cannot come from the recorder; such a buffer ends
      // here as at an enter that fails.
      if (depth >= kReplayDepth) return false;
      kyStream* s;
      if (op == RecOpEnterFast)
        s = OpenOrCreateStreamFast(name, static_cast<int>(n));
      else if (top == nullptr)
        s = OpenOrCreateStream(name, static_cast<int>(n));
      else
        s = top->OpenOrCreateStream(name, static_cast<int>(n));
      if (s == nullptr) return false;
      entered[depth++] = s;
      return true;
    }
    case RecOpLeave:
      if (top == nullptr) return false;
      top->Release();
      --depth;
      return true;
    case RecOpRemove:
      ReplayRemove(name, entered, depth);
      return true;
    // A folder's data are its child table, which only the library writes:
    // a write or append into a folder (possible only in a buffer not made
    // by the recorder) ends the replay like a malformed record.
    case RecOpWrite:
      if (top == nullptr || top->IsFolder()) return false;
      ReplayWrite(top, name, data, n);
      return true;
    case RecOpAppend:
      if (top == nullptr || top->IsFolder()) return false;
      ReplayAppend(top, data, n, name[0] != '0', m_bUse64BitOffsets != 0);
      return true;
  }
  return false;
}

// A stream that is found but cannot be removed is released, and so is one
// whose removal would take away a stream the replay stands in (possible
// only in a buffer not made by the recorder): the entered objects would be
// left over a freed slot.
void kyStorage::ReplayRemove(const char* name, kyStream** entered, int depth) {
  kyStream* top = depth > 0 ? entered[depth - 1] : nullptr;
  kyStream* victim = top != nullptr ? top->OpenStream(name, kModeReadWriteShared)
                                    : OpenStream(name, kModeReadWriteShared);
  if (victim == nullptr) return;
  for (int i = 0; i < depth; ++i) {
    if (victim->HoldsInItsTree(entered[i])) {
      victim->Release();
      return;
    }
  }
  if (!victim->Remove()) victim->Release();
}

// The write goes to the top stream's cursor, where the recorded one went.
// Opening children and releasing them moved the shared file position, so
// it is put back under that cursor first.
void kyStorage::ReplayWrite(kyStream* top, const char* flags, const unsigned char* data, DWORD n) {
  const bool bEraseOld = flags[0] != '0';
  const bool bPrependSize = flags[1] != '0';
  if (!top->ResumeAtCursor()) return;
  if (bEraseOld && bPrependSize) top->PrependSize(n);
  top->Write(data, n, bEraseOld, nullptr);
}
