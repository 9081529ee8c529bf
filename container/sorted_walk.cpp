// The name-ordered walk over the root streams that opens nothing, with a
// duration worked out for each stream.
//
// Streams named by eight hexadecimal digits are time stamps in seconds; the
// duration of one is the distance to the next time stamp in the walk, at
// most a day.  Whatever cannot be worked out that way falls back to the last
// duration found, or to an hour.

#include <cctype>
#include <cstdlib>

#include "kystore/storage.h"

namespace {

const DWORD kMaxGap = 86400;          // a day: larger gaps are not durations
const DWORD kDefaultDuration = 3600;  // an hour, when nothing else is known

// A time-stamped name is exactly eight hexadecimal digits.  An eight-character
// name with anything else in it is no number at all and is treated like a
// name of another length.
bool IsTimeStamp(const CString& name) {
  if (name.GetLength() != 8) return false;
  for (int i = 0; i < 8; ++i)
    if (!isxdigit(static_cast<unsigned char>(name.GetString()[i]))) return false;
  return true;
}

DWORD TimeStamp(const CString& name) {
  return static_cast<DWORD>(strtoul(name.GetString(), nullptr, 16));
}

// The first time-stamped name of the view at `from` or later; false when
// none follows.
bool NextTimeStamp(const t_kyStreamMap& map, int from, CString& found) {
  if (from < 0) return false;
  tag_kyStreamOffset ignored;
  for (int i = from; map.GetSortedAt(i, found, ignored); ++i)
    if (IsTimeStamp(found)) return true;
  return false;
}

}  // namespace

int kyStorage::IterateSortedStreamsNoOPENS(CIterateSortedStreams* it) {
  if (it == nullptr) return 0;
  int index;
  if (it->bFirst) {
    it->bFirst = 0;
    it->iPos = -1;
    if (m_streamMap.Sort(it->iOrder) != 0) return 0;
    index = 0;
  } else {
    index = it->iPos;
  }
  // A removal since the last step empties the view and so ends the walk.
  if (index < 0 || index >= m_streamMap.GetSortedCount()) return 0;
  m_streamMap.GetNextSorted(index, it->strName, it->offset);
  it->iPos = index;

  if (it->dwFixedDuration != 0) it->offset.dwDuration = it->dwFixedDuration;
  if (it->offset.dwDuration != 0 || !IsTimeStamp(it->strName)) return 1;

  CString next;
  DWORD duration = it->dwLastDuration;
  if (NextTimeStamp(m_streamMap, it->iPos, next)) {
    // Unsigned arithmetic: in descending order the difference wraps to a
    // huge value and so takes the previous duration.
    const DWORD gap = TimeStamp(next) - TimeStamp(it->strName);
    if (gap <= kMaxGap) duration = gap;
  }
  if (duration == 0) duration = kDefaultDuration;
  it->dwLastDuration = duration;
  it->offset.dwDuration = duration;
  return 1;
}
