// The recording buffer format: writing one record (PushOp) and reading one
// back (PopOp).
//
// A record is a kind byte followed by the fields of its kind, integers
// little-endian:
//   1 enter, 2 fast enter: u16 name length N, N name bytes, 1 flag byte
//   3 leave:               nothing
//   4 remove:              u16 N, N name bytes
//   5 write:               erase-old byte, prepend-size byte, u32 L, L bytes
//   6 append:              with-prefix byte, u32 L, L bytes
// There is no header, count or terminator; the data length ends the list.

#include <cstring>

#include "kystore/format.h"
#include "kystore/recorder.h"
#include "platform/cstring.h"

namespace {

// Longest name a reader accepts (the stream name limit).
const unsigned int kMaxRecordedName = 60;
// Every piece of a record goes to Add with this initial size, so a recording
// starts at 4096 bytes and grows by 4096 or by the size of a larger piece.
const unsigned int kRecordInit = 4096;

struct Piece {
  unsigned char* data;
  unsigned int size;
};

// The pieces of one record, in buffer order.  Small fields live in `scratch`.
struct RecordPieces {
  unsigned char scratch[16];
  Piece piece[4];
  int count = 0;

  void Add(unsigned char* data, unsigned int size) { piece[count++] = {data, size}; }
};

void PutLe16(unsigned char* p, unsigned int v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}

void PutLe32(unsigned char* p, DWORD v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// The flag byte of position `i` of a flag text of exactly `width` characters;
// a text of any other length sets no flag.
unsigned char FlagOf(const char* text, size_t width, size_t i) {
  if (text == nullptr || strlen(text) != width) return 0;
  return text[i] == '1' ? 1 : 0;
}

// Lays out the record in `r`.  False when it cannot be written in a form
// that the reader accepts.
bool LayOutRecord(RecOpEnum op, const char* name, unsigned char* data, DWORD n, RecordPieces& r) {
  unsigned char* s = r.scratch;
  s[0] = static_cast<unsigned char>(op);
  switch (op) {
    case RecOpEnter:
    case RecOpEnterFast:
    case RecOpRemove: {
      size_t len = name != nullptr ? strlen(name) : 0;
      if (len > kMaxRecordedName) return false;
      PutLe16(s + 1, static_cast<unsigned int>(len));
      r.Add(s, 3);
      r.Add(reinterpret_cast<unsigned char*>(const_cast<char*>(name)),
            static_cast<unsigned int>(len));
      if (op != RecOpRemove) {
        s[3] = static_cast<unsigned char>(n);
        r.Add(s + 3, 1);
      }
      return true;
    }
    case RecOpLeave:
      r.Add(s, 1);
      return true;
    case RecOpWrite:
    case RecOpAppend: {
      if (data == nullptr && n != 0) return false;  // the bytes are not there
      unsigned int head = 1;
      if (op == RecOpWrite) {
        s[head++] = FlagOf(name, 2, 0);
        s[head++] = FlagOf(name, 2, 1);
      } else {
        s[head++] = FlagOf(name, 1, 0);
      }
      PutLe32(s + head, n);
      r.Add(s, head + 4);
      r.Add(data, n);
      return true;
    }
  }
  return false;
}

}  // namespace

// Room for the whole record is made before any byte is written, growing the
// buffer exactly as appending the pieces one by one would.  When it cannot
// grow, or the record is one the reader would refuse (a name above 60
// characters, data that is missing), the recorder stops: a recording never
// holds part of a record, nor one that would make the rest unreadable.
void CCompRecorder::PushOp(RecOpEnum op, const char* name, unsigned char* data, DWORD n) {
  if (m_bStopped) return;
  RecordPieces r;
  if (!LayOutRecord(op, name, data, n, r)) {
    if (op >= RecOpEnter && op <= RecOpAppend) Stop();  // unknown kinds: nothing
    return;
  }
  Init(kRecordInit);
  if (m_pBuffer == nullptr) {
    Stop();
    return;
  }
  // The whole record must end within what 32 bits count.
  unsigned int room = 0xFFFFFFFFu - m_nPos;
  for (int i = 0; i < r.count; ++i) {
    if (r.piece[i].size > room) {
      Stop();
      return;
    }
    room -= r.piece[i].size;
  }
  unsigned int end = m_nPos;
  for (int i = 0; i < r.count; ++i) {
    unsigned int size = r.piece[i].size;
    if (end + size > m_nLength && !Expand(size > kRecordInit ? size : kRecordInit)) {
      Stop();
      return;
    }
    end += size;
  }
  for (int i = 0; i < r.count; ++i) Add(r.piece[i].data, r.piece[i].size, kRecordInit);
}

// Every read asks Read to throw; the exception ends the record here and is
// never passed on.  The kind output takes every kind byte read, also one
// outside 1 to 6 (the enumeration's int type holds any byte).
int CCompRecorder::PopOp(RecOpEnum* op, char* name, unsigned char** data, DWORD* n) {
  RecOpEnum opLocal;
  char nameLocal[kMaxRecordedName + 1];
  unsigned char* dataLocal;
  DWORD nLocal;
  if (op == nullptr) op = &opLocal;
  if (name == nullptr) name = nameLocal;
  if (data == nullptr) data = &dataLocal;
  if (n == nullptr) n = &nLocal;
  name[0] = '\0';
  try {
    unsigned char kind;
    if (!Read(&kind, 1, 1)) return 0;
    *op = static_cast<RecOpEnum>(kind);
    if (kind < RecOpEnter || kind > RecOpAppend) return 0;
    unsigned char b[4];
    switch (*op) {
      case RecOpEnter:
      case RecOpEnterFast:
      case RecOpRemove: {
        if (!Read(b, 2, 1)) return 0;
        unsigned int len = b[0] | (static_cast<unsigned int>(b[1]) << 8);
        if (len > kMaxRecordedName) return 0;
        if (!Read(reinterpret_cast<unsigned char*>(name), len, 1)) return 0;
        name[len] = '\0';
        if (*op == RecOpRemove) return 1;
        if (!Read(b, 1, 1)) return 0;
        *n = b[0];
        return 1;
      }
      case RecOpLeave:
        return 1;
      case RecOpWrite:
      case RecOpAppend: {
        unsigned int flags = *op == RecOpWrite ? 2 : 1;
        if (!Read(b, flags, 1)) return 0;
        for (unsigned int i = 0; i < flags; ++i) name[i] = b[i] ? '1' : '0';
        name[flags] = '\0';
        if (!Read(b, 4, 1)) return 0;
        *n = b[0] | (static_cast<DWORD>(b[1]) << 8) | (static_cast<DWORD>(b[2]) << 16) |
             (static_cast<DWORD>(b[3]) << 24);
        if (*n > m_nDataLength - m_nPos) return 0;  // Read just succeeded: pos <= data length
        *data = m_pBuffer + m_nPos;
        m_nPos += *n;
        return 1;
      }
    }
  } catch (const CString&) {
  }
  return 0;
}

unsigned int CountWholeRecords(unsigned char* buf, unsigned int size, unsigned int* end) {
  if (end != nullptr) *end = 0;
  if (buf == nullptr || size == 0) return 0;
  CCompRecorder reader;
  reader.Attach(buf, size, 0);  // borrowed: neither changed nor freed
  RecOpEnum op;
  char name[kMaxNameLength + 4];
  unsigned char* data = nullptr;
  DWORD n = 0;
  unsigned int count = 0;
  while (reader.PopOp(&op, name, &data, &n)) {
    ++count;
    if (end != nullptr) *end = reader.GetBufferPos();
  }
  reader.Detach(nullptr);
  return count;
}
