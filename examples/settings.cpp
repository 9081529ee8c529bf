// An application's settings kept as entries: the main window's rectangle,
// the size of a dialog and a list of recently opened files in a folder, and
// a run counter at the root of the storage.  Each run saves the settings,
// opens the file again read-only and prints them.
// Usage: example_settings [FILE]  (default settings.kys)
#include <cstdio>
#include <string>

#include "kystore.h"

namespace {

const int kMostRecent = 4;

// Saves the settings; false when the storage or its folder cannot be had.
bool Save(const char* path) {
  kyStorage* storage = kyStorage::OpenOrCreate(path, 0x16, 4096);
  if (storage == nullptr) return false;
  // Entries at the root: the number of runs so far, one more now.
  const int runs = storage->GetEntry("RunCount", 0) + 1;
  bool ok = storage->SetEntry("RunCount", runs) == 1;

  // The folder holds the window settings; OpenOrCreateStream(name, 1) makes
  // it a folder the first time.
  kyStream* window = storage->OpenOrCreateStream("Window", 1);
  if (window == nullptr) {
    storage->Release();
    return false;
  }
  RECT frame = {100, 80, 100 + 640 + 10 * runs, 80 + 480};
  SIZE dialog = {320, 200};
  ok = window->SetEntry("Frame", &frame) && window->SetEntry("Dialog", &dialog) && ok;

  // The newest file first; older ones move down, the oldest drops out.
  for (int i = kMostRecent - 1; i > 0; --i) {
    const std::string from = "Recent" + std::to_string(i - 1);
    const CString older = window->GetEntry(from.c_str(), "");
    const std::string to = "Recent" + std::to_string(i);
    if (!older.IsEmpty()) ok = window->SetEntry(to.c_str(), older.GetString()) && ok;
  }
  const std::string newest = "report-" + std::to_string(runs) + ".txt";
  ok = window->SetEntry("Recent0", newest.c_str()) && ok;

  window->Release();
  storage->Release();
  return ok;
}

// Prints what the file holds; false when it cannot be read.
bool Print(const char* path) {
  // Read-only, loaded into memory: the getters never write.
  kyStorage* storage = kyStorage::Open(path, 0x12, 4096, 1);
  if (storage == nullptr) return false;
  kyStream* window = storage->OpenStream("Window", 0x12);
  if (window == nullptr) {
    storage->Release();
    return false;
  }
  const RECT none = {0, 0, 0, 0};
  const SIZE noSize = {0, 0};
  RECT frame;
  SIZE dialog;
  window->GetEntry("Frame", &frame, &none);
  window->GetEntry("Dialog", &dialog, &noSize);
  printf("run %d\n", storage->GetEntry("RunCount", 0));
  printf("frame  %d,%d - %d,%d\n", frame.left, frame.top, frame.right, frame.bottom);
  printf("dialog %d x %d\n", dialog.cx, dialog.cy);
  for (int i = 0; i < kMostRecent; ++i) {
    const std::string key = "Recent" + std::to_string(i);
    const CString file = window->GetEntry(key.c_str(), "");
    if (!file.IsEmpty()) printf("recent %d: %s\n", i + 1, file.GetString());
  }
  window->Release();
  storage->Release();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : "settings.kys";
  if (!Save(path) || !Print(path)) {
    fprintf(stderr, "settings: %s: the example failed\n", path);
    return 1;
  }
  return 0;
}
