// Fixed-width stand-ins for the Win32 scalar types.
//
// The file format and the public API were designed on 32-bit Windows, where
// DWORD, LONG and UINT are 32 bits wide.  On LP64 systems `long` is 64 bits,
// so every type here is pinned to an exact width instead of borrowing the
// host's `long`.  Nothing in the library may use `long` for a value that is
// stored on disk or exchanged with callers as a Win32 type.
#ifndef KYSTORE_PLATFORM_WIN_TYPES_H_
#define KYSTORE_PLATFORM_WIN_TYPES_H_

#include <cstddef>
#include <cstdint>

#if !defined(__BYTE_ORDER__) || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "kystore reads and writes its records in host order and needs a little-endian host"
#endif

// The Windows compiler's 64-bit integer.  Code written for it mixes
// __int64, LONGLONG and long long freely, also through pointers and
// references, so all of them are one type here: long long.  (int64_t is
// `long` on 64-bit Linux and would not bind to a long long&.)  Other
// Windows-on-GCC layers define it the same way.
#if !defined(_MSC_VER) && !defined(__int64)
#define __int64 long long
#endif

typedef uint32_t DWORD;
typedef uint16_t WORD;
typedef uint8_t BYTE;
typedef int32_t BOOL;
typedef uint32_t UINT;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef size_t SIZE_T;
typedef const char* LPCSTR;
typedef char* LPSTR;
typedef const char* LPCTSTR;
typedef void* HANDLE;
typedef void* HGLOBAL;

static_assert(sizeof(DWORD) == 4, "DWORD must be 32 bits");
static_assert(sizeof(WORD) == 2, "WORD must be 16 bits");
static_assert(sizeof(BYTE) == 1, "BYTE must be 8 bits");
static_assert(sizeof(BOOL) == 4, "BOOL must be 32 bits");
static_assert(sizeof(UINT) == 4, "UINT must be 32 bits");
static_assert(sizeof(LONG) == 4, "LONG must be 32 bits");
static_assert(sizeof(__int64) == 8, "__int64 must be 64 bits");

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// The all-bits-set handle value Win32 uses for "no handle".
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1)))

// Longest path the ANSI file calls accept, terminator included.
#define MAX_PATH 260

union LARGE_INTEGER {
  struct {
    DWORD LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
};
static_assert(sizeof(LARGE_INTEGER) == 8, "LARGE_INTEGER must be 64 bits");

// Carried through to the file calls unchanged; the library never uses
// overlapped I/O and always passes null.
struct OVERLAPPED {
  uintptr_t Internal;
  uintptr_t InternalHigh;
  DWORD Offset;
  DWORD OffsetHigh;
  HANDLE hEvent;
};

struct RECT {
  LONG left;
  LONG top;
  LONG right;
  LONG bottom;
};
static_assert(sizeof(RECT) == 16, "RECT must be 16 bytes");

struct SIZE {
  LONG cx;
  LONG cy;
};
static_assert(sizeof(SIZE) == 8, "SIZE must be 8 bytes");

#endif  // KYSTORE_PLATFORM_WIN_TYPES_H_
