// Rebuilding a storage file: its root streams, with everything they hold,
// are copied into a fresh storage under a temporary name, the copy is
// checked against the original, and the fresh file is put in place of the
// old one by one atomic rename.
//
// Until that rename the storage file is only read, so a failure or a crash
// at any earlier moment leaves it as it was; after the rename it is the
// whole new file.  A left-over temporary file of a crashed rebuild is
// replaced by the next one.

#include <cstring>
#include <string>

#include "container/directory.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "platform/win_file.h"

namespace {

const char kTempSuffix[] = "_tmp";

void Report(RecreateProgress progress, void* context, int done, int total) {
  if (progress != nullptr) progress(done, total, context);
}

}  // namespace

int kyStorage::Recreate(const char* name) {
  return Recreate(name, nullptr, nullptr);
}

int kyStorage::Recreate(const char* name, RecreateProgress progress, void* context) {
  kyStorage* old = Open(name, kModeReadShared, 0, 0);
  if (old == nullptr) return 0;
  const int result = RebuildFile(old, name, progress, context);
  if (result < 0) old->Release();
  return result > 0 ? 1 : 0;
}

// Rebuilding another file than the one `pStg` has open would put pStg's
// streams in place of that file's: it is refused, and nothing is done.
kyStorage* kyStorage::Recreate(kyStorage* pStg, const char* name) {
  if (pStg == nullptr || name == nullptr) return pStg;
  kyStorage* named = OpenFast(name, kModeReadShared, 0);
  const bool same = named != nullptr && named->SameFileAs(*pStg);
  if (named != nullptr) named->Release();
  if (!same) return pStg;
  if (RebuildFile(pStg, name, nullptr, nullptr) < 0) return pStg;
  // Rebuilt or not, the file under `name` is whole: the new one, or the
  // old one untouched.
  return Open(name, kModeReadWriteShared, 0, 0);
}

int kyStorage::RebuildFile(kyStorage* old, const char* target, RecreateProgress progress,
                           void* context) {
  // Through a symbolic link the file itself is rebuilt, beside itself, so
  // that the rename replaces it and not the link.
  char real[MAX_PATH];
  const std::string path = ResolveFilePath(target, real) ? std::string(real) : std::string(target);
  const std::string temp = path + kTempSuffix;
  // A left-over of an earlier rebuild goes first; a directory in its place
  // stays, and Create then fails.
  DeleteFileA(temp.c_str());
  kyStorage* fresh = Create(temp.c_str(), kModeReadWriteShared, 0);
  if (fresh == nullptr) return -1;

  bool complete = old->CopyRootStreams(fresh, progress, context);
  // The rename would give the file the temporary one's permissions.
  complete = complete && CopyFilePermissions(path.c_str(), temp.c_str());
  complete = complete && FlushFileBuffers(fresh->m_hFile);
  fresh->Release();
  old->Release();
  if (complete && (MoveFileExA(temp.c_str(), path.c_str(),
                               MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) ||
                   GetFileAttributesA(temp.c_str()) == INVALID_FILE_ATTRIBUTES)) {
    // Moved (when only the flush of the directory failed, the new file is
    // in place all the same).
    return 1;
  }
  DeleteFileA(temp.c_str());
  return 0;
}

// The root streams go over in the order the name-map walk delivers them.
// A stream missing from the map (a storage opened with OpenFast, two slots
// of one name, a named slot whose header magic is damaged) would be lost,
// so the walk must deliver as many streams as the directory has names.
bool kyStorage::CopyRootStreams(kyStorage* fresh, RecreateProgress progress, void* context) {
  const int total = static_cast<int>(m_streamMap.GetCount());
  if (CountRootSlots() != total) return false;
  Report(progress, context, 0, total);
  // The comparison reads both sides in pieces of this size.
  const __int64 kPiece = 64 * 1024;
  std::string buffers(static_cast<size_t>(2 * kPiece), '\0');
  BYTE* bufA = reinterpret_cast<BYTE*>(&buffers[0]);
  BYTE* bufB = bufA + kPiece;

  int done = 0;
  void* cursor = nullptr;
  for (kyStream* s = OpenStreamFirst(cursor, kModeReadShared); s != nullptr;
       s = OpenStreamNext(cursor, kModeReadShared)) {
    kyStream* copy = fresh->CreateStreamHelper(s->GetName(), s->IsFolder() ? 1 : 0,
                                               kModeReadWriteShared, false, false);
    bool same = false;
    if (copy != nullptr) {
      // CopyFolder reports false for any empty stream it copies, so its
      // result cannot tell; the comparison does.
      s->CopyFolder(copy);
      same = SameTree(s, copy, bufA, bufB);
      copy->Release();
    }
    s->Release();
    if (!same) return false;
    Report(progress, context, ++done, total);
  }
  // A walk that stopped before the end met a stream it could not open.
  return done == total;
}

__int64 kyStorage::CountRootSlots() {
  __int64 used = 0;
  const int step = ForEachUsedRootSlot([&used](const t_kyStreamU&) { return ++used, true; });
  return step == 0 ? used : -1;
}
