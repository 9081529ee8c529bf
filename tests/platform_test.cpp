// The Win32 and framework stand-ins: what the storage code relies on.

#include <gtest/gtest.h>

#include "platform/cstring.h"
#include "platform/global_mem.h"
#include "platform/win_file.h"
#include "support/test_util.h"

namespace {

LARGE_INTEGER At(int64_t v) {
  LARGE_INTEGER l;
  l.QuadPart = v;
  return l;
}

int64_t Position(HANDLE h) {
  LARGE_INTEGER pos;
  EXPECT_TRUE(SetFilePointerEx(h, At(0), &pos, FILE_CURRENT));
  return pos.QuadPart;
}

TEST(PlatformFile, OneHandleHasOnePositionForReadsWritesAndSeeks) {
  kytest::TempDir dir;
  std::string path = dir.File("f");
  HANDLE h = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 3, nullptr, OPEN_ALWAYS,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(h, "abcdefgh", 8, &n, nullptr));
  EXPECT_EQ(n, 8u);
  EXPECT_EQ(Position(h), 8);
  ASSERT_TRUE(SetFilePointerEx(h, At(-6), nullptr, FILE_CURRENT));
  char buf[8] = {};
  ASSERT_TRUE(ReadFile(h, buf, 3, &n, nullptr));
  EXPECT_EQ(std::string(buf, 3), "cde");
  EXPECT_EQ(Position(h), 5);
  // Reading past the end succeeds with fewer bytes, as Win32 does.
  ASSERT_TRUE(ReadFile(h, buf, 8, &n, nullptr));
  EXPECT_EQ(n, 3u);
  // Seeking past the end is allowed; a write there extends the file.
  ASSERT_TRUE(SetFilePointerEx(h, At(12), nullptr, FILE_BEGIN));
  ASSERT_TRUE(WriteFile(h, "Z", 1, &n, nullptr));
  LARGE_INTEGER size;
  ASSERT_TRUE(GetFileSizeEx(h, &size));
  EXPECT_EQ(size.QuadPart, 13);
  // A negative target is refused and the position stays.
  EXPECT_FALSE(SetFilePointerEx(h, At(-14), nullptr, FILE_END));
  EXPECT_EQ(Position(h), 13);
  EXPECT_FALSE(SetFilePointerEx(h, At(0), nullptr, 7));
  EXPECT_TRUE(CloseHandle(h));
}

TEST(PlatformFile, DispositionsAccessAndRefusals) {
  kytest::TempDir dir;
  std::string path = dir.File("g");
  EXPECT_EQ(CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 3, nullptr, TRUNCATE_EXISTING,
                        0x80, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(CreateFileA(path.c_str(), GENERIC_READ, 3, nullptr, OPEN_EXISTING, 0x80, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetFileAttributesA(path.c_str()), INVALID_FILE_ATTRIBUTES);
  kytest::WriteAll(path, {1, 2, 3});
  HANDLE ro = CreateFileA(path.c_str(), GENERIC_READ, 3, nullptr, OPEN_EXISTING, 0x80, nullptr);
  ASSERT_NE(ro, INVALID_HANDLE_VALUE);
  DWORD n = 7;
  EXPECT_FALSE(WriteFile(ro, "x", 1, &n, nullptr));
  EXPECT_EQ(n, 0u);
  CloseHandle(ro);
  EXPECT_EQ(kytest::ReadAll(path), kytest::Bytes({1, 2, 3}));
  // Truncation needs write access.
  EXPECT_EQ(CreateFileA(path.c_str(), GENERIC_READ, 3, nullptr, TRUNCATE_EXISTING, 0x80, nullptr),
            INVALID_HANDLE_VALUE);
  HANDLE tr = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 3, nullptr, TRUNCATE_EXISTING,
                          0x80, nullptr);
  ASSERT_NE(tr, INVALID_HANDLE_VALUE);
  CloseHandle(tr);
  EXPECT_EQ(kytest::FileSize(path), 0);
  // Directories are never opened as files.
  EXPECT_EQ(GetFileAttributesA(dir.path().c_str()), FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(CreateFileA(dir.path().c_str(), GENERIC_READ, 3, nullptr, OPEN_EXISTING, 0x80, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_FALSE(CloseHandle(INVALID_HANDLE_VALUE));
}

TEST(PlatformFile, CopyAndDelete) {
  kytest::TempDir dir;
  std::string a = dir.File("a"), b = dir.File("b");
  kytest::Bytes data(3u << 20);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i % 251);
  kytest::WriteAll(a, data);
  ASSERT_TRUE(CopyFileA(a.c_str(), b.c_str(), TRUE));
  EXPECT_EQ(kytest::ReadAll(b), data);
  EXPECT_FALSE(CopyFileA(a.c_str(), b.c_str(), TRUE));  // target exists
  kytest::WriteAll(a, {9});
  ASSERT_TRUE(CopyFileA(a.c_str(), b.c_str(), FALSE));
  EXPECT_EQ(kytest::ReadAll(b), kytest::Bytes({9}));
  EXPECT_TRUE(DeleteFileA(b.c_str()));
  EXPECT_FALSE(DeleteFileA(b.c_str()));
  EXPECT_EQ(_unlink(a.c_str()), 0);
}

TEST(PlatformGlobalMemory, ZeroInitAndGrowth) {
  BYTE* p = static_cast<BYTE*>(GlobalAlloc(GMEM_ZEROINIT, 64));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(p[i], 0);
  EXPECT_EQ(GlobalSize(p), 64u);
  memset(p, 0xAB, 64);
  p = static_cast<BYTE*>(GlobalReAlloc(p, 4096, GMEM_MOVEABLE | GMEM_ZEROINIT));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[63], 0xAB);
  EXPECT_EQ(p[64], 0);
  EXPECT_EQ(p[4095], 0);
  EXPECT_EQ(GlobalLock(p), p);
  EXPECT_EQ(GlobalFree(p), nullptr);
  EXPECT_EQ(GlobalFree(nullptr), nullptr);
}

TEST(PlatformCString, HoldsAnyBytesAndComparesThemUnsigned) {
  CString withNul("a\0b", 3);
  EXPECT_EQ(withNul.GetLength(), 3);
  CString upper("B"), lower("a"), high("\xC3");
  EXPECT_LT(upper.Compare(lower), 0);  // byte order: "B" before "a"
  EXPECT_GT(high.Compare("z"), 0);     // bytes above 0x7F sort last
  EXPECT_EQ(CString("abc").Compare("abc"), 0);
  EXPECT_LT(CString("ab").Compare("abc"), 0);
  CString s;
  EXPECT_TRUE(s.IsEmpty());
  char* buf = s.GetBuffer(10);
  strcpy(buf, "xyz");
  s.ReleaseBuffer();
  EXPECT_EQ(s, "xyz");
  EXPECT_EQ(CString(nullptr).GetLength(), 0);
}

}  // namespace
