// Helpers shared by the tests: a private temporary directory per test and
// whole-file reads and writes for byte-exact checks.
#ifndef KYSTORE_TESTS_SUPPORT_TEST_UTIL_H_
#define KYSTORE_TESTS_SUPPORT_TEST_UTIL_H_

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kystore.h"

namespace kytest {

typedef std::vector<uint8_t> Bytes;

// A directory made for one test and removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return m_path; }
  std::string File(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

Bytes ReadAll(const std::string& path);
void WriteAll(const std::string& path, const Bytes& bytes);
int64_t FileSize(const std::string& path);
bool Exists(const std::string& path);

// Little-endian field access on byte images (range-checked by at()).
template <class T>
T GetLE(const Bytes& b, size_t at) {
  T v;
  memcpy(&v, &b.at(at + sizeof(T) - 1) - (sizeof(T) - 1), sizeof(T));
  return v;
}
template <class T>
void PutLE(Bytes& b, size_t at, T v) {
  memcpy(&b.at(at + sizeof(T) - 1) - (sizeof(T) - 1), &v, sizeof(T));
}
inline uint32_t Get32(const Bytes& b, size_t at) {
  return GetLE<uint32_t>(b, at);
}
inline int64_t Get64(const Bytes& b, size_t at) {
  return GetLE<int64_t>(b, at);
}
inline uint16_t Get16(const Bytes& b, size_t at) {
  return GetLE<uint16_t>(b, at);
}
inline void Put32(Bytes& b, size_t at, uint32_t v) {
  PutLE(b, at, v);
}
inline void Put64(Bytes& b, size_t at, int64_t v) {
  PutLE(b, at, v);
}
inline void Put16(Bytes& b, size_t at, uint16_t v) {
  PutLE(b, at, v);
}

// Restores the three global settings when a test ends.
class GlobalsGuard {
 public:
  ~GlobalsGuard() {
    kyStorage::g_bUse64BitOffsets = m_use64;
    kyStorage::g_iMaxTolvarSize = m_maxTolvar;
    kyStorage::g_iMaxCompStmSize = m_maxCompStm;
  }

 private:
  int m_use64 = kyStorage::g_bUse64BitOffsets;
  int64_t m_maxTolvar = kyStorage::g_iMaxTolvarSize;
  int64_t m_maxCompStm = kyStorage::g_iMaxCompStmSize;
};

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_TEST_UTIL_H_
