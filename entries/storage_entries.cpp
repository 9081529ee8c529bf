// Entries at the root of a storage: typed values kept in root streams named
// by their keys, found through the name map or, for the Fast forms, in the
// six fast slots only.  The value forms are those of a folder's entries.
//
// Choice made here, as for a folder's entries: a setter whose key names a
// root folder returns 0 before anything is recorded or written.

#include "kystore/recorder.h"
#include "kystore/storage.h"
#include "kystore/stream.h"

// The fast form opens or creates in the fast slots as OpenOrCreateStreamFast
// does, but looks at the stream before the fast enter is recorded, so that
// a folder is released unrecorded.
kyStream* kyStorage::OpenEntryForWrite(const char* szKey, bool bFast) {
  kyStream* entry;
  if (bFast) {
    entry = OpenStreamFast(szKey, kModeReadWriteShared);
    if (entry == nullptr) entry = CreateStreamFast(szKey, kModeReadWriteShared);
  } else {
    entry = OpenOrCreateStream(szKey, 0);
  }
  if (entry == nullptr) return nullptr;
  if (entry->HoldsChildren()) {
    entry->Release();
    return nullptr;
  }
  if (bFast && m_pRecorder != nullptr) m_pRecorder->OpEnterFast(szKey, 0, entry);
  return entry;
}

kyStream* kyStorage::OpenEntryForRead(const char* szKey, bool bFast) {
  return bFast ? OpenStreamFast(szKey, kModeReadShared) : OpenStream(szKey, kModeReadShared);
}

// --- through the name map ---------------------------------------------------------------

int kyStorage::SetEntry(const char* szKey, int value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, false), &value, sizeof(value));
}
int kyStorage::SetEntry(const char* szKey, DWORD value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, false), &value, sizeof(value));
}
int kyStorage::SetEntry(const char* szKey, double value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, false), &value, sizeof(value));
}
int kyStorage::SetEntry(const char* szKey, __int64 value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, false), &value, sizeof(value));
}
int kyStorage::SetEntry(const char* szKey, unsigned __int64 value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, false), &value, sizeof(value));
}
int kyStorage::SetEntry(const char* szKey, const char* value) {
  return kyStream::PutStringValue(OpenEntryForWrite(szKey, false), value);
}

int kyStorage::GetEntry(const char* szKey, int def) {
  int value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, false), &value, sizeof(value)) ? value
                                                                                        : def;
}
DWORD kyStorage::GetEntry(const char* szKey, DWORD def) {
  DWORD value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, false), &value, sizeof(value)) ? value
                                                                                        : def;
}
double kyStorage::GetEntry(const char* szKey, double def) {
  double value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, false), &value, sizeof(value)) ? value
                                                                                        : def;
}
__int64 kyStorage::GetEntry(const char* szKey, __int64 def) {
  __int64 value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, false), &value, sizeof(value)) ? value
                                                                                        : def;
}
unsigned __int64 kyStorage::GetEntry(const char* szKey, unsigned __int64 def) {
  unsigned __int64 value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, false), &value, sizeof(value)) ? value
                                                                                        : def;
}
CString kyStorage::GetEntry(const char* szKey, const char* def) {
  return kyStream::GetStringValue(OpenEntryForRead(szKey, false), def);
}

// The buffer forms take nothing for size 0 and open nothing; a null buffer
// with a size is refused.
int kyStorage::SetEntry(const char* szKey, const void* data, DWORD size) {
  if (size == 0 || data == nullptr) return size == 0 ? 1 : 0;
  return kyStream::AppendValue(OpenEntryForWrite(szKey, false), data, size, true);
}

int kyStorage::SetEntryNoPrefix(const char* szKey, const void* data, DWORD size) {
  if (size == 0 || data == nullptr) return size == 0 ? 1 : 0;
  return kyStream::AppendValue(OpenEntryForWrite(szKey, false), data, size, false);
}

int kyStorage::SetEntryEraseOld(const char* szKey, const void* data, DWORD size, int bPrependSize) {
  if (size == 0 || data == nullptr) return size == 0 ? 1 : 0;
  return kyStream::PutErasingOld(OpenEntryForWrite(szKey, false), data, size, bPrependSize);
}

int kyStorage::GetEntryErasedOld(const char* szKey, void** data, unsigned int* size) {
  if (data == nullptr || size == nullptr) return 0;
  *data = nullptr;
  *size = 0;
  return kyStream::GetErasedOld(OpenEntryForRead(szKey, false), data, size);
}

int kyStorage::GetEntryErasedOld(const char* szKey, void* data, unsigned int size) {
  return kyStream::GetErasedOld(OpenEntryForRead(szKey, false), data, size);
}

// --- the fast slots ---------------------------------------------------------------

int kyStorage::SetEntryFast(const char* szKey, int value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, true), &value, sizeof(value));
}
int kyStorage::SetEntryFast(const char* szKey, DWORD value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, true), &value, sizeof(value));
}
int kyStorage::SetEntryFast(const char* szKey, double value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, true), &value, sizeof(value));
}
int kyStorage::SetEntryFast(const char* szKey, __int64 value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, true), &value, sizeof(value));
}
int kyStorage::SetEntryFast(const char* szKey, unsigned __int64 value) {
  return kyStream::PutFixedValue(OpenEntryForWrite(szKey, true), &value, sizeof(value));
}
int kyStorage::SetEntryFast(const char* szKey, const char* value) {
  return kyStream::PutStringValue(OpenEntryForWrite(szKey, true), value);
}

int kyStorage::GetEntryFast(const char* szKey, int def) {
  int value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, true), &value, sizeof(value)) ? value
                                                                                       : def;
}
DWORD kyStorage::GetEntryFast(const char* szKey, DWORD def) {
  DWORD value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, true), &value, sizeof(value)) ? value
                                                                                       : def;
}
double kyStorage::GetEntryFast(const char* szKey, double def) {
  double value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, true), &value, sizeof(value)) ? value
                                                                                       : def;
}
__int64 kyStorage::GetEntryFast(const char* szKey, __int64 def) {
  __int64 value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, true), &value, sizeof(value)) ? value
                                                                                       : def;
}
unsigned __int64 kyStorage::GetEntryFast(const char* szKey, unsigned __int64 def) {
  unsigned __int64 value = 0;
  return kyStream::GetFixedValue(OpenEntryForRead(szKey, true), &value, sizeof(value)) ? value
                                                                                       : def;
}
CString kyStorage::GetEntryFast(const char* szKey, const char* def) {
  return kyStream::GetStringValue(OpenEntryForRead(szKey, true), def);
}
