// What every benchmark of kystore_bench shares: where the files go, how the
// sizes scale down for a quick run, and how much memory the process holds.
#ifndef KYSTORE_BENCH_SUPPORT_H_
#define KYSTORE_BENCH_SUPPORT_H_

#include <cstdint>
#include <string>

// A fresh directory under $KYSTORE_BENCH_DIR (/tmp when unset), made on
// first use and removed with everything in it when the run ends.
const std::string& BenchDir();
// `name` inside BenchDir().
std::string PathOf(const std::string& name);
// Removes the file at `path` if there is one.
void RemoveFile(const std::string& path);
// Size of the file at `path` in bytes, -1 when it cannot be found.
int64_t FileSize(const std::string& path);
// Copies the file `from` to `to`, replacing it; aborts on failure.
void CopyFile(const std::string& from, const std::string& to);

// Every size registered is divided by this: 10 when KYSTORE_BENCH_SCALE is
// "small" (a quick run while developing), 1 otherwise.
int ScaleDivisor();
// `n` divided by ScaleDivisor(), at least 1.
int64_t Scaled(int64_t n);

// Bytes the allocator has handed out and not taken back (all arenas, mapped
// chunks included): what the process's own objects hold right now.
int64_t HeapInUse();
// Resident size of the process now (VmRSS) and at its peak (VmHWM), in
// bytes; -1 when /proc cannot tell.
int64_t ResidentNow();
int64_t ResidentPeak();
// Starts a new peak: VmHWM falls to the current resident size (Linux 4.0
// and later).  False when the system refuses.
bool ResetResidentPeak();

#endif  // KYSTORE_BENCH_SUPPORT_H_
