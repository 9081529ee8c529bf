// What `kystore --record REC` keeps of a changing command: a recording in
// the library's record format, built by the command with a CCompRecorder
// and its hooks on the streams of the changed storage, and appended to the
// plain file REC when the change succeeds.
//
// The library records only what its entry setters and serialization
// operators write, not plain writes, creations or renames, so each command
// describes its own change: the streams it entered (folders as folders),
// the data it left in them (erase-old writes), and what it removed.
// Replayed into a storage in the state the command started from, the
// records make the same tree.
#ifndef KYSTORE_TOOLS_CHANGE_RECORDING_H_
#define KYSTORE_TOOLS_CHANGE_RECORDING_H_

#include <string>

#include "kystore.h"
#include "storage_util.h"

namespace kycli {

class ChangeRecording {
 public:
  // Enters the first `levels` streams of `chain` (all by default) from the
  // root down.
  void EnterChain(const StreamChain& chain, size_t levels = static_cast<size_t>(-1));
  // Leaves them again, the innermost first.
  void LeaveChain(const StreamChain& chain, size_t levels = static_cast<size_t>(-1));
  // Enters `stm`, a child of the stream on top (a root stream when nothing
  // is entered).
  void Enter(kyStream* stm) { m_rec.OpEnter(stm->GetName(), stm->IsFolder(), stm); }
  void Leave(kyStream* stm) { m_rec.OpLeave(stm); }
  // Records the removal of `name` in `parent` (null: a root stream).
  void Remove(const std::string& name, kyStream* parent) { m_rec.OpRemove(name.c_str(), parent); }
  // Records a write at the entered stream `stm`.
  void Write(kyStream* stm, const void* data, DWORD n, bool eraseOld, bool prependSize);
  // Records all the data of the entered data stream `stm`, as erase-old
  // writes (one write with the size prefix when `stm` carries a verified
  // one).  Moves the storage's file position.  False when they cannot be
  // read.
  bool WriteData(kyStream* stm);
  // Records `stm` (already entered) and everything below it: the data of
  // a data stream, or each child entered, written and left.
  bool WriteTree(kyStream* stm);

  // Whether the records are whole: nothing nested deeper than a recording
  // holds, and every entered stream left.
  bool Complete() const { return !m_rec.HasBeenStopped() && m_rec.GetStmDepth() == 0; }
  // Appends the records to `file`, creating it; on failure the file is cut
  // back to its old size and the reason returned in `error`.
  bool AppendTo(const std::string& file, std::string& error);

 private:
  CCompRecorder m_rec;
};

// Reads the whole file `file` into a malloc'ed buffer (at least one byte
// allocated) for a recorder to own, setting `size`; null with the reason
// in `error` when it cannot be read or exceeds 2 GiB.
unsigned char* LoadRecordingFile(const std::string& file, unsigned int& size, std::string& error);

// Set from the --record option; "" when the commands do not record.
void SetRecordFile(const std::string& file);
const std::string& RecordFile();

// The recording of the running changing command, or null when the command
// is not asked to record.  Valid while RunChanging runs its work.
ChangeRecording* ActiveRecording();
void SetActiveRecording(ChangeRecording* recording);

}  // namespace kycli

#endif  // KYSTORE_TOOLS_CHANGE_RECORDING_H_
