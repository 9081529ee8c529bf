// The Win32 and framework stand-ins: what the storage code relies on.

#include <gtest/gtest.h>

#include "platform/cstring.h"
#include "platform/global_mem.h"
#include "platform/win_file.h"
#include "support/stream_fixture.h"

namespace {

using kytest::Bytes;

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
  EXPECT_EQ(8u, n);
  EXPECT_EQ(2, Seek(h, -6, FILE_CURRENT));
  char buf[8] = {};
  ASSERT_TRUE(ReadFile(h, buf, 3, &n, nullptr));
  EXPECT_EQ("cde", std::string(buf, 3));
  // A positioned read leaves the handle's position alone; the end cuts it short.
  ASSERT_TRUE(ReadFileAt(h, 6, buf, 8, &n));
  EXPECT_EQ("gh", std::string(buf, n));
  EXPECT_FALSE(ReadFileAt(h, -1, buf, 1, &n));
  EXPECT_FALSE(ReadFileAt(INVALID_HANDLE_VALUE, 0, buf, 1, &n));
  EXPECT_EQ(5, Seek(h, 0, FILE_CURRENT));
  // Reading past the end succeeds with fewer bytes, as Win32 does.
  ASSERT_TRUE(ReadFile(h, buf, 8, &n, nullptr));
  EXPECT_EQ(3u, n);
  // Seeking past the end is allowed; a write there extends the file.
  EXPECT_EQ(12, Seek(h, 12, FILE_BEGIN));
  ASSERT_TRUE(WriteFile(h, "Z", 1, &n, nullptr));
  LARGE_INTEGER size;
  ASSERT_TRUE(GetFileSizeEx(h, &size));
  EXPECT_EQ(13, size.QuadPart);
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
  EXPECT_EQ(INVALID_HANDLE_VALUE, Open(path, GENERIC_READ | GENERIC_WRITE, TRUNCATE_EXISTING));
  EXPECT_EQ(INVALID_HANDLE_VALUE, Open(path, GENERIC_READ, OPEN_EXISTING));
  EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(path.c_str()));
  kytest::WriteAll(path, {1, 2, 3});
  HANDLE ro = Open(path, GENERIC_READ, OPEN_EXISTING);
  ASSERT_NE(INVALID_HANDLE_VALUE, ro);
  DWORD n = 7;
  EXPECT_FALSE(WriteFile(ro, "x", 1, &n, nullptr));
  EXPECT_EQ(0u, n);
  CloseHandle(ro);
  EXPECT_EQ(Bytes({1, 2, 3}), kytest::ReadAll(path));
  // Truncation needs write access.
  EXPECT_EQ(INVALID_HANDLE_VALUE, Open(path, GENERIC_READ, TRUNCATE_EXISTING));
  HANDLE tr = Open(path, GENERIC_READ | GENERIC_WRITE, TRUNCATE_EXISTING);
  ASSERT_NE(INVALID_HANDLE_VALUE, tr);
  CloseHandle(tr);
  EXPECT_EQ(0, kytest::FileSize(path));
  // Directories are never opened as files.
  EXPECT_EQ(FILE_ATTRIBUTE_DIRECTORY, GetFileAttributesA(dir.path().c_str()));
  EXPECT_EQ(INVALID_HANDLE_VALUE, Open(dir.path(), GENERIC_READ, OPEN_EXISTING));
}

// Not used by the library yet; later parts rely on them.
TEST(PlatformFile, CopyDeleteGlobalMemoryAndStrings) {
  kytest::TempDir dir;
  const std::string a = dir.File("a"), b = dir.File("b");
  kytest::WriteAll(a, kytest::Pattern(3u << 20, 1));  // more than one chunk of the copy
  ASSERT_TRUE(CopyFileA(a.c_str(), b.c_str(), TRUE));
  EXPECT_EQ(kytest::Pattern(3u << 20, 1), kytest::ReadAll(b));
  EXPECT_FALSE(CopyFileA(a.c_str(), b.c_str(), TRUE));  // the target exists
  kytest::WriteAll(a, {9});
  ASSERT_TRUE(CopyFileA(a.c_str(), b.c_str(), FALSE));  // overwrites
  EXPECT_EQ(Bytes({9}), kytest::ReadAll(b));
  EXPECT_TRUE(DeleteFileA(b.c_str()));
  EXPECT_FALSE(DeleteFileA(b.c_str()));
  BYTE* p = static_cast<BYTE*>(GlobalAlloc(GMEM_ZEROINIT, 64));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(Bytes(64, 0), Bytes(p, p + 64));
  memset(p, 0xAB, 64);
  p = static_cast<BYTE*>(GlobalReAlloc(p, 4096, GMEM_MOVEABLE | GMEM_ZEROINIT));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(4096u, GlobalSize(p));
  EXPECT_EQ(Bytes(64, 0xAB), Bytes(p, p + 64));
  EXPECT_EQ(Bytes(4096 - 64, 0), Bytes(p + 64, p + 4096));
  EXPECT_EQ(nullptr, GlobalFree(p));
  CString s;
  strcpy(s.GetBuffer(10), "xyz");
  s.ReleaseBuffer();
  EXPECT_EQ(3, s.GetLength());
  EXPECT_EQ(3, CString("a\0b", 3).GetLength());
  EXPECT_EQ(0, CString(nullptr).GetLength());
}

}  // namespace
