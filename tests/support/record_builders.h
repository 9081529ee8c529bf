// Shared by the recording tests: recordings written by hand, record by
// record, and the bytes a recorder holds.
#ifndef KYSTORE_TESTS_SUPPORT_RECORD_BUILDERS_H_
#define KYSTORE_TESTS_SUPPORT_RECORD_BUILDERS_H_

#include <memory>
#include <string>
#include <vector>

#include "support/test_access.h"
#include "support/test_util.h"

namespace kytest {

inline Bytes Chars(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

// `v` as `width` little-endian bytes.
inline std::string Le(uint64_t v, int width) {
  std::string s;
  for (int i = 0; i < width; ++i) s += static_cast<char>(v >> (8 * i));
  return s;
}

// A recording in the recorder's byte form: an enter (or fast enter) is its
// kind, the name's 16-bit length, the name and a flag byte; a write is 5,
// erase-old and prefix bytes, a 32-bit length and the data; an append is 6,
// the prefix byte, the length and the data; a leave is a single 3.
struct Rec {
  Bytes b;
  Rec& Put(std::vector<int> head, const std::string& tail = "") {
    b.insert(b.end(), head.begin(), head.end());
    b.insert(b.end(), tail.begin(), tail.end());
    return *this;
  }
  Rec& Enter(const std::string& n, int flag, int kind = RecOpEnter) {
    return Put({kind, static_cast<int>(n.size()), 0}, n).Put({flag});
  }
  Rec& Leave(int n = 1) { return Put(std::vector<int>(static_cast<size_t>(n), RecOpLeave)); }
  Rec& Write(int e, int p, const std::string& d) {
    return Put({RecOpWrite, e, p}, Le(d.size(), 4) + d);
  }
  Rec& Write(int e, int p, const Bytes& d) { return Write(e, p, std::string(d.begin(), d.end())); }
  Rec& Append(int p, const std::string& d) { return Put({RecOpAppend, p}, Le(d.size(), 4) + d); }
};

// The bytes a recorder holds (none without a buffer).
inline Bytes Data(CCompRecorder* r) {
  const unsigned char* p = kyTestAccess::Buffer(r);
  return p != nullptr ? Bytes(p, p + r->GetDataLength()) : Bytes();
}

// Stops the recording of `st` and hands back its bytes; the recorder goes.
inline Bytes StopBytes(kyStorage* st) {
  std::unique_ptr<CCompRecorder> rec(st->StopRecording());
  return rec ? Data(rec.get()) : Bytes();
}

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_RECORD_BUILDERS_H_
