// Entries of a folder: typed values kept in its children, one data stream
// per key.  Every call opens the key's child, works on it and releases it.
//
// Choice made here: a setter whose key names a folder (any stream carrying
// the folder bit) returns 0 and writes nothing, so that the folder and
// everything below it stay as they were.  The check comes before anything
// is recorded or written.

#include "kystore/stream.h"

kyStream* kyStream::OpenEntryForWrite(const char* szKey) {
  kyStream* entry = OpenOrCreateStream(szKey, 0);
  if (entry != nullptr && entry->HoldsChildren()) {
    entry->Release();
    return nullptr;
  }
  return entry;
}

kyStream* kyStream::OpenEntryForRead(const char* szKey) {
  return OpenStream(szKey, kModeReadShared);
}

int kyStream::SetEntry(const char* szKey, int value) {
  return PutFixedValue(OpenEntryForWrite(szKey), &value, sizeof(value));
}
int kyStream::SetEntry(const char* szKey, DWORD value) {
  return PutFixedValue(OpenEntryForWrite(szKey), &value, sizeof(value));
}
int kyStream::SetEntry(const char* szKey, double value) {
  return PutFixedValue(OpenEntryForWrite(szKey), &value, sizeof(value));
}
int kyStream::SetEntry(const char* szKey, __int64 value) {
  return PutFixedValue(OpenEntryForWrite(szKey), &value, sizeof(value));
}
int kyStream::SetEntry(const char* szKey, unsigned __int64 value) {
  return PutFixedValue(OpenEntryForWrite(szKey), &value, sizeof(value));
}

// A null RECT or SIZE gives nothing to write: 0, and the key is not opened.
int kyStream::SetEntry(const char* szKey, SIZE* value) {
  return value != nullptr ? PutFixedValue(OpenEntryForWrite(szKey), value, sizeof(*value)) : 0;
}
int kyStream::SetEntry(const char* szKey, RECT* value) {
  return value != nullptr ? PutFixedValue(OpenEntryForWrite(szKey), value, sizeof(*value)) : 0;
}

int kyStream::SetEntry(const char* szKey, const char* value) {
  return PutStringValue(OpenEntryForWrite(szKey), value);
}

// The buffer forms take nothing for size 0 and open nothing; a null buffer
// with a size is refused.
int kyStream::SetEntry(const char* szKey, const void* data, DWORD size) {
  if (size == 0 || data == nullptr) return size == 0 ? 1 : 0;
  return AppendValue(OpenEntryForWrite(szKey), data, size, true);
}

int kyStream::SetEntryNoPrefix(const char* szKey, const void* data, DWORD size) {
  if (size == 0 || data == nullptr) return size == 0 ? 1 : 0;
  return AppendValue(OpenEntryForWrite(szKey), data, size, false);
}

int kyStream::SetEntryEraseOld(const char* szKey, const void* data, DWORD size, int bPrependSize) {
  if (size == 0 || data == nullptr) return size == 0 ? 1 : 0;
  return PutErasingOld(OpenEntryForWrite(szKey), data, size, bPrependSize);
}

int kyStream::GetEntry(const char* szKey, int def) {
  int value = 0;
  return GetFixedValue(OpenEntryForRead(szKey), &value, sizeof(value)) ? value : def;
}
DWORD kyStream::GetEntry(const char* szKey, DWORD def) {
  DWORD value = 0;
  return GetFixedValue(OpenEntryForRead(szKey), &value, sizeof(value)) ? value : def;
}
double kyStream::GetEntry(const char* szKey, double def) {
  double value = 0;
  return GetFixedValue(OpenEntryForRead(szKey), &value, sizeof(value)) ? value : def;
}
__int64 kyStream::GetEntry(const char* szKey, __int64 def) {
  __int64 value = 0;
  return GetFixedValue(OpenEntryForRead(szKey), &value, sizeof(value)) ? value : def;
}
unsigned __int64 kyStream::GetEntry(const char* szKey, unsigned __int64 def) {
  unsigned __int64 value = 0;
  return GetFixedValue(OpenEntryForRead(szKey), &value, sizeof(value)) ? value : def;
}

// A short read puts *def in *out; without a default *out keeps what came.
RECT* kyStream::GetEntry(const char* szKey, RECT* out, const RECT* def) {
  if (out == nullptr) return nullptr;
  if (!GetFixedValue(OpenEntryForRead(szKey), out, sizeof(*out)) && def != nullptr) *out = *def;
  return out;
}
SIZE* kyStream::GetEntry(const char* szKey, SIZE* out, const SIZE* def) {
  if (out == nullptr) return nullptr;
  if (!GetFixedValue(OpenEntryForRead(szKey), out, sizeof(*out)) && def != nullptr) *out = *def;
  return out;
}

CString kyStream::GetEntry(const char* szKey, const char* def) {
  return GetStringValue(OpenEntryForRead(szKey), def);
}

int kyStream::GetEntryErasedOld(const char* szKey, void** data, unsigned int* size) {
  if (data == nullptr || size == nullptr) return 0;
  *data = nullptr;
  *size = 0;
  return GetErasedOld(OpenEntryForRead(szKey), data, size);
}

int kyStream::GetEntryErasedOld(const char* szKey, void* data, unsigned int size) {
  return GetErasedOld(OpenEntryForRead(szKey), data, size);
}
