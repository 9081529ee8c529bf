// Placeholder until the recorder lands: construction and destruction only.
#include <cstdlib>
#include <cstring>

#include "kystore/recorder.h"

CCompRecorder::CCompRecorder(unsigned int nGrowBy)
    : m_iStmDepth(0),
      m_bStopped(0),
      m_pBuffer(nullptr),
      m_nPos(0),
      m_nLength(0),
      m_nDataLength(0),
      m_bOwnBuffer(1),
      m_bThrowExceptions(0),
      m_nGrowBy(nGrowBy < 4096 ? 4096 : nGrowBy) {
  memset(m_aStmStack, 0, sizeof(m_aStmStack));
}

CCompRecorder::~CCompRecorder() {
  if (m_bOwnBuffer) free(m_pBuffer);
}

// Hooks do nothing until the recorder lands.
void CCompRecorder::OpEnter(const char*, int, void*) {}
void CCompRecorder::OpEnterFast(const char*, int, void*) {}
void CCompRecorder::OpLeave(void*) {}
void CCompRecorder::OpWrite(unsigned char*, DWORD, int, void*, int) {}
void CCompRecorder::OpAppend(unsigned char*, DWORD, void*, int) {}
void CCompRecorder::OpRemove(const char*, void*) {}
