// kyTestAccess: the tests' window on private members.  The library's
// classes name it as a friend; nothing outside tests/ defines it.
// Add accessors here as tests need them.
#ifndef KYSTORE_TESTS_SUPPORT_TEST_ACCESS_H_
#define KYSTORE_TESTS_SUPPORT_TEST_ACCESS_H_

#include "kystore.h"

class kyTestAccess {
 public:
  // --- kyStorage ---------------------------------------------------------
  static __int64& LastAppended(kyStorage* s) { return s->m_lastAppended; }
  static __int64 RootOffset(kyStorage* s) { return s->m_rootOffset; }
  static WORD FastSlots(kyStorage* s) { return s->m_wFastSlots; }
  static WORD SlotsPerBlock(kyStorage* s) { return s->m_wSlotsPerBlock; }
  static int Use64(kyStorage* s) { return s->m_bUse64BitOffsets; }
  static int Format(kyStorage* s) { return s->m_iFormat; }
  static BOOL InMemory(kyStorage* s) { return s->m_bInMemory; }
  static HANDLE File(kyStorage* s) { return s->m_hFile; }
  static __int64 ImageSize(kyStorage* s) { return s->m_imageSize; }
  static t_kyStreamMap& Map(kyStorage* s) { return s->m_streamMap; }
  static t_OpenStreamList& Registry(kyStorage* s) { return s->m_openStreams; }
  static CStringArray& StreamNames(kyStorage* s) { return s->m_streamNames; }
  static CCompRecorder* Recorder(kyStorage* s) { return s->m_pRecorder; }
  static bool FindStreamOffset(kyStorage* s, const char* name, tag_kyStreamOffset& o) {
    return s->FindStreamOffset(name, o);
  }
  static t_OpenStream* IsStreamOpen(kyStorage* s, const char* name) {
    return s->IsStreamOpen(name);
  }
  static int CloseStream(kyStorage* s, const char* name) { return s->CloseStream(name); }
  static __int64 SetFilePointer(kyStorage* s, __int64 d, DWORD m) {
    return s->SetFilePointer(s->m_hFile, d, m);
  }
  static BOOL ReadFile(kyStorage* s, void* buf, __int64 n, __int64* got) {
    return s->ReadFile(s->m_hFile, buf, n, got, nullptr);
  }
  static bool WriteStreamHeader(kyStorage* s, __int64 off, t_kyStreamU& h) {
    return s->WriteStreamHeader(off, h);
  }

  // --- kyStream ----------------------------------------------------------
  static t_kyStreamU& Header(kyStream* s) { return s->m_hdr; }
  static tag_kyStreamOffset& Offset(kyStream* s) { return s->m_offset; }
  static DWORD& OpenMode(kyStream* s) { return s->m_dwOpenMode; }
  static __int64 CurBlock(kyStream* s) { return s->m_iCurBlock; }
  static __int64 BlockPos(kyStream* s) { return s->m_iBlockPos; }
  static __int64 DataPos(kyStream* s) { return s->m_iDataPos; }
  static __int64 MemPos(kyStream* s) { return s->m_memPos; }
  static t_kyChildMap* PreloadMap(kyStream* s) { return s->m_pPreloadMap; }
  static t_OpenStreamList& Children(kyStream* s) { return s->m_openChildren; }
  static __int64 AllocateNextBlock(kyStream* s, __int64 prev) { return s->AllocateNextBlock(prev); }
  static __int64 StreamSetFilePointer(kyStream* s, __int64 d, DWORD m) {
    return s->SetFilePointer(s->m_hFile, d, m);
  }

  // --- CCompRecorder -----------------------------------------------------
  static RecStmStruct* Stack(CCompRecorder* r) { return r->m_aStmStack; }
  static unsigned char* Buffer(CCompRecorder* r) { return r->m_pBuffer; }
  static int OwnsBuffer(CCompRecorder* r) { return r->m_bOwnBuffer; }
  static void PushOp(CCompRecorder* r, RecOpEnum op, const char* name, unsigned char* data,
                     DWORD n) {
    r->PushOp(op, name, data, n);
  }
  static void SetBufferPos(CCompRecorder* r, unsigned int pos) { r->m_nPos = pos; }

  // --- stream objects for the recorder's stack tests -----------------------
  // A root stream object over `h` that belongs to no storage.
  static kyStream* MakeLooseRootStream(t_kyStreamU& h) {
    tag_kyStreamOffset o = {0, 0, 0, 0};
    return new kyStream(static_cast<kyStorage*>(nullptr), h, INVALID_HANDLE_VALUE, o);
  }
  // A child stream object of `parent` over `h`; nothing is read or written.
  static kyStream* MakeChildStream(kyStream* parent, t_kyStreamU& h, __int64 headerOffset) {
    tag_kyStreamOffset o = {headerOffset, 0, 0, 0};
    return new kyStream(parent, h, INVALID_HANDLE_VALUE, o);
  }
  static void DeleteStream(kyStream* s) { delete s; }
};

#endif  // KYSTORE_TESTS_SUPPORT_TEST_ACCESS_H_
