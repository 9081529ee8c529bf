// One record of an open-stream registry: how many stream objects are open
// under a name, and the mode of the open that made the record.
#ifndef KYSTORE_OPEN_STREAM_H_
#define KYSTORE_OPEN_STREAM_H_

#include "kystore/export.h"
#include "platform/collections.h"
#include "platform/cstring.h"

class KYSTORE_EXPORT t_OpenStream {
 public:
  t_OpenStream(const char* name, DWORD mode) : m_strName(name), m_nCount(1), m_dwMode(mode) {}

  CString m_strName;  // name the stream was opened under
  int m_nCount;       // objects open under that name
  DWORD m_dwMode;     // mode of the first open; later opens leave it alone
};

typedef CList<t_OpenStream*, t_OpenStream*> t_OpenStreamList;

// Open modes.
const DWORD kModeRead = 0x02;
const DWORD kModeWrite = 0x04;
const DWORD kModeShareRead = 0x08;
const DWORD kModeShareReadWrite = 0x10;
const DWORD kModeExclusive = 0x20;        // no other open while this one lasts
const DWORD kModeReadShared = 0x12;       // what the library uses to read
const DWORD kModeReadWriteShared = 0x16;  // what the library uses to change

#endif  // KYSTORE_OPEN_STREAM_H_
