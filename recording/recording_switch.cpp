// Switching a storage's recording on and off.  While m_pRecorder is set the
// stream operations report their changes to it.

#include <new>

#include "kystore/recorder.h"
#include "kystore/storage.h"

int kyStorage::StartRecording() {
  if (m_pRecorder != nullptr) return 1;  // goes on in the same buffer
  m_pRecorder = new (std::nothrow) CCompRecorder(4096);
  return m_pRecorder != nullptr ? 1 : 0;
}

// A recording that was stopped, or that still has streams entered, would
// not replay to what happened; the caller gets it back without data.
CCompRecorder* kyStorage::StopRecording() {
  CCompRecorder* recorder = m_pRecorder;
  if (recorder == nullptr) return nullptr;
  m_pRecorder = nullptr;
  if (recorder->HasBeenStopped() || recorder->GetStmDepth() > 0) recorder->Empty();
  return recorder;
}
