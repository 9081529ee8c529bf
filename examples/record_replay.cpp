// Records the changes made to one storage and replays them into a second:
// the way a settings change made on one machine ships to another as a few
// bytes.  Usage: example_record_replay [SOURCE] [TARGET]
// (defaults record_source.kys and record_target.kys)
#include <cstdio>

#include "kystore.h"

namespace {

// Makes changes to `storage` while it records, and hands back the bytes of
// the recording (free them with CCompRecorder::Free); null on failure.
unsigned char* RecordChanges(kyStorage* storage, unsigned int* size) {
  if (!storage->StartRecording()) return nullptr;
  // Entries in a folder two levels deep and at the root; each setter
  // records the folders it enters and the value it writes.
  kyStream* app = storage->CreateStream("App", 1, 0x16);
  kyStream* window = app ? app->OpenOrCreateStream("Window", 1) : nullptr;
  bool ok =
      window != nullptr && window->SetEntry("Width", 640) && window->SetEntry("Title", "Demo");
  // Children go back before their parents, so that the records nest.
  if (window) window->Release();
  if (app) app->Release();
  ok = ok && storage->SetEntry("Version", 3);
  CCompRecorder* recorder = storage->StopRecording();
  if (recorder == nullptr) return nullptr;
  unsigned char* bytes = ok ? recorder->Detach(size) : nullptr;
  delete recorder;
  return bytes;
}

// Prints what the replay made in `storage`.
void PrintSettings(kyStorage* storage) {
  kyStream* app = storage->OpenStream("App", 0x12);
  kyStream* window = app ? app->OpenStream("Window", 0x12) : nullptr;
  if (window != nullptr) {
    printf("App/Window/Width = %d\n", window->GetEntry("Width", 0));
    printf("App/Window/Title = %s\n", window->GetEntry("Title", "").GetString());
    window->Release();
  }
  if (app) app->Release();
  printf("Version = %d\n", storage->GetEntry("Version", 0));
}

}  // namespace

int main(int argc, char** argv) {
  const char* sourcePath = argc > 1 ? argv[1] : "record_source.kys";
  const char* targetPath = argc > 2 ? argv[2] : "record_target.kys";
  kyStorage* source = kyStorage::Create(sourcePath, 0x16, 4096);
  if (source == nullptr) return 1;
  unsigned int size = 0;
  unsigned char* recording = RecordChanges(source, &size);
  source->Release();
  if (recording == nullptr) return 1;
  printf("recorded %u bytes\n", size);

  kyStorage* target = kyStorage::Create(targetPath, 0x16, 4096);
  if (target == nullptr) {
    CCompRecorder::Free(recording);
    return 1;
  }
  printf("replayed %d records\n", target->ReplayRecording(recording, size));
  CCompRecorder::Free(recording);
  PrintSettings(target);
  target->Release();
  return 0;
}
