// Typed values at a stream's cursor: numbers as their little-endian bytes,
// strings as a length followed by their characters.  Everything goes
// through the virtual Read and Write, so the memory stream gets the same
// bytes as a storage stream.

#include <climits>
#include <cstring>
#include <string>

#include "kystore/recorder.h"
#include "kystore/storage.h"
#include "kystore/stream.h"

namespace {

// Lengths below this take the short form (a WORD); this WORD value
// announces a DWORD length instead.
const WORD kLongStringMark = 0xFFFF;
// Characters read from the data in one step: what may be allocated ahead
// of bytes that have not arrived yet.
const __int64 kStringChunk = 64 * 1024;
// A CString's length is an int.
const __int64 kMostStringChars = INT_MAX - 1;

}  // namespace

CCompRecorder* kyStream::Recorder() const {
  return m_pStorage != nullptr ? m_pStorage->m_pRecorder : nullptr;
}

__int64 kyStream::MostBytesHeld() {
  if (m_pStorage == nullptr) return 0;
  const __int64 size = m_pStorage->CurrentFileSize();
  return size > 0 ? size : 0;
}

// The value is announced before it is written, so that a replay repeats the
// write whatever its outcome.
kyStream& kyStream::PutNumber(const void* value, DWORD width) {
  CCompRecorder* recorder = Recorder();
  if (recorder != nullptr)
    recorder->OpWrite(static_cast<unsigned char*>(const_cast<void*>(value)), width, 0, this, 1);
  Write(value, width, false, nullptr);
  return *this;
}

kyStream& kyStream::GetNumber(void* value, DWORD width) {
  Read(value, width);
  return *this;
}

kyStream& kyStream::operator<<(WORD value) {
  return PutNumber(&value, sizeof(value));
}
kyStream& kyStream::operator<<(int value) {
  return PutNumber(&value, sizeof(value));
}
kyStream& kyStream::operator<<(DWORD value) {
  return PutNumber(&value, sizeof(value));
}
kyStream& kyStream::operator<<(double value) {
  return PutNumber(&value, sizeof(value));
}
kyStream& kyStream::operator<<(__int64 value) {
  return PutNumber(&value, sizeof(value));
}
kyStream& kyStream::operator<<(unsigned __int64 value) {
  return PutNumber(&value, sizeof(value));
}

kyStream& kyStream::operator>>(WORD& value) {
  return GetNumber(&value, sizeof(value));
}
kyStream& kyStream::operator>>(int& value) {
  return GetNumber(&value, sizeof(value));
}
kyStream& kyStream::operator>>(DWORD& value) {
  return GetNumber(&value, sizeof(value));
}
kyStream& kyStream::operator>>(double& value) {
  return GetNumber(&value, sizeof(value));
}
kyStream& kyStream::operator>>(__int64& value) {
  return GetNumber(&value, sizeof(value));
}
kyStream& kyStream::operator>>(unsigned __int64& value) {
  return GetNumber(&value, sizeof(value));
}

// The length goes to the stream before the recorder hears of it; the
// characters are announced before they are written.  A string too long for
// a DWORD length keeps its first 4294967295 characters.
kyStream& kyStream::operator<<(const char* value) {
  const char* chars = value != nullptr ? value : "";
  const size_t length = strlen(chars);
  const DWORD n = length > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<DWORD>(length);
  const WORD word = n < kLongStringMark ? static_cast<WORD>(n) : kLongStringMark;
  if (Write(&word, sizeof(word), false, nullptr) == -1) return *this;
  if (word == kLongStringMark && Write(&n, sizeof(n), false, nullptr) == -1) return *this;

  unsigned char* text = reinterpret_cast<unsigned char*>(const_cast<char*>(chars));
  CCompRecorder* recorder = Recorder();
  if (recorder != nullptr) {
    recorder->OpWrite(reinterpret_cast<unsigned char*>(const_cast<WORD*>(&word)), sizeof(word), 0,
                      this, 1);
    if (word == kLongStringMark)
      recorder->OpWrite(reinterpret_cast<unsigned char*>(const_cast<DWORD*>(&n)), sizeof(n), 0,
                        this, 1);
    if (n != 0) recorder->OpWrite(text, n, 0, this, 1);
  }
  if (n != 0) Write(chars, n, false, nullptr);
  return *this;
}

kyStream& kyStream::operator<<(const CString& value) {
  return *this << value.GetString();
}

// The characters are taken in bounded steps as they arrive, so a length
// that the data cannot hold never sizes an allocation.  A short tail is
// padded with NULs only up to a length the stream could really hold.
kyStream& kyStream::operator>>(CString& value) {
  value.Empty();
  // A length that does not come whole counts as 0: the string stays empty.
  WORD word = 0;
  if (Read(&word, sizeof(word)) != sizeof(word)) return *this;
  DWORD announced = word;
  if (word == kLongStringMark && Read(&announced, sizeof(announced)) != sizeof(announced))
    return *this;
  if (announced == 0) return *this;

  const __int64 want = announced < kMostStringChars ? announced : kMostStringChars;
  std::string chars;
  while (static_cast<__int64>(chars.size()) < want) {
    const __int64 left = want - static_cast<__int64>(chars.size());
    const size_t step = static_cast<size_t>(left < kStringChunk ? left : kStringChunk);
    const size_t had = chars.size();
    chars.resize(had + step);
    const __int64 got = Read(&chars[had], static_cast<__int64>(step));
    chars.resize(had + static_cast<size_t>(got > 0 ? got : 0));
    if (got != static_cast<__int64>(step)) break;
  }
  if (static_cast<__int64>(chars.size()) < want && want <= MostBytesHeld())
    chars.resize(static_cast<size_t>(want), '\0');
  value = CString(chars.data(), static_cast<int>(chars.size()));
  return *this;
}
