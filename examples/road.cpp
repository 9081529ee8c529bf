// The road of one request: a folder Cfg with the entry Width 640 is made
// in a new storage, the storage is closed, opened again with the whole
// file loaded into memory, and the value is read back and printed.
//
//   example_road FILE
#include <cstdio>

#include "kystore.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: example_road FILE\n");
    return 2;
  }
  kyStorage* storage = kyStorage::Create(argv[1], 0x16, 4096);
  kyStream* cfg = storage ? storage->CreateStream("Cfg", 1, 0x16) : nullptr;
  const int stored = cfg != nullptr && cfg->SetEntry("Width", 640);
  if (cfg != nullptr) cfg->Release();
  if (storage != nullptr) storage->Release();
  if (!stored) {
    fprintf(stderr, "example_road: cannot make %s\n", argv[1]);
    return 1;
  }
  // Read only, loaded into memory: the file is closed once it is read.
  storage = kyStorage::Open(argv[1], 0x12, 4096, 1);
  cfg = storage ? storage->OpenStream("Cfg", 0x12) : nullptr;
  const int width = cfg ? cfg->GetEntry("Width", 0) : 0;
  if (cfg != nullptr) cfg->Release();
  if (storage != nullptr) storage->Release();
  printf("Cfg/Width = %d\n", width);
  return width == 640 ? 0 : 1;
}
