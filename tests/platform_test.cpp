// The Win32 stand-ins: one position per handle, short reads, refusals.

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "platform/win_file.h"
#include "support/test_util.h"

namespace {

int64_t Seek(HANDLE h, int64_t to, DWORD method) {
  LARGE_INTEGER at, pos;
  at.QuadPart = to;
  return SetFilePointerEx(h, at, &pos, method) ? pos.QuadPart : -1;
}

HANDLE Open(const std::string& path, DWORD access, DWORD disposition) {
  return CreateFileA(path.c_str(), access, 3, nullptr, disposition, 0x80, nullptr);
}

TEST(PlatformFile, OneHandleHasOnePositionForReadsWritesAndSeeks) {
  kytest::TempDir dir;
  HANDLE h = Open(dir.File("f"), GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
  ASSERT_NE(INVALID_HANDLE_VALUE, h);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(h, "abcdefgh", 8, &n, nullptr));
  EXPECT_EQ(2, Seek(h, -6, FILE_CURRENT));
  char buf[8] = {};
  ASSERT_TRUE(ReadFile(h, buf, 3, &n, nullptr));
  EXPECT_EQ("cde", std::string(buf, n));
  // A positioned read leaves the handle's position alone; the end cuts it short.
  ASSERT_TRUE(ReadFileAt(h, 6, buf, 8, &n));
  EXPECT_EQ("gh", std::string(buf, n));
  EXPECT_FALSE(ReadFileAt(h, -1, buf, 1, &n));
  EXPECT_FALSE(ReadFileAt(INVALID_HANDLE_VALUE, 0, buf, 1, &n));
  ASSERT_TRUE(ReadFile(h, buf, 8, &n, nullptr));  // past the end: fewer bytes, as Win32 does
  EXPECT_EQ("fgh", std::string(buf, n));
  // Seeking past the end is allowed; a write there extends the file.
  EXPECT_EQ(12, Seek(h, 12, FILE_BEGIN));
  ASSERT_TRUE(WriteFile(h, "Z", 1, &n, nullptr));
  EXPECT_EQ(13, Seek(h, 0, FILE_END));
  // A negative target and an unknown method are refused; the position stays.
  EXPECT_EQ(-1, Seek(h, -14, FILE_END));
  EXPECT_EQ(-1, Seek(h, 0, 7));
  EXPECT_EQ(13, Seek(h, 0, FILE_CURRENT));
  EXPECT_TRUE(CloseHandle(h));
  EXPECT_FALSE(CloseHandle(INVALID_HANDLE_VALUE));
}

// Gathered writes: random writes, overlapping, touching and past the end,
// through a handle that gathers (with a small limit, so that it flushes
// along the way) and through one that writes directly, give the same file;
// reads, sizes and FILE_END see the gathered bytes all along.
TEST(PlatformFile, GatheredWritesLeaveWhatDirectWritesLeave) {
  kytest::TempDir dir;
  HANDLE direct = Open(dir.File("direct"), GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS);
  HANDLE gathered = Open(dir.File("gathered"), GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS);
  ASSERT_TRUE(BeginWriteBatch(gathered, 3000));
  std::mt19937 rng(7);
  DWORD n = 0;
  for (int i = 0; i < 3000; ++i) {
    const int64_t size = Seek(direct, 0, FILE_END);
    ASSERT_EQ(size, Seek(gathered, 0, FILE_END));
    const int64_t at = static_cast<int64_t>(rng() % (size + 200));
    const DWORD count = rng() % 8 == 0 ? 4000 : rng() % 300;  // some larger than the limit
    if (rng() % 2) {
      const std::string bytes(count, static_cast<char>('a' + i % 26));
      ASSERT_TRUE(Seek(direct, at, FILE_BEGIN) == at && Seek(gathered, at, FILE_BEGIN) == at);
      ASSERT_TRUE(WriteFile(direct, bytes.data(), count, &n, nullptr));
      ASSERT_TRUE(WriteFile(gathered, bytes.data(), count, &n, nullptr) && n == count);
    } else {
      std::string want(count, '\0'), got(count, '\1');
      DWORD wantN = 0, gotN = 0;
      ASSERT_TRUE(ReadFileAt(direct, at, &want[0], count, &wantN));
      ASSERT_TRUE(ReadFileAt(gathered, at, &got[0], count, &gotN));
      ASSERT_EQ(want.substr(0, wantN), got.substr(0, gotN)) << "read " << i;
    }
    if (i % 1000 == 999) {
      ASSERT_TRUE(EndWriteBatch(gathered) && BeginWriteBatch(gathered, 3000));
    }
  }
  EXPECT_TRUE(WriteBatchActive(gathered));
  HANDLE reader = Open(dir.File("direct"), GENERIC_READ, OPEN_EXISTING);
  EXPECT_FALSE(BeginWriteBatch(reader, 10));  // nothing to gather on a read-only handle
  CloseHandle(reader);
  ASSERT_TRUE(CloseHandle(direct) && CloseHandle(gathered));
  EXPECT_EQ(kytest::ReadAll(dir.File("direct")), kytest::ReadAll(dir.File("gathered")));
}

TEST(PlatformFile, DispositionsAccessAndRefusals) {
  kytest::TempDir dir;
  const std::string path = dir.File("g");
  EXPECT_EQ(INVALID_HANDLE_VALUE, Open(path, GENERIC_READ, OPEN_EXISTING));
  EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(path.c_str()));
  kytest::WriteAll(path, {1, 2, 3});
  HANDLE ro = Open(path, GENERIC_READ, OPEN_EXISTING);
  DWORD n = 7;
  EXPECT_TRUE(!WriteFile(ro, "x", 1, &n, nullptr) && n == 0);
  CloseHandle(ro);
  EXPECT_EQ(kytest::Bytes({1, 2, 3}), kytest::ReadAll(path));
  EXPECT_EQ(FILE_ATTRIBUTE_DIRECTORY, GetFileAttributesA(dir.path().c_str()));
  EXPECT_EQ(INVALID_HANDLE_VALUE, Open(dir.path(), GENERIC_READ, OPEN_EXISTING));
}

}  // namespace
