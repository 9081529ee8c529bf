#include "cstring.h"

#include <cstring>

namespace {

int CompareBytes(const char* a, size_t na, const char* b, size_t nb) {
  size_t n = na < nb ? na : nb;
  int c = n ? memcmp(a, b, n) : 0;
  if (c != 0) return c < 0 ? -1 : 1;
  if (na == nb) return 0;
  return na < nb ? -1 : 1;
}

}  // namespace

int CString::Compare(const char* other) const {
  const char* o = other ? other : "";
  return CompareBytes(m_s.data(), m_s.size(), o, strlen(o));
}

int CString::Compare(const CString& other) const {
  return CompareBytes(m_s.data(), m_s.size(), other.m_s.data(), other.m_s.size());
}

char* CString::GetBuffer(int minLength) {
  size_t want = minLength > 0 ? static_cast<size_t>(minLength) : 0;
  if (m_s.size() < want) m_s.resize(want);
  return &m_s[0];
}

void CString::ReleaseBuffer(int newLength) {
  if (newLength < 0) {
    m_s.resize(strnlen(m_s.c_str(), m_s.size()));
  } else if (static_cast<size_t>(newLength) <= m_s.size()) {
    m_s.resize(static_cast<size_t>(newLength));
  }
}

bool operator==(const CString& a, const CString& b) {
  return a.Compare(b) == 0;
}
bool operator==(const CString& a, const char* b) {
  return a.Compare(b) == 0;
}
bool operator==(const char* a, const CString& b) {
  return b.Compare(a) == 0;
}
bool operator!=(const CString& a, const CString& b) {
  return a.Compare(b) != 0;
}
bool operator!=(const CString& a, const char* b) {
  return a.Compare(b) != 0;
}
bool operator<(const CString& a, const CString& b) {
  return a.Compare(b) < 0;
}
CString operator+(const CString& a, const CString& b) {
  CString r(a);
  r += b;
  return r;
}
