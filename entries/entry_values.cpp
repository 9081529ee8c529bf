// The value forms of entries, written into and read from an entry stream
// that was opened for the call (a child of a folder or a root stream).
// Each helper releases the entry stream before it returns, and every change
// is announced to the recorder before it is made.

#include "kystore/recorder.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/global_mem.h"

namespace {

unsigned char* Bytes(const void* data) {
  return static_cast<unsigned char*>(const_cast<void*>(data));
}

}  // namespace

// Written over the start of the data: a longer old value keeps its tail and
// the stream its length.  The result of the write is not reported.
int kyStream::PutFixedValue(kyStream* entry, const void* value, DWORD width) {
  if (entry == nullptr) return 0;
  entry->PutNumber(value, width);
  entry->Release();
  return 1;
}

int kyStream::PutStringValue(kyStream* entry, const char* value) {
  if (entry == nullptr) return 0;
  *entry << value;
  entry->Release();
  return 1;
}

// `length` bytes from the start, walked along the blocks.  (The end of the
// last block is no guide: a chain taken over from a removed stream can hold
// old bytes past the length.)
bool kyStream::SeekToDataEnd() {
  const __int64 length = GetLength();
  if (length == 0) {
    SeekRight(0, true);  // fails harmlessly on a stream without blocks
    return true;
  }
  return length > 0 && SeekRight(length, true) == 0;
}

// The offset prefix at the start of the data points at the newest value.
// When a prefix is already there the value goes in first and the prefix
// follows, so that a write failing half-way leaves the prefix on the value
// before.  Without an end to append at (damage) nothing is written.
int kyStream::AppendValue(kyStream* entry, const void* data, DWORD size, bool bWithPrefix) {
  if (entry == nullptr) return 0;
  CCompRecorder* recorder = entry->Recorder();
  if (recorder != nullptr) recorder->OpAppend(Bytes(data), size, entry, bWithPrefix ? 1 : 0);
  const __int64 length = entry->GetLength();
  // An offset is written in the storage's width; with 32-bit offsets no
  // length passes 32 bits (the file cannot be that large).
  const __int64 width = entry->W64() ? 8 : 4;
  const __int64 prefix = length == 0 ? width : length;
  if (!bWithPrefix) {
    if (entry->SeekToDataEnd()) entry->Write(data, size, false, nullptr);
  } else if (length < width) {
    // Empty, or shorter than a prefix: the prefix first, the value behind.
    entry->SeekRight(0, true);
    if (entry->Write(&prefix, width, false, nullptr) != -1 && entry->SeekToDataEnd())
      entry->Write(data, size, false, nullptr);
  } else if (entry->SeekToDataEnd() && entry->Write(data, size, false, nullptr) != -1) {
    entry->SeekRight(0, true);
    entry->Write(&prefix, width, false, nullptr);
  }
  entry->Release();
  return 1;
}

int kyStream::PutErasingOld(kyStream* entry, const void* data, DWORD size, int bPrependSize) {
  if (entry == nullptr) return 0;
  CCompRecorder* recorder = entry->Recorder();
  if (recorder != nullptr) recorder->OpWrite(Bytes(data), size, 1, entry, bPrependSize);
  const bool written =
      (!bPrependSize || entry->PrependSize(size)) && entry->Write(data, size, true, nullptr) != -1;
  entry->Release();
  return written ? 1 : 0;
}

bool kyStream::GetFixedValue(kyStream* entry, void* out, DWORD width) {
  if (entry == nullptr) return false;
  const bool read =
      !entry->HoldsChildren() && entry->Read(out, width) == static_cast<__int64>(width);
  entry->Release();
  return read;
}

CString kyStream::GetStringValue(kyStream* entry, const char* def) {
  CString value(def);
  if (entry == nullptr) return value;
  if (!entry->HoldsChildren()) *entry >> value;
  entry->Release();
  return value;
}

// The buffer is sized by a length the file holds (GetVerifiedDataLength
// refuses any other), and only for a value that a 32-bit size can report.
int kyStream::GetErasedOld(kyStream* entry, void** data, unsigned int* size) {
  if (entry == nullptr) return 0;
  __int64 len = 0;
  int result = entry->GetVerifiedDataLength(len);
  if (result && len > 0) {
    void* block = len <= 0xFFFFFFFFLL ? GlobalAlloc(GPTR, static_cast<SIZE_T>(len)) : nullptr;
    result = block != nullptr && entry->Read(block, len) == len;
    if (result) {
      *data = block;
      *size = static_cast<unsigned int>(len);
    } else if (block != nullptr) {
      GlobalFree(block);
    }
  }
  entry->Release();
  return result;
}

int kyStream::GetErasedOld(kyStream* entry, void* data, unsigned int size) {
  if (entry == nullptr) return 0;
  __int64 len = 0;
  const bool fits = entry->GetVerifiedDataLength(len) && len >= static_cast<__int64>(size) &&
                    (size == 0 || data != nullptr);
  const bool read = fits && entry->Read(data, size) == static_cast<__int64>(size);
  entry->Release();
  return read ? 1 : 0;
}
