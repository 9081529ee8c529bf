// kyCheckStorage: an integrity check of a whole storage file.
//
// The check reads the file's bytes itself, with positioned reads on a
// handle opened for reading only: it never writes, never opens the file for
// writing, and does not go through kyStorage, so it also looks at files the
// library refuses to open.  It walks the header, the root directory chain,
// every root slot (used and free), every stream's block chain and every
// folder's child slots to the bottom, and reports each fault it finds with
// the file offset it concerns.  It ends on any input: every link it takes
// points forward in the file, every walk is bounded by the file's size, and
// nothing is allocated by a length read from the file.
#ifndef KYSTORE_CHECK_H_
#define KYSTORE_CHECK_H_

#include <string>
#include <vector>

#include "kystore/export.h"
#include "platform/win_types.h"

// One fault: the file offset of the bytes that are wrong (a field, a slot
// or a block) and what is wrong with them, in one line of text.  Names in
// messages have bytes outside printable ASCII written as \xNN.
struct kyCheckFault {
  ULONGLONG offset;
  std::string message;
};

// What a check found.  Space figures count whole blocks (header and room)
// and are filled only when isStorage is true:
//   liveBytes        blocks of the chains of streams in use
//   freeSlotBytes    blocks of the chains kept by free slots, which the next
//                    stream created in such a slot takes over
//   unreachableBytes bytes that neither the header, a directory block nor
//                    any chain reaches: what a rebuild gives back besides
//                    the free slots' chains
struct kyCheckReport {
  bool isStorage = false;            // the header is a storage header of a known form
  std::string error;                 // why the file was not opened, or is not a storage
  std::vector<kyCheckFault> faults;  // in the order found; empty when clean

  ULONGLONG fileSize = 0;
  int offsetBits = 0;  // 32 or 64
  ULONGLONG liveBytes = 0, freeSlotBytes = 0, unreachableBytes = 0;
  ULONGLONG directoryBytes = 0;  // the header and the directory blocks
  ULONGLONG dataBytes = 0;       // the lengths of the streams in use, summed
  ULONGLONG directoryBlocks = 0, dataBlocks = 0;
  ULONGLONG streams = 0, folders = 0, freeSlots = 0;  // slots at the root and in folders
};

// Checks the storage file at `path` and fills `report` (cleared first).
// Returns false, with the system's reason in report->error ("No such file
// or directory", "Is a directory", "Permission denied"), when the file
// cannot be opened for reading or read.  Returns true otherwise: then
// report->isStorage says whether the file starts with a storage header
// (when not, report->error says why, and nothing else is checked), and
// report->faults lists what is wrong with it.
KYSTORE_EXPORT bool kyCheckStorage(const char* path, kyCheckReport* report);

#endif  // KYSTORE_CHECK_H_
