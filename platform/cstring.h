// A framework-style string: length-counted narrow bytes, so it can hold any
// byte values, NULs included.  Comparison is byte-wise and case-sensitive.
#ifndef KYSTORE_PLATFORM_CSTRING_H_
#define KYSTORE_PLATFORM_CSTRING_H_

#include <string>

#include "kystore/export.h"
#include "win_types.h"

class KYSTORE_EXPORT CString {
 public:
  CString() = default;
  CString(const char* s) : m_s(s ? s : "") {}  // NOLINT: implicit, as in the framework
  CString(const char* s, int length) : m_s(s ? std::string(s, length > 0 ? length : 0) : "") {}
  CString(const CString&) = default;
  CString(CString&&) noexcept = default;
  CString& operator=(const CString&) = default;
  CString& operator=(CString&&) noexcept = default;
  CString& operator=(const char* s) {
    m_s = s ? s : "";
    return *this;
  }

  int GetLength() const { return static_cast<int>(m_s.size()); }
  bool IsEmpty() const { return m_s.empty(); }
  void Empty() { m_s.clear(); }
  const char* GetString() const { return m_s.c_str(); }
  operator const char*() const { return m_s.c_str(); }  // NOLINT: the framework's LPCTSTR cast
  char GetAt(int i) const { return m_s[static_cast<size_t>(i)]; }
  void SetAt(int i, char c) { m_s[static_cast<size_t>(i)] = c; }

  // Byte-wise comparison: <0, 0, >0.  Bytes compare as unsigned values.
  int Compare(const char* other) const;
  int Compare(const CString& other) const;

  CString& operator+=(const char* s) {
    if (s) m_s += s;
    return *this;
  }
  CString& operator+=(const CString& s) {
    m_s += s.m_s;
    return *this;
  }
  CString& operator+=(char c) {
    m_s += c;
    return *this;
  }

  // Room for at least `minLength` characters plus a terminator; the caller
  // writes into it and calls ReleaseBuffer, which takes the length up to the
  // first NUL (or `newLength` when it is not negative).
  char* GetBuffer(int minLength);
  void ReleaseBuffer(int newLength = -1);

  const std::string& str() const { return m_s; }

 private:
  std::string m_s;
};

KYSTORE_EXPORT bool operator==(const CString& a, const CString& b);
KYSTORE_EXPORT bool operator==(const CString& a, const char* b);
KYSTORE_EXPORT bool operator==(const char* a, const CString& b);
KYSTORE_EXPORT bool operator!=(const CString& a, const CString& b);
KYSTORE_EXPORT bool operator!=(const CString& a, const char* b);
KYSTORE_EXPORT bool operator<(const CString& a, const CString& b);
KYSTORE_EXPORT CString operator+(const CString& a, const CString& b);

#endif  // KYSTORE_PLATFORM_CSTRING_H_
