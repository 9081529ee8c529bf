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

// Little-endian field access on byte images.
uint32_t Get32(const Bytes& b, size_t at);
int64_t Get64(const Bytes& b, size_t at);
uint16_t Get16(const Bytes& b, size_t at);
void Put32(Bytes& b, size_t at, uint32_t v);
void Put64(Bytes& b, size_t at, int64_t v);
void Put16(Bytes& b, size_t at, uint16_t v);

// Restores the three global settings when a test ends.
class GlobalsGuard {
 public:
  GlobalsGuard();
  ~GlobalsGuard();

 private:
  int m_use64;
  int64_t m_maxTolvar;
  int64_t m_maxCompStm;
};

// Sets the offset width for new files for the life of the object.
class OffsetWidth {
 public:
  explicit OffsetWidth(bool b64) { kyStorage::g_bUse64BitOffsets = b64 ? 1 : 0; }
  ~OffsetWidth() { kyStorage::g_bUse64BitOffsets = m_old; }

 private:
  int m_old = kyStorage::g_bUse64BitOffsets;
};

}  // namespace kytest

#endif  // KYSTORE_TESTS_SUPPORT_TEST_UTIL_H_
