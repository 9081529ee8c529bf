#include "change_recording.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <vector>

namespace kycli {

namespace {

std::string g_recordFile;
ChangeRecording* g_active = nullptr;

// Data are recorded in pieces of this size, so that a large stream is not
// read into memory twice.
const int64_t kPiece = 1 << 20;

}  // namespace

void ChangeRecording::EnterChain(const StreamChain& chain, size_t levels) {
  for (size_t i = 0; i < chain.Depth() && i < levels; ++i) Enter(chain.At(i));
}

void ChangeRecording::LeaveChain(const StreamChain& chain, size_t levels) {
  for (size_t i = std::min(chain.Depth(), levels); i > 0; --i) Leave(chain.At(i - 1));
}

void ChangeRecording::Write(kyStream* stm, const void* data, DWORD n, bool eraseOld,
                            bool prependSize) {
  m_rec.OpWrite(static_cast<unsigned char*>(const_cast<void*>(data)), n, eraseOld ? 1 : 0, stm,
                prependSize ? 1 : 0);
}

bool ChangeRecording::WriteData(kyStream* stm) {
  const int64_t length = stm->GetLength();
  if (length <= 0) return length == 0;
  if (stm->Seek(0, 0) != 0) return false;
  // A verified size prefix is replayed by the prepend flag, which writes
  // it again before the data: the value goes in one record.
  __int64 valueLength = 0;
  const bool prefixed = stm->GetVerifiedDataLength(valueLength) && valueLength == length - 4;
  if (!prefixed && stm->Seek(0, 0) != 0) return false;
  const int64_t total = prefixed ? valueLength : length;
  if (total > 0xFFFFFFFFLL) return false;
  std::vector<char> buf(static_cast<size_t>(prefixed ? total : std::min(total, kPiece)));
  for (int64_t done = 0; done < total;) {
    const int64_t want = std::min<int64_t>(total - done, static_cast<int64_t>(buf.size()));
    if (stm->Read(buf.data(), want) != want) return false;
    Write(stm, buf.data(), static_cast<DWORD>(want), true, prefixed);
    done += want;
  }
  return true;
}

bool ChangeRecording::WriteTree(kyStream* stm) {
  if (!stm->IsFolder()) return WriteData(stm);
  __int64 cursor = 0;
  for (kyStream* child = stm->OpenStreamFirst(&cursor, kModeReadShared); child != nullptr;
       child = stm->OpenStreamNext(&cursor, kModeReadShared)) {
    Enter(child);
    const bool ok = WriteTree(child);
    Leave(child);
    child->Release();
    if (!ok) return false;
  }
  return cursor >= stm->GetLength();  // a walk cut short by damage is no copy
}

bool ChangeRecording::AppendTo(const std::string& file, std::string& error) {
  const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) {
    error = strerror(errno);
    return false;
  }
  const off_t oldSize = lseek(fd, 0, SEEK_END);
  unsigned int n = 0;
  m_rec.SeekToBegin();
  const unsigned char* data = m_rec.PeekAll(&n);
  bool ok = oldSize >= 0;
  for (unsigned int done = 0; ok && done < n;) {
    const ssize_t w = write(fd, data + done, n - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0)
      ok = false;
    else
      done += static_cast<unsigned int>(w);
  }
  if (!ok) {
    error = strerror(errno != 0 ? errno : EIO);
    if (oldSize >= 0 && ftruncate(fd, oldSize) != 0)
      error += " (and the file could not be cut back)";
  }
  if (close(fd) != 0 && ok) {
    ok = false;
    error = strerror(errno);
  }
  return ok;
}

unsigned char* LoadRecordingFile(const std::string& file, unsigned int& size, std::string& error) {
  FILE* f = fopen(file.c_str(), "rb");
  if (f == nullptr) {
    error = strerror(errno);
    return nullptr;
  }
  unsigned char* buf = nullptr;
  size = 0;
  long end = -1;
  if (fseek(f, 0, SEEK_END) == 0) end = ftell(f);
  if (end < 0 || end > 0x7FFFFFFFL) {
    error = end < 0 ? "cannot find the size of the file" : "file too large for a recording";
  } else {
    size = static_cast<unsigned int>(end);
    buf = static_cast<unsigned char*>(malloc(size > 0 ? size : 1));
    if (buf == nullptr) error = "out of memory";
    if (buf != nullptr && (fseek(f, 0, SEEK_SET) != 0 || fread(buf, 1, size, f) != size)) {
      free(buf);
      buf = nullptr;
      error = "read error";
    }
  }
  fclose(f);
  return buf;
}

void SetRecordFile(const std::string& file) {
  g_recordFile = file;
}

const std::string& RecordFile() {
  return g_recordFile;
}

ChangeRecording* ActiveRecording() {
  return g_active;
}

void SetActiveRecording(ChangeRecording* recording) {
  g_active = recording;
}

}  // namespace kycli
