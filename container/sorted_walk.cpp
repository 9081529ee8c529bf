// The name-ordered walk over the root streams that opens nothing, with a
// duration worked out for each stream.
//
// Streams named by eight characters are time stamps in seconds, read as
// hexadecimal numbers; the duration of one is the distance to the next
// time stamp in the walk, at most a day.  Whatever cannot be worked out
// that way falls back to the last duration found, or to an hour.

#include <cstdio>

#include "kystore/storage.h"

namespace {

const DWORD kMaxGap = 86400;          // a day: larger gaps are not durations
const DWORD kDefaultDuration = 3600;  // an hour, when nothing else is known
const int kTimeStampLength = 8;

// Reads the name as "%lx" reads it (leading blanks, a sign, a 0x prefix,
// then hexadecimal digits as far as they go), keeping the low 32 bits.
// False for a name from which no number can be read at all.
bool ReadTimeStamp(const CString& name, DWORD& value) {
  unsigned long number = 0;
  if (sscanf(name.GetString(), "%lx", &number) != 1) return false;
  value = static_cast<DWORD>(number);
  return true;
}

// The first name of eight characters in the view at `from` or later,
// whatever it holds; false when none follows.
bool NextTimeStampName(const t_kyStreamMap& map, int from, CString& found) {
  if (from < 0) return false;
  tag_kyStreamOffset ignored;
  for (int i = from; map.GetSortedAt(i, found, ignored); ++i)
    if (found.GetLength() == kTimeStampLength) return true;
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
  if (it->offset.dwDuration != 0 || it->strName.GetLength() != kTimeStampLength) return 1;
  // A name that is no number at all is reported like one of another length.
  DWORD current = 0;
  if (!ReadTimeStamp(it->strName, current)) return 1;

  CString next;
  DWORD following = 0;
  DWORD duration = it->dwLastDuration;
  // A next name that is no number gives the previous duration, as when no
  // next name exists.
  if (NextTimeStampName(m_streamMap, it->iPos, next) && ReadTimeStamp(next, following)) {
    // Unsigned arithmetic: in descending order the difference wraps to a
    // huge value and so takes the previous duration.
    const DWORD gap = following - current;
    if (gap <= kMaxGap) duration = gap;
  }
  if (duration == 0) duration = kDefaultDuration;
  it->dwLastDuration = duration;
  it->offset.dwDuration = duration;
  return 1;
}
