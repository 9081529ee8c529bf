#include "directory.h"

#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "win_file.h"

namespace {

// '*' and '?' matching, iterative with one point to come back to, so that
// no name can make it take more than length(name) * length(mask) steps.
bool Glob(const char* name, const char* mask) {
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*name != '\0') {
    if (*mask == '?' || (*mask != '*' && *mask == *name)) {
      ++name;
      ++mask;
    } else if (*mask == '*') {
      star = mask++;
      resume = name;
    } else if (star != nullptr) {
      mask = star + 1;
      name = ++resume;
    } else {
      return false;
    }
  }
  while (*mask == '*') ++mask;
  return *mask == '\0';
}

bool MatchesMask(const char* name, const CString& mask) {
  const int n = mask.GetLength();
  if (n > 0 && mask.GetAt(n - 1) == '.') {
    if (strchr(name, '.') != nullptr) return false;
    const CString stem(mask.GetString(), n - 1);
    return Glob(name, stem);
  }
  return Glob(name, mask);
}

}  // namespace

BOOL PathIsDirectoryA(LPCSTR path) {
  return GetFileAttributesA(path) == FILE_ATTRIBUTE_DIRECTORY ? FILE_ATTRIBUTE_DIRECTORY : FALSE;
}

int _rmdir(const char* path) {
  return path != nullptr && rmdir(path) == 0 ? 0 : -1;
}

BOOL CFileFind::FindFile(const char* pattern, DWORD /*unused*/) {
  Close();
  if (pattern == nullptr) return FALSE;
  const char* slash = strrchr(pattern, '/');
  const char* back = strrchr(pattern, '\\');
  const char* sep = slash > back ? slash : back;
  const CString mask = sep != nullptr ? sep + 1 : pattern;
  m_strDirectory = sep != nullptr ? CString(pattern, static_cast<int>(sep - pattern)) : ".";
  if (sep == pattern) m_strDirectory = "/";

  DIR* dir = opendir(m_strDirectory);
  if (dir == nullptr) return FALSE;
  while (const dirent* entry = readdir(dir)) {
    if (MatchesMask(entry->d_name, mask)) m_names.push_back(entry->d_name);
  }
  closedir(dir);
  return m_names.empty() ? FALSE : TRUE;
}

BOOL CFileFind::FindNextFile() {
  if (m_iCurrent + 1 >= static_cast<int>(m_names.size())) return FALSE;
  ++m_iCurrent;
  return m_iCurrent + 1 < static_cast<int>(m_names.size()) ? TRUE : FALSE;
}

void CFileFind::Close() {
  m_names.clear();
  m_iCurrent = -1;
}

CString CFileFind::GetFileName() const {
  if (m_iCurrent < 0) return CString();
  return m_names[static_cast<size_t>(m_iCurrent)];
}

CString CFileFind::GetFilePath() const {
  if (m_iCurrent < 0) return CString();
  CString path = m_strDirectory;
  if (path.GetLength() == 0 || path.GetAt(path.GetLength() - 1) != '/') path += '/';
  return path + GetFileName();
}

// A match that cannot be examined counts as a file; a link to a directory
// counts as a directory.
BOOL CFileFind::IsDirectory() const {
  if (m_iCurrent < 0) return FALSE;
  struct stat st;
  return stat(GetFilePath(), &st) == 0 && S_ISDIR(st.st_mode) ? TRUE : FALSE;
}

BOOL CFileFind::IsDots() const {
  const CString name = GetFileName();
  return name == "." || name == ".." ? TRUE : FALSE;
}
