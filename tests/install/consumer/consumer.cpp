// A program built against an installed kystore, as a user would build it:
// it creates a storage, writes a stream, reopens the file and reads the
// stream back.  Usage: consumer FILE; exit status 0 when all went well.
#include <kystore.h>
#include <kystore/storage.h>

#include <cstdio>
#include <cstring>

namespace {

const char kText[] = "written through the installed library";
const __int64 kLength = static_cast<__int64>(sizeof(kText));

bool Fail(const char* what) {
  fprintf(stderr, "consumer: %s\n", what);
  return false;
}

bool Write(const char* path) {
  kyStorage* storage = kyStorage::Create(path, kModeReadWriteShared, 4096);
  if (storage == nullptr) return Fail("cannot create the storage");
  kyStream* stream = storage->CreateStream("greeting", 0, kModeReadWriteShared);
  bool ok = stream != nullptr && stream->Write(kText, kLength, true) == kLength;
  if (stream) stream->Release();
  storage->Release();
  return ok || Fail("cannot write the stream");
}

bool ReadBack(const char* path) {
  kyStorage* storage = kyStorage::Open(path, kModeReadShared, 4096, 0);
  if (storage == nullptr) return Fail("cannot reopen the storage");
  kyStream* stream = storage->OpenStream("greeting", kModeReadShared);
  char buf[sizeof(kText)] = {};
  bool ok = stream != nullptr && stream->GetLength() == kLength &&
            stream->Read(buf, kLength) == kLength && memcmp(buf, kText, sizeof(buf)) == 0;
  if (stream) stream->Release();
  storage->Release();
  return ok || Fail("the stream did not read back as written");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return Fail("usage: consumer FILE"), 2;
    // The headers must leave the program's own language standard alone.
#ifdef EXPECTED_CPLUSPLUS
  if (__cplusplus != EXPECTED_CPLUSPLUS) return Fail("the language standard was changed"), 1;
#endif
  if (strcmp(kyVersion(), KYSTORE_VERSION) != 0) return Fail("version mismatch"), 1;
  return Write(argv[1]) && ReadBack(argv[1]) ? 0 : 1;
}
