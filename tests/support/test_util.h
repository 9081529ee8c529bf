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
inline constexpr auto Get16 = &GetLE<uint16_t>;
inline constexpr auto Get32 = &GetLE<uint32_t>;
inline constexpr auto Get64 = &GetLE<int64_t>;
inline constexpr auto Put16 = &PutLE<uint16_t>;
inline constexpr auto Put32 = &PutLE<uint32_t>;
inline constexpr auto Put64 = &PutLE<int64_t>;

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
