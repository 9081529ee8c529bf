// How the commands get at their storage files.
//
// A reading command holds a shared lock on each file it reads; a changing
// command holds an exclusive lock on the file it changes for its whole run
// and changes it under an undo journal: unless its work succeeds, the file
// is put back byte for byte as it was.  Both refuse what is not a regular
// file before anything opens it.
#ifndef KYSTORE_TOOLS_CHANGE_SESSION_H_
#define KYSTORE_TOOLS_CHANGE_SESSION_H_

#include <functional>
#include <string>
#include <vector>

namespace kycli {

// Runs `work` with shared locks on `files`.  Returns its status, or
// kExitFailure (after a message) when a file is refused or stays locked.
int RunReading(const std::vector<std::string>& files, const std::function<int()>& work);

// Runs `work`, which changes `file` and may read `readFiles`, under an
// exclusive lock on `file`, shared locks on the others, and a journal of
// `file`.  When `work` returns anything but kExitOk, the file is rolled
// back.  SIGINT, SIGTERM and SIGHUP are noted meanwhile (see Interrupted)
// and SIGXFSZ ignored, so that a write past the file size limit fails.  `work` must have released
// every storage object it opened by the time it returns.  With `records`
// and a record file set (--record), `work` describes its change in
// ActiveRecording(); a change that succeeded is appended to the record
// file, and one that cannot be recorded or appended is rolled back.
int RunChanging(const std::string& file, const std::vector<std::string>& readFiles,
                const std::function<int()>& work, bool records = false);

// The system's reason why a write on the file being changed failed ("No
// space left on device"), or "" when none failed.
std::string WriteErrorText();
// `message`, followed by ": " and WriteErrorText() when there is one.
std::string WithWriteError(const std::string& message);

// Whether SIGINT, SIGTERM or SIGHUP arrived while a changing command runs.
// Long work checks it and fails; the change is then undone.
bool Interrupted();

}  // namespace kycli

#endif  // KYSTORE_TOOLS_CHANGE_SESSION_H_
