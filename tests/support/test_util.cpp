#include "support/test_util.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kytest {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/kystore-test-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  m_path = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(m_path, ec);
}

Bytes ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

int64_t FileSize(const std::string& path) {
  std::error_code ec;
  auto n = std::filesystem::file_size(path, ec);
  return ec ? -1 : static_cast<int64_t>(n);
}

bool Exists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

uint32_t Get32(const Bytes& b, size_t at) {
  uint32_t v;
  memcpy(&v, &b.at(at + 3) - 3, 4);
  return v;
}
int64_t Get64(const Bytes& b, size_t at) {
  int64_t v;
  memcpy(&v, &b.at(at + 7) - 7, 8);
  return v;
}
uint16_t Get16(const Bytes& b, size_t at) {
  uint16_t v;
  memcpy(&v, &b.at(at + 1) - 1, 2);
  return v;
}
void Put32(Bytes& b, size_t at, uint32_t v) {
  memcpy(&b.at(at + 3) - 3, &v, 4);
}
void Put64(Bytes& b, size_t at, int64_t v) {
  memcpy(&b.at(at + 7) - 7, &v, 8);
}
void Put16(Bytes& b, size_t at, uint16_t v) {
  memcpy(&b.at(at + 1) - 1, &v, 2);
}

GlobalsGuard::GlobalsGuard()
    : m_use64(kyStorage::g_bUse64BitOffsets),
      m_maxTolvar(kyStorage::g_iMaxTolvarSize),
      m_maxCompStm(kyStorage::g_iMaxCompStmSize) {}

GlobalsGuard::~GlobalsGuard() {
  kyStorage::g_bUse64BitOffsets = m_use64;
  kyStorage::g_iMaxTolvarSize = m_maxTolvar;
  kyStorage::g_iMaxCompStmSize = m_maxCompStm;
}

}  // namespace kytest
