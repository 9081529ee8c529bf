// kystore put FILE PATH [SRC]: stores a file (or standard input) as a
// stream's data.
//
// The old data stay until the new data are all in: they are written into a
// new stream beside the old one, which then takes the old one's place (the
// old stream is removed and the new one renamed).  Whatever fails on the
// way, the journal of the change puts the file back as it was.
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "change_recording.h"
#include "change_session.h"
#include "commands.h"
#include "file_lock.h"
#include "kystore.h"
#include "storage_scan.h"
#include "storage_util.h"
#include "stream_path.h"

namespace kycli {

namespace {

const char kPutSynopsis[] = "kystore put FILE PATH [SRC]";

// Room a put needs besides its data: block headers, the new slot, perhaps
// a new directory block, and the folders made on the way.
const int64_t kPutOverhead = 64 << 10;
const int64_t kPerFolderOverhead = 8 << 10;

struct PutOptions {
  std::string file;
  std::string path;
  std::string source;  // empty or "-": standard input
};

struct InputCloser {
  void operator()(FILE* f) const {
    if (f != stdin) fclose(f);
  }
};
typedef std::unique_ptr<FILE, InputCloser> InputFile;

// Where the data come from.  `size` is known (not -1) for a regular file:
// exactly that many bytes are read, so that a file that grows meanwhile,
// the storage file itself among them, is taken as it was.
struct Input {
  InputFile file;
  std::string name;
  int64_t size = -1;
};

std::string LimitText() {
  return "a stream holds at most " + std::to_string(kyStorage::g_iMaxCompStmSize) + " bytes";
}

// Opens SRC, refusing anything but a regular file (or standard input) and a
// file larger than a stream can hold.
bool OpenInput(const std::string& source, Input& in) {
  struct stat st;
  if (source.empty()) {
    in.file.reset(stdin);
    in.name = "standard input";
    off_t at = lseek(STDIN_FILENO, 0, SEEK_CUR);
    if (fstat(STDIN_FILENO, &st) == 0 && S_ISREG(st.st_mode) && at >= 0)
      in.size = st.st_size > at ? st.st_size - at : 0;
  } else {
    in.name = source;
    if (!CheckRegularFile(source)) return false;
    in.file.reset(fopen(source.c_str(), "rb"));
    if (!in.file || fstat(fileno(in.file.get()), &st) != 0) {
      Complain(source, strerror(errno));
      return false;
    }
    in.size = st.st_size;
  }
  if (in.size > kyStorage::g_iMaxCompStmSize) {
    Complain(in.name, "too large: " + LimitText());
    return false;
  }
  return true;
}

// Whether the storage file may grow by what a put of `in` appends, by its
// own size limit and by the free space of its file system.  Unknown sizes
// pass; the journal undoes a write that fails later.
bool CheckRoom(const std::string& file, const StorageScan& scan, const Input& in, size_t levels) {
  if (in.size < 0) return true;
  const int64_t need = in.size + kPutOverhead + kPerFolderOverhead * static_cast<int64_t>(levels);
  const int64_t limit = scan.offsets64 ? kyStorage::g_iMaxTolvarSize : 0xFFFFFFFFLL;
  if (scan.fileSize > limit - need) {
    Complain(file, "the storage file would grow past its largest size of " + std::to_string(limit) +
                       " bytes");
    return false;
  }
  struct statvfs fs;
  if (statvfs(file.c_str(), &fs) != 0) return true;
  unsigned long long avail;
  if (__builtin_mul_overflow(static_cast<unsigned long long>(fs.f_bavail),
                             static_cast<unsigned long long>(fs.f_frsize), &avail) ||
      avail >= static_cast<unsigned long long>(need))
    return true;
  Complain(file, std::string(strerror(ENOSPC)) + " (" + std::to_string(need) + " bytes needed, " +
                     std::to_string(avail) + " free)");
  return false;
}

// Whether the root stream `name` lies in one of the fast slots, where
// applications find it by the slot alone; it must not move.
bool InFastSlot(const StorageScan& scan, kyStream* parent, const std::string& name) {
  const NamedSlot* slot = parent == nullptr ? scan.FindMapped(name) : nullptr;
  return slot != nullptr && slot->block == 0 && slot->slot < static_cast<int>(scan.fastSlots);
}

// Reports why the data could not all be written: the system's reason when
// a write failed, the size limit only when it is what stopped the data.
void ReportShortWrite(kyStream* stm, const std::string& subject) {
  const std::string cause = WriteErrorText();
  if (!cause.empty())
    Complain(subject, "cannot write the data: " + cause);
  else if (stm->GetCurDataPos() >= kyStorage::g_iMaxCompStmSize)
    Complain(subject, "the data do not fit (" + LimitText() + ")");
  else
    Complain(subject, "cannot write the data");
}

// Writes all of `in` into the new, empty stream `stm`.  Every chunk is
// written with bEraseOld, so the stream ends where the data written so far
// end.
int CopyFromInput(Input& in, kyStream* stm, const std::string& subject) {
  std::vector<char> buf(1 << 20);
  for (int64_t done = 0; in.size < 0 || done < in.size;) {
    size_t want = buf.size();
    if (in.size >= 0 && in.size - done < static_cast<int64_t>(want))
      want = static_cast<size_t>(in.size - done);
    size_t n = fread(buf.data(), 1, want, in.file.get());
    if (Interrupted()) return kExitFailure;
    if (n > 0 && stm->Write(buf.data(), static_cast<int64_t>(n), true) != static_cast<int64_t>(n)) {
      ReportShortWrite(stm, subject);
      return kExitFailure;
    }
    done += static_cast<int64_t>(n);
    if (n < want) break;
  }
  if (ferror(in.file.get())) {
    Complain(in.name, "read error");
    return kExitFailure;
  }
  return kExitOk;
}

// Makes a data stream beside the old one, with its duration, under a name
// no stream has, for the new data until they replace the old.
kyStream* CreateTemporarySibling(kyStorage* storage, kyStream* parent, WORD minutes) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::string name =
        ".kystore-put-" + std::to_string(getpid()) + "-" + std::to_string(attempt);
    if (kyStream* existing = OpenChild(storage, parent, name, kModeReadShared)) {
      existing->Release();
      continue;
    }
    return CreateChild(storage, parent, name, false, minutes);
  }
  return nullptr;
}

// Records the put: the new data as erase-old writes into the stream inside
// its folders.  Emptying a stream takes a removal first, as an empty write
// would not cut the old data.
int RecordPut(const PutOptions& opt, const StreamPath& path, const StreamChain& chain,
              kyStream* stm, bool hadOld) {
  ChangeRecording* rec = ActiveRecording();
  if (rec == nullptr) return kExitOk;
  rec->EnterChain(chain);
  if (hadOld && stm->GetLength() == 0) rec->Remove(path.back(), chain.Leaf());
  rec->Enter(stm);
  const bool ok = rec->WriteData(stm);
  rec->Leave(stm);
  rec->LeaveChain(chain);
  if (ok) return kExitOk;
  ComplainAbout(opt.file, path, "cannot read the new data back to record them");
  return kExitFailure;
}

// Writes the data into a new stream and puts it in the old one's place.
int ReplaceStream(const PutOptions& opt, const StreamPath& path, Input& in, kyStorage* storage,
                  const StreamChain& chain, StreamPtr old) {
  kyStream* parent = chain.Leaf();
  const bool hadOld = old != nullptr;
  StreamPtr fresh(CreateTemporarySibling(storage, parent, old ? old->GetDuration() : 0));
  if (!fresh) {
    ComplainAbout(opt.file, path, WithWriteError("cannot create the stream"));
    return kExitFailure;
  }
  int status = CopyFromInput(in, fresh.get(), opt.file + ": " + JoinPath(path));
  if (status != kExitOk) return status;
  if (old) {
    if (!old->Remove()) {
      ComplainAbout(opt.file, path, WithWriteError("cannot replace the stream"));
      return kExitFailure;
    }
    old.release();  // Remove has destroyed the object
  }
  if (!fresh->Rename(path.back().c_str())) {
    ComplainAbout(opt.file, path, WithWriteError("cannot name the new stream"));
    return kExitFailure;
  }
  return RecordPut(opt, path, chain, fresh.get(), hadOld);
}

// Writes the data over the stream's own; the journal keeps the old bytes.
int OverwriteInPlace(const PutOptions& opt, const StreamPath& path, Input& in,
                     const StreamChain& chain, kyStream* stm) {
  if (stm->GetLength() > 0 && !stm->Erase()) {
    ComplainAbout(opt.file, path, WithWriteError("cannot empty the stream"));
    return kExitFailure;
  }
  const int status = CopyFromInput(in, stm, opt.file + ": " + JoinPath(path));
  return status != kExitOk ? status : RecordPut(opt, path, chain, stm, true);
}

int PutInto(const PutOptions& opt, const StreamPath& path, Input& in) {
  OpenedStorage storage(opt.file, true);
  if (!storage) return kExitFailure;
  StorageScan scan;
  std::string error;
  if (!ScanStorage(opt.file, scan, error)) {
    Complain(opt.file, error);
    return kExitFailure;
  }
  if (!CheckRoom(opt.file, scan, in, path.size())) return kExitFailure;
  StreamChain chain;
  const StreamPath parentPath(path.begin(), path.end() - 1);
  if (!OpenOrCreatePath(storage.get(), opt.file, parentPath, true, chain)) return kExitFailure;
  StreamPtr old(OpenChild(storage.get(), chain.Leaf(), path.back(), kModeReadWriteShared));
  if (old && old->IsFolder()) {
    ComplainAbout(opt.file, path, "is a folder");
    return kExitFailure;
  }
  if (old && InFastSlot(scan, chain.Leaf(), path.back()))
    return OverwriteInPlace(opt, path, in, chain, old.get());
  return ReplaceStream(opt, path, in, storage.get(), chain, std::move(old));
}

int RunPut(PutOptions opt) {
  if (opt.source == "-") opt.source.clear();
  StreamPath path;
  if (!ParsePathArgument(opt.path, kPutSynopsis, path)) return kExitUsage;
  Input in;
  if (!OpenInput(opt.source, in)) return kExitFailure;
  return RunChanging(
      opt.file, {}, [&] { return PutInto(opt, path, in); }, true);
}

}  // namespace

Command RegisterPut(CLI::App& app, int& status) {
  auto opt = std::make_shared<PutOptions>();
  CLI::App* sub = app.add_subcommand(
      "put", "Store a file (or standard input) as a stream's data, creating what is missing");
  sub->add_option("FILE", opt->file, "The storage file")->required();
  sub->add_option("PATH", opt->path, "The stream, e.g. Top/Mid/Leaf")->required();
  sub->add_option("SRC", opt->source, "The file to store (default, or '-': standard input)");
  sub->callback([opt, &status] { status = RunPut(*opt); });
  return {sub, kPutSynopsis};
}

}  // namespace kycli
