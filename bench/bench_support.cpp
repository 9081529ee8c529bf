#include "bench_support.h"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

const std::string& BenchDir() {
  static const std::string dir = [] {
    const char* base = getenv("KYSTORE_BENCH_DIR");
    std::string d = std::string(base && *base ? base : "/tmp") + "/kystore-bench-XXXXXX";
    std::vector<char> buf(d.begin(), d.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) abort();
    return std::string(buf.data());
  }();
  return dir;
}

std::string PathOf(const std::string& name) {
  return BenchDir() + "/" + name;
}

void RemoveFile(const std::string& path) {
  unlink(path.c_str());
}

int64_t FileSize(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return -1;
  int64_t size = fseeko(f, 0, SEEK_END) == 0 ? static_cast<int64_t>(ftello(f)) : -1;
  fclose(f);
  return size;
}

void CopyFile(const std::string& from, const std::string& to) {
  int in = open(from.c_str(), O_RDONLY);
  int out = open(to.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  if (in < 0 || out < 0) abort();
  std::vector<char> buf(1 << 20);
  for (ssize_t n; (n = read(in, buf.data(), buf.size())) != 0;) {
    if (n < 0 || write(out, buf.data(), n) != n) abort();
  }
  close(in);
  close(out);
}

int ScaleDivisor() {
  const char* scale = getenv("KYSTORE_BENCH_SCALE");
  return scale != nullptr && strcmp(scale, "small") == 0 ? 10 : 1;
}

int64_t Scaled(int64_t n) {
  int64_t scaled = n / ScaleDivisor();
  return scaled > 0 ? scaled : 1;
}

int64_t HeapInUse() {
  struct mallinfo2 info = mallinfo2();
  return static_cast<int64_t>(info.uordblks + info.hblkhd);
}

namespace {

// The value of a "Name:  1234 kB" line of /proc/self/status, in bytes.
int64_t StatusBytes(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t len = strlen(field);
  while (std::getline(status, line)) {
    if (line.compare(0, len, field) == 0 && line.size() > len && line[len] == ':')
      return std::atoll(line.c_str() + len + 1) * 1024;
  }
  return -1;
}

}  // namespace

int64_t ResidentNow() {
  return StatusBytes("VmRSS");
}

int64_t ResidentPeak() {
  return StatusBytes("VmHWM");
}

bool ResetResidentPeak() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  clear.flush();
  return clear.good();
}
