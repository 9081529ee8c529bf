// The README's short example as a program: make a storage with a folder
// and a stream in it, close it, open it again read-only and read the data
// back.  Usage: example_quickstart [FILE]  (default quickstart.kys)
#include <cstdio>

#include "kystore.h"

namespace {

// Writes the file; false when any step fails.
bool WriteSample(const char* path) {
  // A new, empty storage: read and write (0x16), data blocks of 4096 bytes.
  kyStorage* storage = kyStorage::Create(path, 0x16, 4096);
  if (storage == nullptr) return false;
  // Type 1 makes a folder; a stream inside it is created through it.
  kyStream* settings = storage->CreateStream("Settings", 1, 0x16);
  kyStream* greeting = settings ? settings->CreateStream("Greeting", 0, 0x16, 1) : nullptr;
  const char text[] = "Hello, storage!";
  bool ok =
      greeting != nullptr && greeting->Write(text, sizeof(text) - 1, true) == sizeof(text) - 1;
  // Every stream goes back before its parent, and all before the storage.
  if (greeting) greeting->Release();
  if (settings) settings->Release();
  storage->Release();
  return ok;
}

// Reads the stream back and prints it; false when any step fails.
bool ReadSample(const char* path) {
  // Read-only (0x12), with the whole file loaded into memory (last 1).
  kyStorage* storage = kyStorage::Open(path, 0x12, 4096, 1);
  if (storage == nullptr) return false;
  kyStream* settings = storage->OpenStream("Settings", 0x12);
  kyStream* greeting = settings ? settings->OpenStream("Greeting", 0x12) : nullptr;
  char buf[64];
  __int64 n = -1;
  if (greeting != nullptr && greeting->GetLength() <= static_cast<__int64>(sizeof(buf)))
    n = greeting->Read(buf, greeting->GetLength());
  if (n >= 0)
    printf("%s/%s holds %lld bytes: %.*s\n", settings->GetName(), greeting->GetName(),
           static_cast<long long>(n), static_cast<int>(n), buf);
  if (greeting) greeting->Release();
  if (settings) settings->Release();
  storage->Release();
  return n >= 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : "quickstart.kys";
  if (!WriteSample(path) || !ReadSample(path)) {
    fprintf(stderr, "quickstart: %s: the example failed\n", path);
    return 1;
  }
  return 0;
}
