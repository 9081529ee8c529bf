// The Win32 stand-ins: one position per handle, short reads, refusals.

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
