// Drives the API with a sequence of operations that the input bytes choose,
// on real storage files and, step by step, on a plain model of the tree
// (ops_model.h).  Every result the library hands back is compared with the
// model: transfer counts, bytes read, lengths, names, kinds, walk orders,
// refusals.  After a reopen, and at the end, the whole tree is read back.
// A mismatch traps.
//
// The target keeps to the documented contract: an absolute seek before a
// stream is used again after the shared file position was moved by anything
// else; children released before parents; names of 1 to 60 bytes (longer or
// empty ones only where a refusal is documented).  Where the library's
// behaviour cannot be told from the model (a second object whose header
// copy is out of date, a removal another object could not see), the target
// steers around it instead of guessing.
//
// Set KYSTORE_FUZZ_TRACE=1 to print each operation to stderr.

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kystore.h"
#include "../tests/support/test_access.h"
#include "ops_input.h"
#include "ops_model.h"
#include "platform/global_mem.h"

namespace {

// --- switches ---------------------------------------------------------------
// Operations that come later: their rows of the op table exist already.
const bool kEntriesEnabled = true;
const bool kReplayEnabled = true;
// Cases the target once had to step around while the library was wrong
// about them; each has a minimised input under fuzz/regressions/fuzz_ops/.
// Turning one off makes the target avoid the case again.
//   preloaded lookups and walks leave the shared file position alone;
const bool kPreloadedLookupsKeepPosition = true;
//   copies onto a destination that already owns blocks;
const bool kCopyOntoBlocks = true;
//   Remove through the object that created a root stream while another
//   object has it open (refused);
const bool kRemoveByCreatorWhileOpened = true;
//   child walks of a storage in memory whose last slot ends the image;
const bool kInMemoryWalkAtImageEnd = true;
//   lookups, walks and creations through a second object of a folder after
//   children were added through another one.
const bool kStaleFolderObjects = true;
// Seek distances near the ends of the 64-bit range.
const bool kHugeNumbers = true;
// Renames to names of 61 to 70 bytes (the first 60 are kept).
const bool kLongRenames = true;
// A copy into a data stream object opened without write access: the copy
// fails, but the library has already given the object's header copy the
// source's size-prefix mark (fuzz/regressions/fuzz_ops/refused_copy_takes_mark).
// Off: the target avoids such copies when the marks differ.
const bool kRefusedCopyKeepsMark = true;
// Creations through a second object of a folder whose length is out of
// date, when the folder has a free slot: the library ends the folder at the
// end that object knows, cutting off the slots behind it
// (fuzz/regressions/fuzz_ops/stale_folder_creation_cuts_folder).  Off: the
// target avoids them.
const bool kStaleCreationWithFreeSlot = true;

// --- bounds -----------------------------------------------------------------
const int kMaxHandles = 12;
const int kMaxSteps = 200;
const int kMaxCheckDepth = 8;
const int kStores = 2;
const int kFastSlots = 6;
const int kSlotsPerBlock = 64;
const DWORD kBlockSizes[] = {0, 16, 100, 4096};
const long long kLimits[] = {1073741824, 2000, 700};

bool g_trace = false;

#define CHECK(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "fuzz_ops: mismatch at line %d: %s\n", __LINE__, #cond); \
      __builtin_trap();                                                        \
    }                                                                          \
  } while (0)

void Trace(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void Trace(const char* fmt, ...) {
  if (!g_trace) return;
  va_list args;
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
  fputc('\n', stderr);
}

std::string Printable(const std::string& name) {
  std::string out;
  for (unsigned char c : name) {
    if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      char hex[8];
      snprintf(hex, sizeof(hex), "\\x%02x", c);
      out += hex;
    }
  }
  return out;
}

bool ValidName(const char* name) {
  return name != nullptr && name[0] != '\0' && strlen(name) <= 60;
}

enum class Access { kClosed, kWritable, kReadOnlyFile, kInMemory };

using Registry = std::map<std::string, int>;

struct Store {
  std::string path;
  kyStorage* st = nullptr;
  bool b64 = true;
  Access access = Access::kClosed;
  bool fast = false;             // opened with OpenFast: the map knows only what we created
  std::set<std::string> mapped;  // the map of a storage opened fast
  Registry reg;                  // open root streams, by name
  int owner = -1;                // handle under whose cursor the shared position stands
  bool batching = false;         // writes gathered in memory, not all in the file yet
  ModelNode root;                // the root directory's slots
};

struct PreloadEntry {
  size_t slot;
  bool alive;
};

struct Handle {
  bool live = false;
  kyStream* s = nullptr;
  int store = 0;
  ModelNode* node = nullptr;
  int parent = -1;  // handle of the parent object; -1 for a root stream
  DWORD mode = kModeReadShared;
  bool registered = true;  // a root stream made by creation is not
  long long pos = 0;
  bool posKnown = true;
  bool fresh = true;   // nothing has moved the cursor since the open
  bool stale = false;  // another object changed the stream's header on disk
  bool preloaded = false;
  std::map<std::string, PreloadEntry> preload;
  Registry reg;  // this object's open children, by name
};

// Whether a handle may be used: not out of date, or a folder object whose
// only fault is a length that another object's creations outgrew.
bool Usable(const Handle& h) {
  return !h.stale || (kStaleFolderObjects && h.node->folder);
}

// One entry setter call: the value form and the value.
enum EntryKind {
  kEntInt,
  kEntDword,
  kEntDouble,
  kEntInt64,
  kEntUInt64,
  kEntString,
  kEntAppend,
  kEntNoPrefix,
  kEntEraseOld,
  kEntSize,  // SIZE and RECT exist for folders only
  kEntRect,
  kEntKinds
};

struct EntryOp {
  EntryKind kind = kEntInt;
  std::string bytes;       // a fixed value's bytes, the characters, or the buffer
  bool prepend = false;    // SetEntryEraseOld with the size prefix
  bool nullValue = false;  // a null RECT or SIZE
};

// Whether a creation through folder handle `h` is one the target avoids
// (kStaleCreationWithFreeSlot).
bool AvoidStaleCreation(const Handle& h) {
  return !kStaleCreationWithFreeSlot && h.stale && h.node->folder &&
         FirstFreeSlot(h.node, 0, h.node->slots.size()) >= 0;
}

class OpsFuzzer;
typedef void (OpsFuzzer::*OpFn)();

struct OpEntry {
  const char* name;
  OpFn run;
  bool enabled;
};

class OpsFuzzer {
 public:
  OpsFuzzer(const uint8_t* data, size_t size) : in_(data, size) {}
  void Run();

  // The operations, one per row of the op table.
  void OpCreateRoot();
  void OpOpenOrCreateRoot();
  void OpFillRoot();
  void OpOpenOrCreateRootFast();
  void OpOpenRoot();
  void OpCreateChild();
  void OpOpenOrCreateChild();
  void OpOpenChild();
  void OpWrite();
  void OpRead();
  void OpSeek();
  void OpSetLength();
  void OpErase();
  void OpPrependSize();
  void OpVerifiedLength();
  void OpCopyToBuffer();
  void OpCopyStream();
  void OpCopyFolder();
  void OpRename();
  void OpRemove();
  void OpClearFolder();
  void OpPreload();
  void OpPreloadWalk();
  void OpPreloadOffsetWalk();
  void OpFindStream();
  void OpChildWalk();
  void OpEnumStreams();
  void OpRootMapWalk();
  void OpRootDirWalk();
  void OpGoNextWalk();
  void OpSortedNoOpens();
  void OpFindRoot();
  void OpSubfolderCount();
  void OpRelease();
  void OpReopen();
  void OpCheck();
  void OpBatch();
  void OpEntries();
  void OpReplay();

 private:
  // Storages.
  void CreateStore(int si, bool b64, DWORD blockSize);
  int PickStore();
  bool Writable(int si) const { return stores_[si].access == Access::kWritable; }
  bool InMemory(int si) const { return stores_[si].access == Access::kInMemory; }
  long long SlotWidth(int si) const { return stores_[si].b64 ? 92 : 80; }
  bool RootMapped(int si, const std::string& name) const;
  int OrdinarySlotFor(int si);
  void ReleaseStore(int si);
  void Touch(int si) { stores_[si].owner = -1; }

  // Handles.
  int FreeHandle() const;
  int AddHandle(kyStream* s, int si, ModelNode* node, int parent, DWORD mode, bool registered);
  template <typename Pred>
  int PickHandle(Pred pred);
  bool HasChildren(int hi) const;
  bool ChainsThrough(int hi, int via) const;
  void MarkStale(int si, const ModelNode* node, int except);
  Registry& RegistryOf(int parent, int si) {
    return parent < 0 ? stores_[si].reg : handles_[parent].reg;
  }
  int ReleaseExpected(int hi);
  void ReleaseHandle(int hi);
  bool CanMutate(int hi) const {
    return Writable(handles_[hi].store) || (handles_[hi].mode & kModeWrite) == 0;
  }
  DWORD PickMode(int si) {
    return Writable(si) && in_.Bit() ? kModeReadWriteShared : kModeReadShared;
  }

  // Positions.
  bool Positioned(int hi) const;
  void Own(int hi) { stores_[handles_[hi].store].owner = hi; }
  void Reposition(int hi, long long target);
  bool StoppedAtImageEnd(int hi);
  bool ChainEndsImage(int hi);
  void EnsureReady(int hi);

  // Model helpers that mirror what the library does.
  bool Visible(int fi, const std::string& name, bool lookUp);
  ModelNode* ModelCreateChild(int si, ModelNode* dir, const std::string& name, bool folder,
                              uint16_t duration, bool reuse, int via);
  bool ModelCopyFolder(int ss, ModelNode* src, int ds, ModelNode* dst, int dstHandle);
  bool ModelCopyStream(const ModelNode* src, int ds, ModelNode* dst);
  void ForgetPreloaded(int fi, const std::string& name);
  bool CopyWouldMeetBlocks(const ModelNode* dst) const;
  void RunCopyStream(int src, int dst, bool throughFolderCopy);
  std::vector<std::string> PreloadedNames(int fi, bool refresh);
  std::vector<std::string> MappedNames(int si) const;
  const ModelNode* RootNode(int si, const std::string& name) const;
  void FreeModelSlot(int si, ModelNode* dir, size_t index);

  // Checks.
  void CheckOpened(kyStream* s, const ModelNode* n);
  void CheckData(kyStream* s, const ModelNode* n);
  void VerifyHandle(int hi);
  void VerifyNode(int si, kyStream* s, const ModelNode* n, int depth, bool checkSelf = true);
  void VerifySubtree(int fi);
  void VerifyTree(int si);
  void CheckFileByte(int si, long long offset, char expected);
  void CheckDirectoryOrder(int si);

  // Entries.
  EntryOp PickEntryOp(bool atRoot);
  ModelNode* EntryTarget(int si, int fi, bool fast, const std::string& name, bool lookUp);
  bool SetFolderEntry(int fi, const char* key, const std::string& name, const EntryOp& e);
  bool SetRootEntry(int si, bool fast, const std::string& name, const EntryOp& e);
  void GetEntryChecked(int si, int fi, bool fast, const char* key, const std::string& name);
  void CheckEntryBytes(int si, int fi, bool fast, const std::string& name);

  // Replay.
  struct ReplayModel;
  ModelNode* ReplayRoot(ReplayModel& t, const std::string& name, bool fast, bool folder);
  ModelNode* ReplayChild(ReplayModel& t, ModelNode* dir, const std::string& name, bool folder);
  void ReplayEntryWrite(ReplayModel& t, ModelNode* n, const EntryOp& e);
  void VerifyReplayed(int si, kyStorage* ts, const ReplayModel& t);

  // Choices.
  std::string PickName();
  std::string PickNameMaybeBad(const char** out);
  DWORD PickType();
  long long PickWriteSize();

  FuzzInput in_;
  Store stores_[kStores];
  Handle handles_[kMaxHandles];
  long long limit_ = kLimits[0];
  std::vector<char> buf_;
  std::string scratchName_;
};

// One input byte picks a row.  Saved inputs (seeds, regressions) depend on
// the rows' places, so the table has a fixed size: a new operation takes a
// free row at the end and no row ever moves.  Free rows do nothing.
const uint32_t kOpRows = 48;
const OpEntry kOps[kOpRows] = {
    {"create-root", &OpsFuzzer::OpCreateRoot, true},
    {"open-or-create-root", &OpsFuzzer::OpOpenOrCreateRoot, true},
    {"fill-root", &OpsFuzzer::OpFillRoot, true},
    {"open-or-create-root-fast", &OpsFuzzer::OpOpenOrCreateRootFast, true},
    {"open-root", &OpsFuzzer::OpOpenRoot, true},
    {"create-child", &OpsFuzzer::OpCreateChild, true},
    {"open-or-create-child", &OpsFuzzer::OpOpenOrCreateChild, true},
    {"open-child", &OpsFuzzer::OpOpenChild, true},
    {"write", &OpsFuzzer::OpWrite, true},
    {"write", &OpsFuzzer::OpWrite, true},
    {"read", &OpsFuzzer::OpRead, true},
    {"seek", &OpsFuzzer::OpSeek, true},
    {"set-length", &OpsFuzzer::OpSetLength, true},
    {"erase", &OpsFuzzer::OpErase, true},
    {"prepend-size", &OpsFuzzer::OpPrependSize, true},
    {"verified-length", &OpsFuzzer::OpVerifiedLength, true},
    {"copy-to-buffer", &OpsFuzzer::OpCopyToBuffer, true},
    {"copy-stream", &OpsFuzzer::OpCopyStream, true},
    {"copy-folder", &OpsFuzzer::OpCopyFolder, true},
    {"rename", &OpsFuzzer::OpRename, true},
    {"remove", &OpsFuzzer::OpRemove, true},
    {"clear-folder", &OpsFuzzer::OpClearFolder, true},
    {"preload", &OpsFuzzer::OpPreload, true},
    {"preload-walk", &OpsFuzzer::OpPreloadWalk, true},
    {"preload-offset-walk", &OpsFuzzer::OpPreloadOffsetWalk, true},
    {"find-stream", &OpsFuzzer::OpFindStream, true},
    {"child-walk", &OpsFuzzer::OpChildWalk, true},
    {"enum-streams", &OpsFuzzer::OpEnumStreams, true},
    {"root-map-walk", &OpsFuzzer::OpRootMapWalk, true},
    {"root-dir-walk", &OpsFuzzer::OpRootDirWalk, true},
    {"go-next-walk", &OpsFuzzer::OpGoNextWalk, true},
    {"sorted-no-opens", &OpsFuzzer::OpSortedNoOpens, true},
    {"find-root", &OpsFuzzer::OpFindRoot, true},
    {"subfolder-count", &OpsFuzzer::OpSubfolderCount, true},
    {"release", &OpsFuzzer::OpRelease, true},
    {"release", &OpsFuzzer::OpRelease, true},
    {"reopen", &OpsFuzzer::OpReopen, true},
    {"check", &OpsFuzzer::OpCheck, true},
    {"entries", &OpsFuzzer::OpEntries, kEntriesEnabled},
    {"replay", &OpsFuzzer::OpReplay, kReplayEnabled},
    {"batch", &OpsFuzzer::OpBatch, true},
};

// --- storages -----------------------------------------------------------------

void OpsFuzzer::CreateStore(int si, bool b64, DWORD blockSize) {
  Store& s = stores_[si];
  kyStorage::g_bUse64BitOffsets = b64 ? 1 : 0;
  s.st = kyStorage::Create(s.path.c_str(), kModeReadWriteShared, blockSize);
  kyStorage::g_bUse64BitOffsets = 1;
  CHECK(s.st != nullptr);
  Trace("store %d: create %s blocks of %u", si, b64 ? "64-bit" : "32-bit", blockSize);
  s.b64 = b64;
  s.access = Access::kWritable;
  s.fast = false;
  s.mapped.clear();
  s.reg.clear();
  s.owner = -1;
  s.root.folder = true;
  s.root.slots.clear();
  s.root.slots.resize(kSlotsPerBlock);
}

int OpsFuzzer::PickStore() {
  const int si = in_.Bit() ? 1 : 0;
  if (stores_[si].access == Access::kClosed) {
    const bool b64 = in_.Bit();
    CreateStore(si, b64, kBlockSizes[in_.Below(4)]);
  }
  return si;
}

bool OpsFuzzer::RootMapped(int si, const std::string& name) const {
  const Store& s = stores_[si];
  if (s.fast) return s.mapped.count(name) != 0;
  return FindSlot(&s.root, name) >= 0;
}

// The slot an ordinary root creation takes: the first free one after the
// fast slots, or the first of a new directory block.
int OpsFuzzer::OrdinarySlotFor(int si) {
  ModelNode& root = stores_[si].root;
  int index = FirstFreeSlot(&root, kFastSlots, root.slots.size());
  if (index < 0) {
    index = static_cast<int>(root.slots.size());
    root.slots.resize(root.slots.size() + kSlotsPerBlock);
  }
  return index;
}

void OpsFuzzer::ReleaseStore(int si) {
  // Children before parents: release leaves until none is left.
  for (bool again = true; again;) {
    again = false;
    for (int i = 0; i < kMaxHandles; ++i) {
      if (handles_[i].live && handles_[i].store == si && !HasChildren(i)) {
        ReleaseHandle(i);
        again = true;
      }
    }
  }
  if (stores_[si].st != nullptr) stores_[si].st->Release();
  stores_[si].st = nullptr;
  stores_[si].owner = -1;
}

// --- handles ------------------------------------------------------------------

int OpsFuzzer::FreeHandle() const {
  for (int i = 0; i < kMaxHandles; ++i)
    if (!handles_[i].live) return i;
  return -1;
}

int OpsFuzzer::AddHandle(kyStream* s, int si, ModelNode* node, int parent, DWORD mode,
                         bool registered) {
  const int hi = FreeHandle();
  CHECK(hi >= 0);
  Handle& h = handles_[hi];
  h = Handle();
  h.live = true;
  h.s = s;
  h.store = si;
  h.node = node;
  h.parent = parent;
  h.mode = mode;
  h.registered = registered;
  if (registered) ++RegistryOf(parent, si)[node->name];
  return hi;
}

template <typename Pred>
int OpsFuzzer::PickHandle(Pred pred) {
  int candidates[kMaxHandles];
  int n = 0;
  for (int i = 0; i < kMaxHandles; ++i)
    if (handles_[i].live && pred(handles_[i])) candidates[n++] = i;
  if (n == 0) return -1;
  return candidates[in_.Below(static_cast<uint32_t>(n))];
}

bool OpsFuzzer::HasChildren(int hi) const {
  for (int i = 0; i < kMaxHandles; ++i)
    if (handles_[i].live && handles_[i].parent == hi) return true;
  return false;
}

bool OpsFuzzer::ChainsThrough(int hi, int via) const {
  for (int p = hi; p >= 0; p = handles_[p].parent)
    if (p == via) return true;
  return false;
}

void OpsFuzzer::MarkStale(int si, const ModelNode* node, int except) {
  for (int i = 0; i < kMaxHandles; ++i) {
    Handle& h = handles_[i];
    if (h.live && i != except && h.store == si && h.node == node) h.stale = true;
  }
}

// What Release returns for `name`, and the record it closes: the count
// before this release, or -1 when there is no record.
int CloseExpected(Registry& reg, const std::string& name) {
  auto it = reg.find(name);
  if (it == reg.end()) return -1;
  const int count = it->second;
  if (--it->second == 0) reg.erase(it);
  return count;
}

int OpsFuzzer::ReleaseExpected(int hi) {
  const Handle& h = handles_[hi];
  // An object that holds no open (made by creation) closes nothing, also
  // when other objects hold the name.
  if (!h.registered) return h.node->name.empty() ? 0 : -1;
  return CloseExpected(RegistryOf(h.parent, h.store), h.node->name);
}

void OpsFuzzer::ReleaseHandle(int hi) {
  Handle& h = handles_[hi];
  const int expected = ReleaseExpected(hi);
  Trace("  release h%d (%s) -> expect %d", hi, Printable(h.node->name).c_str(), expected);
  CHECK(h.s->Release() == expected);
  if (stores_[h.store].owner == hi) stores_[h.store].owner = -1;
  h = Handle();
}

// --- positions ----------------------------------------------------------------

// Whether the handle's next transfer happens under its own cursor: a storage
// in memory keeps a position per stream; a stream without blocks and an
// object that never moved find their place by themselves.
bool OpsFuzzer::Positioned(int hi) const {
  const Handle& h = handles_[hi];
  return InMemory(h.store) || !h.node->hasBlocks || h.fresh || stores_[h.store].owner == hi;
}

// An absolute seek to `target` (at most the length), in a form the input
// picks.
void OpsFuzzer::Reposition(int hi, long long target) {
  Handle& h = handles_[hi];
  const ModelNode* n = h.node;
  const long long len = n->Length();
  const uint32_t form = in_.Below(4);
  long long r;
  if (form == 1 && n->endKnown) {
    r = h.s->Seek(len - target, 1, true);
  } else if (form == 2) {
    r = h.s->Seek2(target, 0);
  } else if (form == 3 && n->endKnown && len > target) {
    r = h.s->Seek2(target - len, 0);
  } else {
    r = h.s->Seek(target, 0, true);
  }
  Trace("  reposition h%d to %lld (form %u) -> %lld", hi, static_cast<long long>(target), form,
        static_cast<long long>(r));
  h.posKnown = true;
  if (!n->hasBlocks) {
    CHECK(r == -1 && target == 0);
    h.pos = 0;
    return;
  }
  // Forms 1 and 3 start from the end of the chain.
  if (r == -1 && (form == 1 || form == 3) && ChainEndsImage(hi)) r = h.s->Seek(target, 0, true);
  if (r == -1 && target == len && StoppedAtImageEnd(hi)) r = 0;
  CHECK(r == 0);
  h.pos = target;
  h.fresh = false;
  Own(hi);
}

// A storage loaded into memory lets no position stand at the image's very
// end.  When a stream's data ends the image, a seek that ends at the end of
// the data, or starts from there, fails although the bytes are there.  True
// when that is the case here; the handle's cursor then stands at the end of
// the data, put there by reading the last byte (an empty stream has none:
// its first block's header must end the image).
bool OpsFuzzer::StoppedAtImageEnd(int hi) {
  Handle& h = handles_[hi];
  if (!InMemory(h.store) || !h.node->hasBlocks || h.node->folder) return false;
  const long long len = h.node->Length();
  const long long image = kyTestAccess::ImageSize(stores_[h.store].st);
  Trace("  h%d: seek failed at the end of the data; does it end the image?", hi);
  if (len == 0) {
    // The data start after the first block's header.
    const bool b64 = kyTestAccess::Use64(stores_[h.store].st) != 0;
    if (kyTestAccess::Header(h.s).FirstBlock(b64) + (b64 ? 40 : 20) != image) return false;
  } else {
    char last;
    if (h.s->Seek(len - 1, 0, true) != 0 || h.s->Read(&last, 1) != 1) return false;
    if (last != h.node->data[static_cast<size_t>(len - 1)]) return false;
    if (kyTestAccess::MemPos(h.s) != image) return false;
  }
  h.pos = len;
  h.posKnown = true;
  h.fresh = false;
  Own(hi);
  return true;
}

// A seek from the end starts where the last block's data end, which with
// a lowered length lies beyond the stream's end: in a storage loaded into
// memory it fails when that is the image's end.  True when it is.
bool OpsFuzzer::ChainEndsImage(int hi) {
  Handle& h = handles_[hi];
  if (!InMemory(h.store) || !h.node->hasBlocks) return false;
  const bool b64 = kyTestAccess::Use64(stores_[h.store].st) != 0;
  const t_kyStreamU& hdr = kyTestAccess::Header(h.s);
  const long long last = hdr.LastBlock(b64) != 0 ? hdr.LastBlock(b64) : hdr.FirstBlock(b64);
  // A block header: magic (and a reserved word in 64-bit files), then the
  // offset-wide end of its used data.
  unsigned char field[8] = {0};
  FILE* f = fopen(stores_[h.store].path.c_str(), "rb");
  CHECK(f != nullptr);
  const size_t width = b64 ? 8 : 4;
  const bool read = fseek(f, static_cast<long>(last) + static_cast<long>(width), SEEK_SET) == 0 &&
                    fread(field, 1, width, f) == width;
  fclose(f);
  if (!read) return false;
  long long usedEnd = 0;
  memcpy(&usedEnd, field, width);
  const long long image = kyTestAccess::ImageSize(stores_[h.store].st);
  Trace("  h%d: seek from the end failed; the chain ends at %lld of %lld", hi, last + usedEnd,
        image);
  return last + usedEnd == image;
}

void OpsFuzzer::EnsureReady(int hi) {
  Handle& h = handles_[hi];
  if (h.posKnown && Positioned(hi)) return;
  Reposition(hi, h.posKnown ? h.pos : in_.UpTo(h.node->Length()));
}

// --- model helpers ------------------------------------------------------------

// Whether folder handle `fi` finds child `name`.  With a preloaded map the
// entry must be alive and its slot must still carry the name; a lookup
// (`lookUp`) that finds the slot changed ends the entry, as the library's
// re-read does.
bool OpsFuzzer::Visible(int fi, const std::string& name, bool lookUp) {
  Handle& f = handles_[fi];
  if (!f.preloaded) return FindSlot(f.node, name) >= 0;
  auto it = f.preload.find(name);
  if (it == f.preload.end() || !it->second.alive) return false;
  if (f.node->slots[it->second.slot].name == name) return true;
  if (lookUp) it->second.alive = false;
  return false;
}

void OpsFuzzer::ForgetPreloaded(int fi, const std::string& name) {
  if (fi < 0 || !handles_[fi].preloaded) return;
  auto it = handles_[fi].preload.find(name);
  if (it != handles_[fi].preload.end()) it->second.alive = false;
}

// The library's creation of child `name` in `dir` (through handle `via`, or
// an object of its own when -1), once the lookup has said it is not there.
ModelNode* OpsFuzzer::ModelCreateChild(int si, ModelNode* dir, const std::string& name, bool folder,
                                       uint16_t duration, bool reuse, int via) {
  if (!Writable(si)) return nullptr;
  int index = reuse ? FirstFreeSlot(dir, 0, dir->slots.size()) : -1;
  if (index < 0) {
    // The slot goes to the end of the data, cut at the stream limit.
    const long long w = SlotWidth(si);
    const long long at =
        reuse ? 4 + static_cast<long long>(dir->slots.size()) * w : dir->folderLength;
    const long long room = at >= limit_ ? 0 : std::min(w, limit_ - at);
    if (room > 0) {
      // The write that ends the data brings the length in its own object
      // up to date and leaves every other object of the folder behind.
      dir->folderLength = at + room;
      MarkStale(si, dir, via);
      if (via >= 0) handles_[via].stale = false;
    }
    if (room < w) return nullptr;
    dir->slots.emplace_back();
    index = static_cast<int>(dir->slots.size()) - 1;
  }
  ModelNode* n = OccupySlot(dir, static_cast<size_t>(index), name, folder, duration);
  if (via >= 0 && handles_[via].preloaded)
    handles_[via].preload[name] = PreloadEntry{static_cast<size_t>(index), true};
  return n;
}

// Frees a slot of the model; nothing of ours may stand in what goes.
void OpsFuzzer::FreeModelSlot(int si, ModelNode* dir, size_t index) {
  const ModelNode* gone = dir->slots[index].node.get();
  for (const Handle& h : handles_) CHECK(!(h.live && h.store == si && IsWithin(h.node, gone)));
  FreeSlot(dir, index);
}

// CopyStream from a freshly opened source into a freshly opened destination
// (mode 0x16) of storage `ds`.
bool OpsFuzzer::ModelCopyStream(const ModelNode* src, int ds, ModelNode* dst) {
  if (!Writable(ds)) return false;
  dst->sizeMark = src->sizeMark;  // the mark goes with the data
  ModelSetLength(dst, 0);
  if (src->Length() <= 0) return false;
  return ModelWrite(dst, 0, src->data, true, limit_) == src->Length();
}

// CopyFolder of `src` into `dst`, merging, as the library walks it.
bool OpsFuzzer::ModelCopyFolder(int ss, ModelNode* src, int ds, ModelNode* dst, int dstHandle) {
  bool ok = true;
  for (size_t i = 0; i < src->slots.size(); ++i) {
    if (src->slots[i].name.empty()) continue;
    const ModelNode* c = src->slots[i].node.get();
    const std::string name = c->name;
    const bool seen = dstHandle >= 0 ? Visible(dstHandle, name, true) : FindSlot(dst, name) >= 0;
    int ti = seen ? FindSlot(dst, name) : -1;
    ModelNode* target = ti >= 0 ? dst->slots[static_cast<size_t>(ti)].node.get() : nullptr;
    if (target != nullptr && target->folder != c->folder) {
      if (!Writable(ds)) {
        ok = false;
        continue;
      }
      ForgetPreloaded(dstHandle, name);
      FreeModelSlot(ds, dst, static_cast<size_t>(ti));
      target = nullptr;
    }
    if (target == nullptr) {
      target = ModelCreateChild(ds, dst, name, c->folder, 0, true, dstHandle);
      if (target == nullptr) {
        ok = false;
        continue;
      }
    }
    const bool r = c->folder ? ModelCopyFolder(ss, const_cast<ModelNode*>(c), ds, target, -1)
                             : ModelCopyStream(c, ds, target);
    if (!r) ok = false;
  }
  return ok;
}

// Whether a copy into `dst` could write over blocks it already owns: a data
// stream with blocks, or a free slot whose chain a new data stream takes.
bool OpsFuzzer::CopyWouldMeetBlocks(const ModelNode* dst) const {
  if (!dst->folder) return dst->hasBlocks;
  for (const ModelSlot& s : dst->slots) {
    if (s.name.empty() ? s.chain : CopyWouldMeetBlocks(s.node.get())) return true;
  }
  return false;
}

// --- checks -------------------------------------------------------------------

void OpsFuzzer::CheckOpened(kyStream* s, const ModelNode* n) {
  CHECK(s != nullptr);
  CHECK(n->name == s->GetName());
  CHECK((s->IsFolder() != 0) == n->folder);
  if (s->GetLength() != n->Length())
    Trace("  '%s': length %lld, the model says %lld", Printable(n->name).c_str(),
          static_cast<long long>(s->GetLength()), n->Length());
  CHECK(s->GetLength() == n->Length());
  CHECK(s->GetDuration() == n->duration);
}

// Reads a data stream from its start through `s` and compares.
void OpsFuzzer::CheckData(kyStream* s, const ModelNode* n) {
  const long long len = n->Length();
  buf_.resize(static_cast<size_t>(len) + 1);
  if (!n->hasBlocks) {
    CHECK(s->Read(buf_.data(), 1) == 0);
    return;
  }
  // An empty stream whose block ends the file cannot seek to its start in a
  // storage loaded into memory (no position may stand at the image's end);
  // it holds nothing to compare.
  if (len == 0) return;
  CHECK(s->Seek(0, 0, true) == 0);
  CHECK(s->Read(buf_.data(), len) == len);
  CHECK(memcmp(buf_.data(), n->data.data(), static_cast<size_t>(len)) == 0);
  if (n->noTail) CHECK(s->Read(buf_.data(), 1) == 0);
}

// Reads the handle's stream back and puts its cursor where it was.
void OpsFuzzer::VerifyHandle(int hi) {
  Handle& h = handles_[hi];
  if (h.stale || h.node->folder) return;
  Trace("  verify h%d", hi);
  CheckOpened(h.s, h.node);
  CheckData(h.s, h.node);
  if (!h.node->hasBlocks) return;
  h.fresh = false;
  if (!h.posKnown) {
    h.pos = h.node->Length();
    h.posKnown = true;
  }
  const bool atEnd = h.pos == h.node->Length();
  CHECK(h.s->Seek(h.pos, 0, true) == 0 || (atEnd && StoppedAtImageEnd(hi)));
  Own(hi);
}

void OpsFuzzer::VerifyNode(int si, kyStream* s, const ModelNode* n, int depth, bool checkSelf) {
  if (checkSelf) CheckOpened(s, n);
  if (!n->folder) {
    CheckData(s, n);
    return;
  }
  if (depth >= kMaxCheckDepth) return;
  long long cursor = 0;
  kyStream* c = s->OpenStreamFirst(&cursor, kModeReadShared);
  CHECK(s->GetNumChildren() == n->slots.size());
  for (const ModelSlot& slot : n->slots) {
    if (slot.name.empty()) continue;
    CHECK(c != nullptr);
    VerifyNode(si, c, slot.node.get(), depth + 1);
    c->Release();
    c = s->OpenStreamNext(&cursor, kModeReadShared);
  }
  CHECK(c == nullptr);
}

void OpsFuzzer::VerifySubtree(int fi) {
  const Handle& f = handles_[fi];
  if (!Usable(f)) return;
  Trace("  verify subtree of h%d", fi);
  VerifyNode(f.store, f.s, f.node, 0, !f.stale);
  Touch(f.store);
}

// Opens every root stream the storage can reach by name and reads the whole
// tree below it.
void OpsFuzzer::VerifyTree(int si) {
  Store& s = stores_[si];
  if (s.st == nullptr) return;
  Trace("  verify tree of store %d", si);
  for (size_t i = 0; i < s.root.slots.size(); ++i) {
    const ModelSlot& slot = s.root.slots[i];
    if (slot.name.empty()) continue;
    kyStream* stm = nullptr;
    if (RootMapped(si, slot.name))
      stm = s.st->OpenStream(slot.name.c_str(), kModeReadShared);
    else if (i < kFastSlots)
      stm = s.st->OpenStreamFast(slot.name.c_str(), kModeReadShared);
    else
      continue;  // a fast open's map does not know it; the directory walks reach it
    CHECK(stm != nullptr);
    VerifyNode(si, stm, slot.node.get(), 0);
    stm->Release();
  }
  CheckDirectoryOrder(si);
  Touch(si);
}

// The walk in directory order: every used slot in turn, opened through the
// map (a name the map does not know gives null and the walk goes on).
void OpsFuzzer::CheckDirectoryOrder(int si) {
  Store& s = stores_[si];
  std::vector<const ModelSlot*> used;
  for (const ModelSlot& slot : s.root.slots)
    if (!slot.name.empty()) used.push_back(&slot);
  int cursor = -7;
  kyStream* stm = s.st->OpenStreamFirst2(cursor, kModeReadShared);
  if (used.empty()) {
    CHECK(stm == nullptr && cursor == -7);
    return;
  }
  CHECK(cursor == 0);
  for (size_t i = 0; i < used.size(); ++i) {
    if (i > 0) {
      stm = s.st->OpenStreamNext2(cursor, kModeReadShared);
      CHECK(cursor == static_cast<int>(i));
    }
    if (RootMapped(si, used[i]->name)) {
      CheckOpened(stm, used[i]->node.get());
      stm->Release();
    } else {
      CHECK(stm == nullptr);
    }
  }
  CHECK(s.st->OpenStreamNext2(cursor, kModeReadShared) == nullptr);
  CHECK(cursor == static_cast<int>(used.size()) - 1);
}

void OpsFuzzer::CheckFileByte(int si, long long offset, char expected) {
  FILE* f = fopen(stores_[si].path.c_str(), "rb");
  CHECK(f != nullptr);
  CHECK(offset > 0 && fseeko(f, static_cast<off_t>(offset), SEEK_SET) == 0);
  const int c = fgetc(f);
  fclose(f);
  CHECK(c == static_cast<unsigned char>(expected));
}

// --- choices ------------------------------------------------------------------

std::string OpsFuzzer::PickName() {
  static const char* const kPool[] = {"a", "b", "c", "ab", "B", "x", "0", "zz"};
  const uint8_t b = in_.Byte();
  if (b < 232) return kPool[b % 8];
  std::string name = in_.Content(1 + in_.Below(60));
  for (char& c : name)
    if (c == '\0') c = 'n';
  return name;
}

// Mostly a good name; sometimes null, empty or 61 bytes long.  `out` gets
// the pointer to pass (null for the null name).
std::string OpsFuzzer::PickNameMaybeBad(const char** out) {
  const uint8_t b = in_.Byte();
  if (b == 0) {
    scratchName_.clear();
    *out = nullptr;
    return scratchName_;
  }
  if (b == 1) {
    scratchName_.clear();
  } else if (b == 2) {
    scratchName_.assign(61, 'L');
  } else {
    scratchName_ = PickName();
  }
  *out = scratchName_.c_str();
  return scratchName_;
}

DWORD OpsFuzzer::PickType() {
  static const DWORD kTypes[] = {0, 1, 0x100, 0x50001, 0x30000, 0xFF, 2, 0xFFFF0000u};
  return kTypes[in_.Below(8)];
}

long long OpsFuzzer::PickWriteSize() {
  const uint8_t b = in_.Byte();
  if (b < 160) return b % 24;
  if (b < 240) return in_.Below(400);
  return in_.Below(9000);
}

// --- operations: opening and creating -----------------------------------------

void OpsFuzzer::OpCreateRoot() {
  const int si = PickStore();
  if (FreeHandle() < 0) return;
  Store& s = stores_[si];
  const char* name = nullptr;
  const std::string nm = PickNameMaybeBad(&name);
  const DWORD type = in_.Bit() ? PickType() : 0;
  const DWORD mode = PickMode(si);
  const bool fast = in_.Below(3) == 0;
  const bool twoArgs = type == 0 && in_.Bit();
  Trace("create-root store %d '%s' type %x mode %x%s", si, Printable(nm).c_str(), type, mode,
        fast ? " fast" : "");

  bool ok = ValidName(name) && Writable(si) && !RootMapped(si, nm);
  int index = -1;
  if (ok) {
    const bool onDisk = FindSlot(&s.root, nm) >= 0;
    if (fast) {
      if (onDisk) return;  // a fast open's map does not know it: a second one would be made
      index = FirstFreeSlot(&s.root, 0, kFastSlots);
    } else if (onDisk) {
      ok = false;  // a fast open looks on disk before making an ordinary one
    } else {
      index = OrdinarySlotFor(si);
    }
    if (index < 0) ok = false;
  }
  kyStream* stm;
  if (fast)
    stm = twoArgs ? s.st->CreateStreamFast(name, mode) : s.st->CreateStreamFast(name, type, mode);
  else
    stm = twoArgs ? s.st->CreateStream(name, mode) : s.st->CreateStream(name, type, mode);
  Touch(si);
  CHECK((stm != nullptr) == ok);
  if (!ok) return;
  ModelNode* n = OccupySlot(&s.root, static_cast<size_t>(index), nm, (type & 0xFF) != 0,
                            static_cast<uint16_t>(type >> 16));
  if (s.fast) s.mapped.insert(nm);
  CheckOpened(stm, n);
  AddHandle(stm, si, n, -1, mode, false);
}

void OpsFuzzer::OpOpenOrCreateRoot() {
  const int si = PickStore();
  // Its open asks for 0x16, which a storage without write access refuses
  // to honour later; the target keeps such storages to 0x12.
  if (!Writable(si) || FreeHandle() < 0) return;
  Store& s = stores_[si];
  const std::string nm = PickName();
  static const int kFolderArgs[] = {0, 1, 0x100, 2};
  const int bFolder = kFolderArgs[in_.Below(4)];
  Trace("open-or-create-root store %d '%s' %d", si, Printable(nm).c_str(), bFolder);
  const bool opened = RootMapped(si, nm);
  int index = -1;
  if (!opened && FindSlot(&s.root, nm) < 0) index = OrdinarySlotFor(si);
  kyStream* stm = s.st->OpenOrCreateStream(nm.c_str(), bFolder);
  Touch(si);
  CHECK((stm != nullptr) == (opened || index >= 0));
  if (stm == nullptr) return;
  ModelNode* n;
  if (opened) {
    n = s.root.slots[static_cast<size_t>(FindSlot(&s.root, nm))].node.get();
  } else {
    n = OccupySlot(&s.root, static_cast<size_t>(index), nm, (bFolder & 0xFF) != 0, 0);
    if (s.fast) s.mapped.insert(nm);
  }
  CheckOpened(stm, n);
  AddHandle(stm, si, n, -1, kModeReadWriteShared, opened);
}

// Many root streams at once, so that the directory grows by blocks.
void OpsFuzzer::OpFillRoot() {
  const int si = PickStore();
  Store& s = stores_[si];
  const int count = 40 + static_cast<int>(in_.Below(40));
  Trace("fill-root store %d with %d streams", si, count);
  for (int i = 0; i < count; ++i) {
    char name[16];
    snprintf(name, sizeof(name), "n%02d", i);
    if (RootMapped(si, name) || FindSlot(&s.root, name) >= 0) continue;
    const int index = Writable(si) ? OrdinarySlotFor(si) : -1;
    kyStream* stm = s.st->CreateStream(name, static_cast<DWORD>(i % 3 == 0), kModeReadWriteShared);
    CHECK((stm != nullptr) == (index >= 0));
    if (stm == nullptr) continue;
    OccupySlot(&s.root, static_cast<size_t>(index), name, i % 3 == 0, 0);
    if (s.fast) s.mapped.insert(name);
    CHECK(stm->Release() == -1);  // made by creation: never registered
  }
  Touch(si);
}

void OpsFuzzer::OpOpenOrCreateRootFast() {
  const int si = PickStore();
  if (!Writable(si) || FreeHandle() < 0) return;
  Store& s = stores_[si];
  const std::string nm = PickName();
  const bool seekToEnd = in_.Bit();
  Trace("open-or-create-root-fast store %d '%s'%s", si, Printable(nm).c_str(),
        seekToEnd ? " to end" : "");
  const int at = FindSlot(&s.root, nm);
  const bool opened = at >= 0 && at < kFastSlots;
  int index = -1;
  if (!opened) {
    if (at >= 0 && !RootMapped(si, nm)) return;  // unknown to a fast open's map: made twice
    if (at < 0) index = FirstFreeSlot(&s.root, 0, kFastSlots);
  }
  kyStream* stm = s.st->OpenOrCreateStreamFast(nm.c_str(), seekToEnd ? 1 : 0);
  Touch(si);
  CHECK((stm != nullptr) == (opened || index >= 0));
  if (stm == nullptr) return;
  ModelNode* n;
  if (opened) {
    n = s.root.slots[static_cast<size_t>(at)].node.get();
  } else {
    n = OccupySlot(&s.root, static_cast<size_t>(index), nm, false, 0);
    if (s.fast) s.mapped.insert(nm);
  }
  CheckOpened(stm, n);
  const int hi = AddHandle(stm, si, n, -1, kModeReadWriteShared, opened);
  if (seekToEnd && n->hasBlocks) {
    Handle& h = handles_[hi];
    h.fresh = false;
    h.pos = n->Length();
    h.posKnown = n->endKnown;
    Own(hi);
  }
}

void OpsFuzzer::OpOpenRoot() {
  const int si = PickStore();
  if (FreeHandle() < 0) return;
  Store& s = stores_[si];
  const char* name = nullptr;
  const std::string nm = PickNameMaybeBad(&name);
  const DWORD mode = PickMode(si);
  const bool fast = in_.Below(3) == 0;
  Trace("open-root store %d '%s' mode %x%s", si, Printable(nm).c_str(), mode, fast ? " fast" : "");
  const int at = ValidName(name) ? FindSlot(&s.root, nm) : -1;
  const bool ok = fast ? at >= 0 && at < kFastSlots : at >= 0 && RootMapped(si, nm);
  kyStream* stm = fast ? s.st->OpenStreamFast(name, mode) : s.st->OpenStream(name, mode);
  Touch(si);
  CHECK((stm != nullptr) == ok);
  if (!ok) return;
  ModelNode* n = s.root.slots[static_cast<size_t>(at)].node.get();
  CheckOpened(stm, n);
  AddHandle(stm, si, n, -1, mode, true);
}

void OpsFuzzer::OpCreateChild() {
  const int fi = PickHandle(Usable);
  if (fi < 0 || FreeHandle() < 0) return;
  Handle& f = handles_[fi];
  const int si = f.store;
  const char* name = nullptr;
  const std::string nm = PickNameMaybeBad(&name);
  const DWORD type = PickType();
  const DWORD mode = PickMode(si);
  const bool check = in_.Bit();
  Trace("create-child in h%d '%s' type %x mode %x%s", fi, Printable(nm).c_str(), type, mode,
        check ? " checked" : "");
  const bool usable = f.node->folder && ValidName(name);
  const bool lookUp = check || !f.preloaded;
  if (f.stale && !lookUp) return;  // the append would go to the end its object knows
  if (AvoidStaleCreation(f)) return;
  // A name the lookup would not see (or no lookup at all) makes a second
  // child of that name.
  if (usable && FindSlot(f.node, nm) >= 0 && (!lookUp || !Visible(fi, nm, false))) return;
  ModelNode* n = nullptr;
  if (usable && !(lookUp && Visible(fi, nm, true)))
    n = ModelCreateChild(si, f.node, nm, (type & 0xFF) != 0, static_cast<uint16_t>(type >> 16),
                         lookUp, fi);
  kyStream* c = f.s->CreateStream(name, type, mode, check ? 1 : 0);
  Touch(si);
  CHECK((c != nullptr) == (n != nullptr));
  if (n == nullptr) return;
  CheckOpened(c, n);
  AddHandle(c, si, n, fi, mode, true);
}

void OpsFuzzer::OpOpenOrCreateChild() {
  const int fi = PickHandle(Usable);
  if (fi < 0 || FreeHandle() < 0) return;
  Handle& f = handles_[fi];
  const int si = f.store;
  const std::string nm = PickName();
  const bool threeArgs = in_.Bit();
  static const int kTypeArgs[] = {0, 1, 0x100, 2, 0x50001};
  const DWORD type = threeArgs ? PickType() : static_cast<DWORD>(kTypeArgs[in_.Below(5)]);
  const DWORD mode = threeArgs ? PickMode(si) : kModeReadWriteShared;
  if (!Writable(si) && (mode & kModeWrite) != 0) return;
  if (f.stale && threeArgs && f.preloaded) return;  // it appends at the end its object knows
  if (AvoidStaleCreation(f)) return;
  Trace("open-or-create-child in h%d '%s' type %x mode %x%s", fi, Printable(nm).c_str(), type, mode,
        threeArgs ? "" : " (two arguments)");
  if (f.node->folder && FindSlot(f.node, nm) >= 0 && !Visible(fi, nm, false)) return;
  ModelNode* n = nullptr;
  bool opened = false;
  if (f.node->folder) {
    opened = Visible(fi, nm, true);
    if (opened) {
      n = f.node->slots[static_cast<size_t>(FindSlot(f.node, nm))].node.get();
    } else {
      const bool reuse = !threeArgs || !f.preloaded;
      n = ModelCreateChild(si, f.node, nm, (type & 0xFF) != 0, static_cast<uint16_t>(type >> 16),
                           reuse, fi);
    }
  }
  kyStream* c = threeArgs ? f.s->OpenOrCreateStream(nm.c_str(), type, mode)
                          : f.s->OpenOrCreateStream(nm.c_str(), static_cast<int>(type));
  if (!(opened && f.preloaded && kPreloadedLookupsKeepPosition) && f.node->folder) Touch(si);
  CHECK((c != nullptr) == (n != nullptr));
  if (n == nullptr) return;
  CheckOpened(c, n);
  AddHandle(c, si, n, fi, mode, true);
}

void OpsFuzzer::OpOpenChild() {
  const int fi = PickHandle([](const Handle& h) { return Usable(h) || h.preloaded; });
  if (fi < 0 || FreeHandle() < 0) return;
  Handle& f = handles_[fi];
  const int si = f.store;
  const char* name = nullptr;
  const std::string nm = PickNameMaybeBad(&name);
  const DWORD mode = PickMode(si);
  Trace("open-child in h%d '%s' mode %x", fi, Printable(nm).c_str(), mode);
  const bool reads = f.node->folder && ValidName(name);
  const bool ok = reads && Visible(fi, nm, true);
  kyStream* c = f.s->OpenStream(name, mode);
  if (reads && !(f.preloaded && kPreloadedLookupsKeepPosition)) Touch(si);
  CHECK((c != nullptr) == ok);
  if (!ok) return;
  ModelNode* n = f.node->slots[static_cast<size_t>(FindSlot(f.node, nm))].node.get();
  CheckOpened(c, n);
  AddHandle(c, si, n, fi, mode, true);
}

// --- operations: data -----------------------------------------------------------

namespace {
bool IsUsableData(const Handle& h) {
  return !h.stale && !h.node->folder;
}
}  // namespace

void OpsFuzzer::OpWrite() {
  const int hi = PickHandle(IsUsableData);
  if (hi < 0) return;
  EnsureReady(hi);
  Handle& h = handles_[hi];
  ModelNode* n = h.node;
  const int si = h.store;
  const long long count = PickWriteSize();
  const std::string bytes = in_.Content(static_cast<size_t>(count));
  const bool eraseOld = in_.Bit();
  const bool wantOffset = in_.Bit();
  long long offset = -1;
  Trace("write h%d at %lld: %lld bytes%s", hi, static_cast<long long>(h.pos),
        static_cast<long long>(count), eraseOld ? " ending the stream" : "");
  const long long r = h.s->Write(bytes.data(), count, eraseOld, wantOffset ? &offset : nullptr);
  if (InMemory(si)) {
    CHECK(r == 0);
    return;
  }
  if (!Writable(si)) {
    // The stream limit stops a write before the platform refuses it.
    const bool stopsFirst = count == 0 || (h.posKnown && h.pos >= limit_);
    CHECK(r == ((stopsFirst && n->hasBlocks) ? 0 : -1));
    h.fresh = false;
    Touch(si);
    return;
  }
  const long long before = n->Length();
  const bool hadBlocks = n->hasBlocks;
  const long long expected = ModelWrite(n, h.pos, bytes, eraseOld, limit_);
  CHECK(r == expected);
  if (!hadBlocks || (expected > 0 && (eraseOld || h.pos + expected > before))) MarkStale(si, n, hi);
  // Gathered writes are not in the file yet.
  if (wantOffset && expected > 0 && !stores_[si].batching) CheckFileByte(si, offset, bytes[0]);
  h.pos += expected;
  h.fresh = false;
  Own(hi);
  if (!in_.Bit()) VerifyHandle(hi);
}

void OpsFuzzer::OpRead() {
  const int hi = PickHandle(IsUsableData);
  if (hi < 0) return;
  EnsureReady(hi);
  Handle& h = handles_[hi];
  const ModelNode* n = h.node;
  const long long avail = n->Length() - h.pos;
  long long count = in_.UpTo(avail + 8);
  // Beyond the length lie old bytes of a length nobody knows.
  if (!n->noTail && count > avail) count = avail;
  if (in_.Byte() == 0xFF) count = -1 - in_.UpTo(9);
  buf_.resize(static_cast<size_t>(count > 0 ? count : 0) + 1);
  const long long r = h.s->Read(buf_.data(), count);
  Trace("read h%d at %lld: %lld bytes -> %lld", hi, static_cast<long long>(h.pos),
        static_cast<long long>(count), static_cast<long long>(r));
  if (!n->hasBlocks || count <= 0) {
    CHECK(r == 0);
    return;
  }
  CHECK(r == std::min(count, avail));
  CHECK(memcmp(buf_.data(), n->data.data() + h.pos, static_cast<size_t>(r)) == 0);
  h.pos += r;
  h.fresh = false;
  Own(hi);
}

void OpsFuzzer::OpSeek() {
  const int hi = PickHandle(IsUsableData);
  if (hi < 0) return;
  const uint32_t form = in_.Below(kHugeNumbers ? 11 : 10);
  if (form == 3 || form == 4 || form == 8 || form == 10) EnsureReady(hi);
  Handle& h = handles_[hi];
  const ModelNode* n = h.node;
  const long long len = n->Length();
  const long long pos = h.pos;
  enum Outcome { kMoves, kFails, kStill, kEither } outcome = kMoves;
  long long target = -1;  // -1: the position after the seek is not known
  long long r = 0;
  bool fromEnd = false;  // the seek starts from the end of the data
  switch (form) {
    case 0: {
      target = in_.UpTo(len);
      r = h.s->Seek(target, 0, true);
      break;
    }
    case 1:
      r = h.s->Seek(len + (1LL << 40) + in_.UpTo(1000), 0, true);
      outcome = kFails;
      break;
    case 2: {
      const long long d = in_.UpTo(len + 3);
      r = h.s->Seek(d, 1, true);
      fromEnd = true;
      if (n->endKnown) target = std::max<long long>(0, len - d);
      break;
    }
    case 3:
      if (in_.Bit()) {
        r = h.s->Seek(len + (1LL << 40), 2, true);
        outcome = kFails;
      } else {
        const long long d = in_.UpTo(len - pos);
        r = h.s->Seek(d, 2, true);
        target = pos + d;
      }
      break;
    case 4: {
      const long long d = in_.UpTo(pos + 3);
      r = h.s->Seek(d, 2, false);
      target = std::max<long long>(0, pos - d);
      break;
    }
    case 5:
      r = h.s->Seek(in_.UpTo(len), static_cast<unsigned char>(3 + in_.Below(253)), in_.Bit());
      outcome = kStill;
      break;
    case 6:
      r = h.s->Seek(-1 - in_.UpTo(100), static_cast<unsigned char>(in_.Below(3)), in_.Bit());
      outcome = kStill;
      break;
    case 7:
      if (in_.Bit()) {
        target = in_.UpTo(len);
        r = h.s->Seek2(target, 0);
      } else {
        const long long d = 1 + in_.UpTo(len + 3);
        r = h.s->Seek2(-d, 0);
        fromEnd = true;
        if (n->endKnown) target = std::max<long long>(0, len - d);
      }
      break;
    case 8:
      if (in_.Bit()) {
        const long long d = in_.UpTo(len - pos);
        r = h.s->Seek2(d, 1);
        target = pos + d;
      } else {
        const long long d = 1 + in_.UpTo(pos + 3);
        r = h.s->Seek2(-d, 1);
        target = std::max<long long>(0, pos - d);
      }
      break;
    case 9: {
      static const UINT kFrom[] = {2, 3, 7, 0xFFFFFFFFu};
      r = h.s->Seek2(in_.UpTo(len + 6) - 3, kFrom[in_.Below(4)]);
      target = 0;
      break;
    }
    default:
      switch (in_.Below(6)) {
        case 0:
          r = h.s->Seek(INT64_MAX, 1, true);
          fromEnd = true;
          target = 0;
          break;
        case 1:
          r = h.s->Seek(INT64_MAX, 2, false);
          target = 0;
          break;
        case 2:
          r = h.s->Seek2(INT64_MIN, 0);
          outcome = kEither;
          break;
        case 3:
          r = h.s->Seek2(INT64_MIN, 1);
          outcome = kEither;
          break;
        case 4:
          r = h.s->Seek2(INT64_MAX, 1);
          outcome = kFails;
          break;
        default:
          r = h.s->Seek(INT64_MAX, 2, true);
          outcome = kFails;
          break;
      }
      break;
  }
  Trace("seek h%d form %u from %lld -> %lld (expect %lld)", hi, form, static_cast<long long>(pos),
        static_cast<long long>(r), static_cast<long long>(target));
  if (outcome == kStill) {
    CHECK(r == -1);  // refused before anything moved
    return;
  }
  if (!n->hasBlocks) {
    CHECK(r == 0 || r == -1);  // there is nothing to move along
    return;
  }
  if (outcome == kEither) {
    CHECK(r == 0 || r == -1);
    outcome = r == 0 ? kMoves : kFails;
    target = 0;
  }
  if (outcome == kFails) {
    CHECK(r == -1);
    // The cursor stays; an object that has a block in hand puts the file
    // position back under it.
    if (h.fresh)
      Touch(h.store);
    else
      Own(hi);
    return;
  }
  if (r == -1 && fromEnd && ChainEndsImage(hi)) {
    if (target < 0) {
      Own(hi);  // the cursor stayed where it was
      return;
    }
    r = h.s->Seek(target, 0, true);
  }
  if (r == -1 && target == len && StoppedAtImageEnd(hi)) return;
  CHECK(r == 0);
  h.fresh = false;
  h.posKnown = target >= 0;
  if (target >= 0) h.pos = target;
  Own(hi);
}

void OpsFuzzer::OpSetLength() {
  const int hi = PickHandle(IsUsableData);
  if (hi < 0 || !CanMutate(hi)) return;
  Handle& h = handles_[hi];
  ModelNode* n = h.node;
  const long long len = n->Length();
  long long to;
  switch (in_.Below(5)) {
    case 0:
      to = len;
      break;
    case 1:
      to = in_.UpTo(len);
      break;
    case 2:
      to = len + 1 + in_.UpTo(10);
      break;
    case 3:
      to = -1 - in_.UpTo(5);
      break;
    default:
      to = INT64_MAX;
      break;
  }
  const bool ok = (h.mode & kModeWrite) != 0 && to >= 0 && to <= len;
  Trace("set-length h%d %lld -> %lld", hi, static_cast<long long>(len), static_cast<long long>(to));
  CHECK(h.s->SetLength(to) == ok);
  if (!ok) return;  // refused before anything moved
  if (to < len) MarkStale(h.store, n, hi);
  ModelSetLength(n, to);
  h.pos = 0;
  h.posKnown = true;
  if (n->hasBlocks) h.fresh = false;
  Touch(h.store);
  if (!in_.Bit()) VerifyHandle(hi);
}

void OpsFuzzer::OpErase() {
  const int hi = PickHandle(IsUsableData);
  if (hi < 0 || !CanMutate(hi)) return;
  Handle& h = handles_[hi];
  ModelNode* n = h.node;
  const bool ok = (h.mode & kModeWrite) != 0;
  Trace("erase h%d", hi);
  CHECK(h.s->Erase() == ok);
  if (!ok) return;
  if (n->Length() > 0) MarkStale(h.store, n, hi);
  ModelSetLength(n, 0);
  h.pos = 0;
  h.posKnown = true;
  if (n->hasBlocks) {
    h.fresh = false;
    Own(hi);
  } else {
    Touch(h.store);
  }
  if (!in_.Bit()) VerifyHandle(hi);
}

void OpsFuzzer::OpPrependSize() {
  const int hi = PickHandle(IsUsableData);
  if (hi < 0 || !CanMutate(hi)) return;
  EnsureReady(hi);
  Handle& h = handles_[hi];
  ModelNode* n = h.node;
  const DWORD size = in_.Bit() ? static_cast<DWORD>(in_.Below(64)) : 0x01020304u * in_.Byte();
  Trace("prepend-size h%d at %lld: %u", hi, static_cast<long long>(h.pos), size);
  const BOOL r = h.s->PrependSize(size);
  if (!Writable(h.store)) {
    // Without the mark, writing it fails first.  With it, the result is
    // the write's: refused in memory (0, which counts as done), failed on
    // a file opened for reading, unless the stream limit stops it first
    // (0 again).
    CHECK((r != 0) == (n->sizeMark && (InMemory(h.store) || h.pos >= limit_)));
    h.posKnown = false;
    Touch(h.store);
    return;
  }
  CHECK(r);
  std::string bytes(4, '\0');
  memcpy(&bytes[0], &size, 4);
  n->sizeMark = true;
  const long long written = ModelWrite(n, h.pos, bytes, true, limit_);
  MarkStale(h.store, n, hi);
  h.pos += written;
  h.fresh = false;
  Own(hi);
  if (!in_.Bit()) VerifyHandle(hi);
}

void OpsFuzzer::OpVerifiedLength() {
  const int hi = PickHandle(IsUsableData);
  if (hi < 0) return;
  EnsureReady(hi);
  if (handles_[hi].pos != 0) Reposition(hi, 0);
  Handle& h = handles_[hi];
  const ModelNode* n = h.node;
  const long long len = n->Length();
  long long got = -99;
  const BOOL r = h.s->GetVerifiedDataLength(got);
  Trace("verified-length h%d -> %d %lld", hi, r, static_cast<long long>(got));
  if (len <= 0 || !n->sizeMark) {
    CHECK(r && got == len);
    return;
  }
  DWORD prefix = 0;
  if (len >= 4) memcpy(&prefix, n->data.data(), 4);
  CHECK(got == (len > 4 ? len - 4 : len));
  CHECK((r != 0) == (len > 4 && len - 4 == prefix));
  h.fresh = false;
  Own(hi);
  if (len >= 4) {
    h.pos = 4;
  } else {
    h.pos = len;
    h.posKnown = n->noTail;
  }
}

void OpsFuzzer::OpCopyToBuffer() {
  const int hi = PickHandle(IsUsableData);
  if (hi < 0) return;
  EnsureReady(hi);
  if (handles_[hi].pos != 0) Reposition(hi, 0);
  Handle& h = handles_[hi];
  const ModelNode* n = h.node;
  const long long len = n->Length();
  const bool skip = in_.Bit();
  const long long prefix = skip ? (stores_[h.store].b64 ? 8 : 4) : 0;
  BYTE* copy = nullptr;
  const DWORD r = h.s->CopyStreamToBuffer(copy, skip ? TRUE : FALSE);
  Trace("copy-to-buffer h%d%s -> %u", hi, skip ? " skipping the prefix" : "", r);
  const long long expected = len - prefix > 0 ? len - prefix : 0;
  CHECK(r == expected);
  CHECK((copy != nullptr) == (expected > 0));
  if (expected > 0)
    CHECK(memcmp(copy, n->data.data() + prefix, static_cast<size_t>(expected)) == 0);
  h.s->FreeBuffer(copy);
  CHECK(copy == nullptr);
  if (!n->hasBlocks || (!skip && len == 0)) return;  // nothing was read
  // The copy read up to the length; a prefix longer than the stream may
  // have read old bytes beyond it.
  h.fresh = false;
  Own(hi);
  h.pos = len;
  h.posKnown = len >= prefix || n->noTail;
}

// --- operations: copies -----------------------------------------------------------

// CopyStream of `src` into `dst`, both data streams; also what CopyFolder
// does for a data source.
void OpsFuzzer::RunCopyStream(int src, int dst, bool throughFolderCopy) {
  Handle& hs = handles_[src];
  Handle& hd = handles_[dst];
  const bool same = hs.store == hd.store && hs.node == hd.node;
  if (!same && !kCopyOntoBlocks && hd.node->hasBlocks) return;
  if (!same && !kRefusedCopyKeepsMark && !hd.node->folder && (hd.mode & kModeWrite) == 0 &&
      hd.node->sizeMark != hs.node->sizeMark)
    return;
  // The copy reads the source from its cursor.
  if (!same && (!hs.posKnown || (hs.pos != 0 && !hs.node->noTail))) Reposition(src, 0);
  const long long srcLen = hs.node->Length();
  Trace("%s h%d (at %lld of %lld) into h%d",
        throughFolderCopy ? "copy-folder of data" : "copy-stream", src,
        static_cast<long long>(hs.pos), static_cast<long long>(srcLen), dst);
  bool expected = false;
  if (!same) {
    ModelNode* d = hd.node;
    bool headerChanged = false;
    // The size-prefix mark goes with the data onto a data stream.
    // A destination that cannot be erased (no write access) is not copied
    // into and keeps its mark.
    const bool erasable = (hd.mode & kModeWrite) != 0;
    if (erasable && Writable(hd.store) && !d->folder && d->sizeMark != hs.node->sizeMark) {
      d->sizeMark = hs.node->sizeMark;
      headerChanged = true;
    }
    if ((hd.mode & kModeWrite) != 0 && d->Length() > 0) {
      ModelSetLength(d, 0);
      headerChanged = true;
    }
    // A source read from past its start comes short: nothing is written.
    if (srcLen > 0 && erasable && Writable(hd.store) && hs.pos == 0) {
      expected = ModelWrite(d, 0, hs.node->data, true, limit_) == srcLen;
      headerChanged = true;
    }
    if (headerChanged) MarkStale(hd.store, d, dst);
  }
  const bool r = throughFolderCopy ? hs.s->CopyFolder(hd.s) : hs.s->CopyStream(hd.s);
  CHECK(r == expected);
  if (same) return;  // refused before anything moved
  Touch(hs.store);
  Touch(hd.store);
  hs.posKnown = false;
  hs.fresh = false;
  hd.posKnown = false;
  hd.fresh = false;
  if (!in_.Bit()) VerifyHandle(dst);
}

void OpsFuzzer::OpCopyStream() {
  const int src = PickHandle(IsUsableData);
  const int dst = PickHandle(IsUsableData);
  if (src < 0 || dst < 0 || !CanMutate(dst)) return;
  RunCopyStream(src, dst, false);
}

void OpsFuzzer::OpCopyFolder() {
  const int src = PickHandle(Usable);
  const int dst = PickHandle(Usable);
  if (src < 0 || dst < 0) return;
  Handle& hs = handles_[src];
  Handle& hd = handles_[dst];
  if (!hs.node->folder) {
    // A data source copies itself with CopyStream, which would write over
    // a destination folder's table of children.
    if (hd.node->folder || !CanMutate(dst)) return;
    RunCopyStream(src, dst, true);
    return;
  }
  const bool sameStore = hs.store == hd.store;
  const bool refused = sameStore && IsWithin(hd.node, hs.node);
  if (sameStore && !refused && IsWithin(hs.node, hd.node)) return;  // the copy would meet itself
  if (AvoidStaleCreation(hd)) return;
  if (!refused && hd.node->folder) {
    // The copy changes the destination's children through objects of its
    // own; one of ours there would be left with an old header.
    for (int i = 0; i < kMaxHandles; ++i) {
      const Handle& h = handles_[i];
      if (h.live && h.store == hd.store && h.node != hd.node && IsWithin(h.node, hd.node)) return;
    }
    // Names the destination's map cannot see would be made a second time.
    for (const ModelSlot& slot : hs.node->slots)
      if (!slot.name.empty() && FindSlot(hd.node, slot.name) >= 0 &&
          !Visible(dst, slot.name, false))
        return;
    if (!kCopyOntoBlocks && CopyWouldMeetBlocks(hd.node)) return;
  }
  Trace("copy-folder h%d into h%d%s", src, dst, refused ? " (inside the source)" : "");
  bool expected;
  if (refused)
    expected = false;
  else if (!hd.node->folder)
    expected = UsedNames(hs.node).empty();
  else
    expected = ModelCopyFolder(hs.store, hs.node, hd.store, hd.node, dst);
  const bool r = hs.s->CopyFolder(hd.s);
  CHECK(r == expected);
  if (refused) return;  // refused before anything moved
  Touch(hs.store);
  Touch(hd.store);
  if (hd.node->folder && !in_.Bit()) VerifySubtree(dst);
}

// --- operations: changing the tree -------------------------------------------------

void OpsFuzzer::OpRename() {
  const int hi = PickHandle([](const Handle& h) { return !h.stale; });
  if (hi < 0 || !CanMutate(hi)) return;
  Handle& h = handles_[hi];
  ModelNode* n = h.node;
  const int si = h.store;
  const char* name = nullptr;
  std::string nm = PickNameMaybeBad(&name);
  if (kLongRenames && in_.Byte() >= 224) {
    nm = PickName();
    nm.resize(61 + in_.Below(10), 'R');
    scratchName_ = nm;
    name = scratchName_.c_str();
  }
  const std::string kept = name != nullptr ? std::string(name).substr(0, 60) : std::string();
  // Another object of the stream would keep the old name in its header
  // copy and in the registry.
  for (int i = 0; i < kMaxHandles; ++i)
    if (handles_[i].live && i != hi && handles_[i].store == si && handles_[i].node == n) return;
  Registry& reg = RegistryOf(h.parent, si);
  auto it = reg.find(n->name);
  const int count = it == reg.end() ? 0 : it->second;
  if (count != (h.registered ? 1 : 0)) return;
  // Rename does not look at the siblings: two of one name would follow.
  if (!kept.empty() && kept != n->name && (FindSlot(n->parent, kept) >= 0 || reg.count(kept)))
    return;
  const bool ok = (h.mode & kModeWrite) != 0 && !kept.empty();
  Trace("rename h%d '%s' to '%s'", hi, Printable(n->name).c_str(), Printable(kept).c_str());
  CHECK(h.s->Rename(name) == ok);
  if (!ok) return;  // nothing written
  Touch(si);
  const std::string old = n->name;
  n->parent->slots[static_cast<size_t>(FindSlot(n->parent, old))].name = kept;
  n->name = kept;
  if (count != 0) {
    reg.erase(old);
    reg[kept] = count;
  }
  if (h.parent >= 0) {
    Handle& p = handles_[h.parent];
    auto e = p.preload.find(old);
    if (p.preloaded && e != p.preload.end()) {
      const size_t slot = e->second.slot;
      e->second.alive = false;
      p.preload[kept] = PreloadEntry{slot, true};
    }
  } else if (stores_[si].fast && stores_[si].mapped.erase(old) != 0) {
    stores_[si].mapped.insert(kept);
  }
  CHECK(kept == h.s->GetName());
}

void OpsFuzzer::OpRemove() {
  const int hi = PickHandle([](const Handle& h) { return !h.stale; });
  if (hi < 0 || !CanMutate(hi)) return;
  Handle& h = handles_[hi];
  ModelNode* n = h.node;
  const int si = h.store;
  const int parent = h.parent;
  // Every other object of the stream must be one the removal can count: it
  // hangs from the same parent object and is registered.  (Objects below
  // the stream hang from objects of it, so they are counted too.)
  int others = 0;
  for (int i = 0; i < kMaxHandles; ++i) {
    const Handle& o = handles_[i];
    if (!o.live || i == hi || o.store != si || o.node != n) continue;
    if (o.parent != parent || !o.registered) return;
    ++others;
  }
  Registry& reg = RegistryOf(parent, si);
  auto it = reg.find(n->name);
  const int count = it == reg.end() ? 0 : it->second;
  if (count != others + (h.registered ? 1 : 0)) return;
  if (!kRemoveByCreatorWhileOpened && !h.registered && others > 0) return;
  const bool ok = (h.mode & kModeWrite) != 0 && others == 0 && !HasChildren(hi);
  Trace("remove h%d '%s' (%d other objects)", hi, Printable(n->name).c_str(), others);
  CHECK(h.s->Remove() == ok);
  if (!ok) return;  // refused before anything moved
  const std::string name = n->name;
  if (count != 0 && h.registered) CloseExpected(reg, name);
  ForgetPreloaded(parent, name);
  if (parent < 0) stores_[si].mapped.erase(name);
  ModelNode* dir = n->parent;
  h = Handle();
  FreeModelSlot(si, dir, static_cast<size_t>(FindSlot(dir, name)));
  Touch(si);
  if (parent >= 0) {
    if (!in_.Bit()) VerifySubtree(parent);
  } else {
    CHECK(stores_[si].st->OpenStream(name.c_str(), kModeReadShared) == nullptr);
  }
}

void OpsFuzzer::OpClearFolder() {
  const int fi = PickHandle(Usable);
  if (fi < 0) return;
  Handle& f = handles_[fi];
  ModelNode* dir = f.node;
  const int si = f.store;
  if (dir->folder) {
    // The children are removed through objects opened by this one: one of
    // ours below must hang from it, or the removal cannot count it.
    for (int i = 0; i < kMaxHandles; ++i) {
      const Handle& h = handles_[i];
      if (h.live && h.store == si && h.node != dir && IsWithin(h.node, dir) &&
          !ChainsThrough(i, fi))
        return;
    }
  }
  Trace("clear-folder h%d", fi);
  if (dir->folder && Writable(si)) {
    for (size_t k = 0; k < dir->slots.size(); ++k) {
      const std::string name = dir->slots[k].name;
      if (name.empty() || f.reg.count(name) != 0) continue;  // held open through this object
      ForgetPreloaded(fi, name);
      FreeModelSlot(si, dir, k);
    }
  }
  f.s->ClearFolder();
  if (!dir->folder) return;  // nothing read
  Touch(si);
  if (!in_.Bit()) VerifySubtree(fi);
}

// --- operations: preloaded children ------------------------------------------------

void OpsFuzzer::OpPreload() {
  const int fi = PickHandle(Usable);
  if (fi < 0) return;
  Handle& f = handles_[fi];
  Trace("preload h%d", fi);
  const bool builds = f.node->folder && !f.preloaded;
  f.s->PreloadChildren();
  if (!builds) return;  // nothing read
  f.preloaded = true;
  f.preload.clear();
  for (size_t k = 0; k < f.node->slots.size(); ++k)
    if (!f.node->slots[k].name.empty()) f.preload[f.node->slots[k].name] = PreloadEntry{k, true};
  Touch(f.store);
}

namespace {
void SortNames(std::vector<std::string>& names, bool sorted, int order) {
  std::sort(names.begin(), names.end());
  if (sorted && order != 0) std::reverse(names.begin(), names.end());
}
}  // namespace

// The map's entries that a walk hands out, in its order: live ones whose
// slot still carries the name (`refresh`: the others end, as the re-read
// does), or all live ones.
std::vector<std::string> OpsFuzzer::PreloadedNames(int fi, bool refresh) {
  Handle& f = handles_[fi];
  std::vector<std::string> names;
  for (auto& entry : f.preload) {
    if (!entry.second.alive) continue;
    if (refresh && f.node->slots[entry.second.slot].name != entry.first) {
      entry.second.alive = false;
      continue;
    }
    names.push_back(entry.first);
  }
  return names;
}

void OpsFuzzer::OpPreloadWalk() {
  const int fi = PickHandle([](const Handle& h) { return h.node->folder; });
  if (fi < 0) return;
  Handle& f = handles_[fi];
  const int sorted = in_.Bit() ? 1 : 0;
  const int order = in_.Bit() ? 1 : 0;
  f.s->EnableSorting(sorted, order);
  Trace("preload-walk h%d%s", fi, sorted ? (order ? " descending" : " ascending") : "");
  std::vector<std::string> expect = PreloadedNames(fi, true);
  SortNames(expect, sorted != 0, order);
  std::vector<std::string> got;
  void* cursor = nullptr;
  kyStream* c = f.s->OpenPreloadChildrenFirst(&cursor, kModeReadShared);
  while (c != nullptr) {
    got.push_back(c->GetName());
    CHECK(got.size() <= expect.size());
    const int at = FindSlot(f.node, got.back());
    CHECK(at >= 0);
    CheckOpened(c, f.node->slots[static_cast<size_t>(at)].node.get());
    c->Release();
    c = f.s->OpenPreloadChildrenNext(&cursor, kModeReadShared);
  }
  if (!sorted) std::sort(got.begin(), got.end());
  CHECK(got == expect);
  if (!kPreloadedLookupsKeepPosition && !expect.empty()) Touch(f.store);
}

void OpsFuzzer::OpPreloadOffsetWalk() {
  const int fi = PickHandle([](const Handle& h) { return h.node->folder; });
  if (fi < 0) return;
  Handle& f = handles_[fi];
  const int sorted = in_.Bit() ? 1 : 0;
  const int order = in_.Bit() ? 1 : 0;
  const bool open = in_.Bit();
  f.s->EnableSorting(sorted, order);
  Trace("preload-offset-walk h%d%s%s", fi, sorted ? " sorted" : "", open ? " opening" : "");
  std::vector<std::string> expect = PreloadedNames(fi, false);
  SortNames(expect, sorted != 0, order);
  std::vector<std::string> got;
  void* cursor = nullptr;
  t_kyStreamWithOffset value;
  CString name;
  bool opened = false;
  for (int more = f.s->GetPreloadChildrenOffsetFirst(&cursor, 0, value, name); more;
       more = f.s->GetPreloadChildrenOffsetNext(&cursor, 0, value, name)) {
    got.push_back(name.GetString());
    CHECK(got.size() <= expect.size());
    if (!open) continue;
    tag_kyStreamOffset offset;
    memcpy(&offset, &value.offset, sizeof(offset));
    kyStream* c = f.s->OpenPreloadChildrenByOffset(value.hdr, offset, name, kModeReadShared);
    const size_t slot = f.preload[got.back()].slot;
    const ModelNode* node =
        f.node->slots[slot].name == got.back() ? f.node->slots[slot].node.get() : nullptr;
    CHECK((c != nullptr) == (node != nullptr));
    if (c == nullptr) continue;
    CheckOpened(c, node);
    c->Release();
    opened = true;
  }
  CHECK(name.GetLength() == 0);
  if (!sorted) std::sort(got.begin(), got.end());
  CHECK(got == expect);
  if (opened && !kPreloadedLookupsKeepPosition) Touch(f.store);
}

// --- operations: lookups and walks ---------------------------------------------------

void OpsFuzzer::OpFindStream() {
  const int fi =
      PickHandle([](const Handle& h) { return h.node->folder && (Usable(h) || h.preloaded); });
  if (fi < 0) return;
  Handle& f = handles_[fi];
  const std::string nm = PickName();
  Trace("find-stream h%d '%s'", fi, Printable(nm).c_str());
  const bool ok = Visible(fi, nm, true);
  t_kyStreamU header;
  tag_kyStreamOffset offset;
  memset(&header, 0, sizeof(header));
  memset(&offset, 0, sizeof(offset));
  CHECK(f.s->FindStream(nm.c_str(), header, offset) == ok);
  if (!(f.preloaded && kPreloadedLookupsKeepPosition)) Touch(f.store);
  if (!ok) return;
  const ModelNode* n = f.node->slots[static_cast<size_t>(FindSlot(f.node, nm))].node.get();
  CHECK(nm == header.Name());
  CHECK(header.Length(stores_[f.store].b64) == n->Length());
  CHECK(header.Flags() == (n->folder ? kFolderFlag : (n->sizeMark ? kSizePrefixFlag : 0)));
  CHECK(offset.headerOffset > 0);
}

void OpsFuzzer::OpChildWalk() {
  const int fi = PickHandle(Usable);
  if (fi < 0) return;
  Handle& f = handles_[fi];
  Trace("child-walk h%d", fi);
  long long cursor = 0;
  kyStream* c = f.s->OpenStreamFirst(&cursor, kModeReadShared);
  if (!f.node->folder) {
    CHECK(c == nullptr);  // a data stream holds no table of children
    return;
  }
  Touch(f.store);
  for (const ModelSlot& slot : f.node->slots) {
    if (slot.name.empty()) continue;
    CHECK(c != nullptr);
    CheckOpened(c, slot.node.get());
    c->Release();
    c = f.s->OpenStreamNext(&cursor, kModeReadShared);
  }
  CHECK(c == nullptr);
}

void OpsFuzzer::OpEnumStreams() {
  const int fi = PickHandle(Usable);
  if (fi < 0) return;
  Handle& f = handles_[fi];
  CStringArray names;
  const int already = static_cast<int>(in_.Below(3));
  for (int i = 0; i < already; ++i) names.Add("old");
  Trace("enum-streams h%d", fi);
  f.s->EnumStreams(names);
  std::vector<std::string> expect(static_cast<size_t>(already), "old");
  if (f.node->folder) {
    Touch(f.store);
    for (const std::string& n : UsedNames(f.node)) expect.push_back(n);
  }
  CHECK(names.GetSize() == static_cast<int>(expect.size()));
  for (size_t i = 0; i < expect.size(); ++i)
    CHECK(expect[i] == names[static_cast<int>(i)].GetString());
}

std::vector<std::string> OpsFuzzer::MappedNames(int si) const {
  std::vector<std::string> names;
  for (const ModelSlot& slot : stores_[si].root.slots)
    if (!slot.name.empty() && RootMapped(si, slot.name)) names.push_back(slot.name);
  return names;
}

const ModelNode* OpsFuzzer::RootNode(int si, const std::string& name) const {
  const int at = FindSlot(&stores_[si].root, name);
  CHECK(at >= 0);
  return stores_[si].root.slots[static_cast<size_t>(at)].node.get();
}

void OpsFuzzer::OpRootMapWalk() {
  const int si = PickStore();
  Store& s = stores_[si];
  const int sorted = in_.Bit() ? 1 : 0;
  const int order = in_.Bit() ? 1 : 0;
  s.st->EnableSorting(sorted, order);
  Trace("root-map-walk store %d%s", si, sorted ? (order ? " descending" : " ascending") : "");
  std::vector<std::string> expect = MappedNames(si);
  SortNames(expect, sorted != 0, order);
  std::vector<std::string> got;
  void* cursor = nullptr;
  kyStream* stm = s.st->OpenStreamFirst(cursor, kModeReadShared);
  while (stm != nullptr) {
    got.push_back(stm->GetName());
    CHECK(got.size() <= expect.size());
    CheckOpened(stm, RootNode(si, got.back()));
    stm->Release();
    stm = s.st->OpenStreamNext(cursor, kModeReadShared);
  }
  if (!sorted) std::sort(got.begin(), got.end());
  CHECK(got == expect);
  if (!expect.empty()) Touch(si);
}

void OpsFuzzer::OpRootDirWalk() {
  const int si = PickStore();
  Trace("root-dir-walk store %d", si);
  CheckDirectoryOrder(si);
  Touch(si);
}

// One object moved along the directory from the first ordinary slot.
void OpsFuzzer::OpGoNextWalk() {
  const int si = PickStore();
  Store& s = stores_[si];
  Trace("go-next-walk store %d", si);
  kyStream* stm = s.st->OpenStreamFirst(kModeReadShared);
  Touch(si);
  const ModelSlot& first = s.root.slots[kFastSlots];
  if (first.name.empty()) {
    // A free first slot gives an object without a name, or none.
    if (stm != nullptr) CHECK(stm->GetName()[0] == '\0');
  } else {
    CheckOpened(stm, first.node.get());
  }
  if (stm == nullptr) return;
  for (size_t i = kFastSlots + 1;; ++i) {
    const bool more = i < s.root.slots.size() && !s.root.slots[i].name.empty();
    CHECK(stm->GoNext() == more);
    if (!more) break;
    CheckOpened(stm, s.root.slots[i].node.get());
  }
  stm->Release();
}

void OpsFuzzer::OpSortedNoOpens() {
  const int si = PickStore();
  Store& s = stores_[si];
  CIterateSortedStreams it;
  it.iOrder = in_.Bit() ? 1 : 0;
  const bool open = in_.Bit();
  Trace("sorted-no-opens store %d%s", si, open ? " opening by offset" : "");
  std::vector<std::string> expect = MappedNames(si);
  SortNames(expect, true, it.iOrder);
  std::vector<std::string> got;
  while (s.st->IterateSortedStreamsNoOPENS(&it)) {
    got.push_back(it.strName.GetString());
    CHECK(got.size() <= expect.size());
    if (!open) continue;
    kyStream* stm = s.st->OpenStreamByOffset(it.offset, it.strName, kModeReadShared);
    CheckOpened(stm, RootNode(si, got.back()));
    stm->Release();
    Touch(si);
  }
  CHECK(got == expect);
}

void OpsFuzzer::OpFindRoot() {
  const int si = PickStore();
  Store& s = stores_[si];
  const uint32_t which = in_.Below(3);
  const std::string nm = in_.Bit() ? std::string() : PickName();
  Trace("find-root store %d kind %u '%s'", si, which, Printable(nm).c_str());
  const bool wantFolder = which != 0;
  bool ok = false;
  for (const std::string& name : MappedNames(si))
    if ((nm.empty() || name == nm) && RootNode(si, name)->folder == wantFolder) ok = true;
  kyStream* stm = which == 0   ? s.st->FindRootStream(nm.c_str())
                  : which == 1 ? s.st->FindRootStorage(nm.c_str())
                               : s.st->FindRootStorageWrite(nm.c_str());
  Touch(si);
  CHECK((stm != nullptr) == ok);
  if (stm == nullptr) return;
  CHECK(nm.empty() || nm == stm->GetName());
  CheckOpened(stm, RootNode(si, stm->GetName()));
  stm->Release();
}

void OpsFuzzer::OpSubfolderCount() {
  const int si = PickStore();
  const std::string nm = PickName();
  const bool known = RootMapped(si, nm);
  if (known && !RootNode(si, nm)->folder) return;  // a data stream's bytes are no count
  Trace("subfolder-count store %d '%s'", si, Printable(nm).c_str());
  const DWORD expected = known ? static_cast<DWORD>(RootNode(si, nm)->slots.size()) : 0;
  CHECK(stores_[si].st->GetSubfolderCount(nm.c_str()) == expected);
  Touch(si);
}

// --- operations: lifetime -----------------------------------------------------------

void OpsFuzzer::OpRelease() {
  const int hi = PickHandle([this](const Handle& h) { return !HasChildren(&h - handles_); });
  if (hi < 0) return;
  Trace("release h%d", hi);
  ReleaseHandle(hi);
}

void OpsFuzzer::OpReopen() {
  const int si = PickStore();
  Store& s = stores_[si];
  const uint32_t how = in_.Below(7);
  const DWORD blockSize = kBlockSizes[in_.Below(4)];
  Trace("reopen store %d how %u blocks of %u", si, how, blockSize);
  ReleaseStore(si);
  s.batching = false;
  s.reg.clear();
  s.mapped.clear();
  s.fast = false;
  s.access = Access::kWritable;
  const char* path = s.path.c_str();
  switch (how) {
    case 0:
      s.st = kyStorage::Open(path, kModeReadWriteShared, blockSize, in_.Bit());
      break;
    case 1:
      s.st = kyStorage::Open(path, kModeReadShared, blockSize, 0);
      s.access = Access::kReadOnlyFile;
      break;
    case 2:
      if (!kInMemoryWalkAtImageEnd) {
        FILE* f = fopen(path, "ab");
        CHECK(f != nullptr && fputc(0, f) == 0 && fclose(f) == 0);
      }
      s.st = kyStorage::Open(path, kModeReadShared, blockSize, 1);
      s.access = Access::kInMemory;
      break;
    case 3:
      s.st = kyStorage::OpenFast(path, kModeReadWriteShared, blockSize);
      s.fast = true;
      break;
    case 4:
      s.st = kyStorage::OpenFast(path, kModeReadShared, blockSize);
      s.fast = true;
      s.access = Access::kReadOnlyFile;
      break;
    case 5:
      CreateStore(si, in_.Bit(), blockSize);
      break;
    default:
      s.st = kyStorage::OpenOrCreate(path, kModeReadWriteShared, blockSize);
      break;
  }
  CHECK(s.st != nullptr);
  VerifyTree(si);
}

// Gathering writes changes no result and, once written, no byte: every
// other operation runs as before, with small limits so that gathered
// bytes also reach the file in the middle of a batch.
void OpsFuzzer::OpBatch() {
  const int si = PickStore();
  Store& s = stores_[si];
  const DWORD limit = 1u << (6 + in_.Below(14));
  if (in_.Bit()) {
    Trace("store %d: gather writes, %u bytes at a time", si, limit);
    const BOOL began = s.st->BeginWriteBatch(limit);
    CHECK(began == (s.access == Access::kWritable ? TRUE : FALSE));
    s.batching = s.batching || began;
  } else {
    Trace("store %d: write what is gathered", si);
    CHECK(s.st->EndWriteBatch());
    s.batching = false;
  }
}

void OpsFuzzer::OpCheck() {
  const int hi = PickHandle([](const Handle& h) { return !h.stale; });
  const uint32_t what = in_.Below(3);
  if (what == 0 && hi >= 0) {
    if (handles_[hi].node->folder)
      VerifySubtree(hi);
    else
      VerifyHandle(hi);
    return;
  }
  const int si = PickStore();
  VerifyTree(si);
}

// --- operations: entries ------------------------------------------------------------

namespace {

bool IsBuffer(EntryKind k) {
  return k == kEntAppend || k == kEntNoPrefix || k == kEntEraseOld;
}

long long FixedWidth(EntryKind k) {
  switch (k) {
    case kEntInt:
    case kEntDword:
      return 4;
    case kEntSize:
    case kEntDouble:
    case kEntInt64:
    case kEntUInt64:
      return 8;
    case kEntRect:
      return 16;
    default:
      return 0;
  }
}

// The string form: a WORD length (0xFFFF announcing a DWORD length after
// it), then the characters.
std::string EncodeString(const std::string& chars) {
  const DWORD n = static_cast<DWORD>(chars.size());
  const WORD word = n < 0xFFFF ? static_cast<WORD>(n) : 0xFFFF;
  std::string out(reinterpret_cast<const char*>(&word), 2);
  if (word == 0xFFFF) out.append(reinterpret_cast<const char*>(&n), 4);
  return out + chars;
}

// What a setter leaves in its entry stream `n`, opened afresh (cursor at 0),
// in a storage of offset width `b64`.  Appends keep the offset prefix at the
// start pointing at the newest value; an entry shorter than a prefix gets
// the prefix first and the value behind it.
void ModelEntryWrite(ModelNode* n, const EntryOp& e, bool b64, long long limit) {
  const long long len = n->Length();
  switch (e.kind) {
    case kEntString:
      ModelWrite(n, 0, EncodeString(e.bytes), false, limit);
      return;
    case kEntAppend: {
      const long long width = b64 ? 8 : 4;
      const long long prefix = len == 0 ? width : len;
      const std::string p(reinterpret_cast<const char*>(&prefix), static_cast<size_t>(width));
      if (len < width) {
        ModelWrite(n, 0, p, false, limit);
        ModelWrite(n, n->Length(), e.bytes, false, limit);
      } else {
        ModelWrite(n, len, e.bytes, false, limit);
        ModelWrite(n, 0, p, false, limit);
      }
      return;
    }
    case kEntNoPrefix:
      ModelWrite(n, len, e.bytes, false, limit);
      return;
    case kEntEraseOld:
      if (e.prepend) {
        const DWORD size = static_cast<DWORD>(e.bytes.size());
        n->sizeMark = true;
        const long long at =
            ModelWrite(n, 0, std::string(reinterpret_cast<const char*>(&size), 4), true, limit);
        ModelWrite(n, at, e.bytes, true, limit);
      } else {
        ModelWrite(n, 0, e.bytes, true, limit);
      }
      return;
    default:
      ModelWrite(n, 0, e.bytes, false, limit);
      return;
  }
}

template <typename T>
T FromBytes(const std::string& b) {
  T v;
  memcpy(&v, b.data(), sizeof(v));
  return v;
}

// A value setter of a folder object, or of a storage in either form.
template <typename T>
int SetValue(kyStream* t, const char* key, T v, bool) {
  return t->SetEntry(key, v);
}
template <typename T>
int SetValue(kyStorage* t, const char* key, T v, bool fast) {
  return fast ? t->SetEntryFast(key, v) : t->SetEntry(key, v);
}

// Calls the setter of `e` on a folder object or on a storage (`fast`: the
// fast-slot form, which has no buffer, SIZE or RECT setters).
template <typename Target>
int CallSetter(Target* t, const char* key, const EntryOp& e, bool fast) {
  const std::string& b = e.bytes;
  switch (e.kind) {
    case kEntInt:
      return SetValue(t, key, FromBytes<int>(b), fast);
    case kEntDword:
      return SetValue(t, key, FromBytes<DWORD>(b), fast);
    case kEntDouble:
      return SetValue(t, key, FromBytes<double>(b), fast);
    case kEntInt64:
      return SetValue(t, key, FromBytes<__int64>(b), fast);
    case kEntUInt64:
      return SetValue(t, key, FromBytes<unsigned __int64>(b), fast);
    case kEntString:
      return SetValue(t, key, b.c_str(), fast);
    case kEntAppend:
      return t->SetEntry(key, b.data(), static_cast<DWORD>(b.size()));
    case kEntNoPrefix:
      return t->SetEntryNoPrefix(key, b.data(), static_cast<DWORD>(b.size()));
    case kEntEraseOld:
      return t->SetEntryEraseOld(key, b.data(), static_cast<DWORD>(b.size()), e.prepend ? 1 : 0);
    default:
      return -1;
  }
}

int CallFolderSetter(kyStream* f, const char* key, const EntryOp& e) {
  if (e.kind == kEntSize) {
    SIZE v;
    memcpy(&v, e.bytes.data(), sizeof(v));
    return f->SetEntry(key, e.nullValue ? nullptr : &v);
  }
  if (e.kind == kEntRect) {
    RECT v;
    memcpy(&v, e.bytes.data(), sizeof(v));
    return f->SetEntry(key, e.nullValue ? nullptr : &v);
  }
  return CallSetter(f, key, e, false);
}

}  // namespace

EntryOp OpsFuzzer::PickEntryOp(bool atRoot) {
  EntryOp e;
  e.kind = static_cast<EntryKind>(in_.Below(atRoot ? kEntSize : kEntKinds));
  if (FixedWidth(e.kind) > 0) {
    e.bytes = in_.Content(static_cast<size_t>(FixedWidth(e.kind)));
    const bool null = in_.Byte() == 0xFF;
    e.nullValue = null && (e.kind == kEntSize || e.kind == kEntRect);  // only those take pointers
  } else if (e.kind == kEntString) {
    // Now and then one long enough for the DWORD length.
    const long long n = in_.Byte() == 0xFF ? 0xFFFF + in_.Below(3) : PickWriteSize();
    e.bytes = in_.Content(static_cast<size_t>(n));
    for (char& c : e.bytes)
      if (c == '\0') c = 's';
  } else {
    e.bytes = in_.Content(static_cast<size_t>(PickWriteSize()));
    e.prepend = in_.Bit();
  }
  return e;
}

// The entry stream a getter of folder handle `fi` (or, with fi -1, of
// storage `si`) opens for `name`: null when it finds nothing.
ModelNode* OpsFuzzer::EntryTarget(int si, int fi, bool fast, const std::string& name, bool lookUp) {
  if (fi >= 0) {
    const Handle& f = handles_[fi];
    if (!f.node->folder || !Visible(fi, name, lookUp)) return nullptr;
    return f.node->slots[static_cast<size_t>(FindSlot(f.node, name))].node.get();
  }
  ModelNode& root = stores_[si].root;
  const int at = FindSlot(&root, name);
  if (at < 0 || (fast ? at >= kFastSlots : !RootMapped(si, name))) return nullptr;
  return root.slots[static_cast<size_t>(at)].node.get();
}

// A setter on folder handle `fi`.  Returns whether it wrote into an entry
// stream (so that a recording holds the write); the model follows.
bool OpsFuzzer::SetFolderEntry(int fi, const char* key, const std::string& name, const EntryOp& e) {
  Handle& f = handles_[fi];
  const int si = f.store;
  const bool valid = f.node->folder && ValidName(key);
  if (AvoidStaleCreation(f)) return false;
  // A name the lookup would not see makes a second child of that name.
  if (valid && FindSlot(f.node, name) >= 0 && !Visible(fi, name, false)) return false;
  const bool nothing = IsBuffer(e.kind) ? e.bytes.empty() : e.nullValue;
  ModelNode* n = nullptr;
  if (valid && !nothing) {
    if (Visible(fi, name, true)) {
      n = f.node->slots[static_cast<size_t>(FindSlot(f.node, name))].node.get();
      if (n->folder) n = nullptr;  // refused, nothing changes
    } else {
      n = ModelCreateChild(si, f.node, name, false, 0, true, fi);
    }
  }
  Trace("set-entry h%d '%s' kind %d, %zu bytes%s", fi, Printable(name).c_str(), e.kind,
        e.bytes.size(), n != nullptr ? "" : " (refused)");
  const int r = CallFolderSetter(f.s, key, e);
  Touch(si);
  const bool emptyBuffer = IsBuffer(e.kind) && e.bytes.empty();
  CHECK(r == ((n != nullptr || emptyBuffer) ? 1 : 0));
  if (n == nullptr) return false;
  ModelEntryWrite(n, e, stores_[si].b64, limit_);
  MarkStale(si, n, -1);
  return true;
}

// A setter on the root of storage `si`; as SetFolderEntry.
bool OpsFuzzer::SetRootEntry(int si, bool fast, const std::string& name, const EntryOp& e) {
  Store& s = stores_[si];
  Trace("set-entry store %d '%s' kind %d, %zu bytes%s", si, Printable(name).c_str(), e.kind,
        e.bytes.size(), fast ? " fast" : "");
  if (IsBuffer(e.kind) && e.bytes.empty()) {
    CHECK(CallSetter(s.st, name.c_str(), e, fast) == 1);  // opens nothing
    return false;
  }
  const int at = FindSlot(&s.root, name);
  ModelNode* n = nullptr;
  if (fast) {
    if (at >= kFastSlots && !RootMapped(si, name)) return false;  // a fast map would make two
    if (at >= 0 && at < kFastSlots) {
      n = s.root.slots[static_cast<size_t>(at)].node.get();
    } else if (at < 0) {
      const int index = FirstFreeSlot(&s.root, 0, kFastSlots);
      if (index >= 0) n = OccupySlot(&s.root, static_cast<size_t>(index), name, false, 0);
      if (n != nullptr && s.fast) s.mapped.insert(name);
    }
  } else if (RootMapped(si, name)) {
    n = s.root.slots[static_cast<size_t>(at)].node.get();
  } else if (at < 0) {
    n = OccupySlot(&s.root, static_cast<size_t>(OrdinarySlotFor(si)), name, false, 0);
    if (s.fast) s.mapped.insert(name);
  }
  if (n != nullptr && n->folder) n = nullptr;  // refused, nothing changes
  const int r = CallSetter(s.st, name.c_str(), e, fast);
  Touch(si);
  CHECK(r == (n != nullptr ? 1 : 0));
  if (n == nullptr) return false;
  ModelEntryWrite(n, e, s.b64, limit_);
  MarkStale(si, n, -1);
  return true;
}

// Opens the entry `name` and reads it whole against the model.
void OpsFuzzer::CheckEntryBytes(int si, int fi, bool fast, const std::string& name) {
  const ModelNode* n = EntryTarget(si, fi, fast, name, true);
  if (n == nullptr || n->folder) return;
  kyStream* s = fi >= 0 ? handles_[fi].s->OpenStream(name.c_str(), kModeReadShared)
                : fast  ? stores_[si].st->OpenStreamFast(name.c_str(), kModeReadShared)
                        : stores_[si].st->OpenStream(name.c_str(), kModeReadShared);
  CheckOpened(s, n);
  CheckData(s, n);
  s->Release();
  Touch(si);
}

namespace {

// The value a fixed-width getter gives for entry `n`: its first `width`
// bytes, or `def` when there are fewer.  False when that cannot be told:
// a short entry whose chain may hold old bytes past its length.
bool ExpectFixed(const ModelNode* n, long long width, const std::string& def, std::string* out) {
  *out = def;
  if (n == nullptr || n->folder || !n->hasBlocks) return true;
  if (n->Length() >= width) {
    *out = n->data.substr(0, static_cast<size_t>(width));
    return true;
  }
  return n->noTail;
}

// The characters the string getter gives, when the entry holds them whole.
bool ExpectString(const ModelNode* n, const char* def, std::string* out) {
  *out = def != nullptr ? def : "";
  if (n == nullptr || n->folder) return true;
  out->clear();
  if (!n->hasBlocks) return true;
  const std::string& d = n->data;
  if (d.size() < 2) return n->noTail;
  DWORD count = FromBytes<WORD>(d);
  size_t at = 2;
  if (count == 0xFFFF) {
    if (d.size() < 6) return n->noTail;
    count = FromBytes<DWORD>(d.substr(2));
    at = 6;
  }
  if (d.size() - at < count) return false;  // padded as far as the file could hold
  *out = d.substr(at, count);
  return true;
}

// The value of an erase-old entry after its size prefix check, or false
// (`known` false when the check cannot be told).
bool ExpectErased(const ModelNode* n, std::string* value, bool* known) {
  *known = true;
  value->clear();
  if (n == nullptr) return false;
  const long long len = n->Length();
  if (len <= 0 || !n->sizeMark) {
    *value = n->data;
    return true;
  }
  if (len <= 4) return false;
  if (FromBytes<DWORD>(n->data) != static_cast<DWORD>(len - 4)) return false;
  *value = n->data.substr(4);
  return true;
}

}  // namespace

// One getter of the entry `name` on folder handle `fi` or on storage `si`,
// compared with the model.
void OpsFuzzer::GetEntryChecked(int si, int fi, bool fast, const char* key,
                                const std::string& name) {
  kyStream* f = fi >= 0 ? handles_[fi].s : nullptr;
  kyStorage* st = stores_[si].st;
  const ModelNode* n = ValidName(key) ? EntryTarget(si, fi, fast, name, true) : nullptr;
  const bool folderKey = n != nullptr && n->folder;
  const uint32_t what = in_.Below(fi >= 0 ? 10 : (fast ? 6 : 8));
  const std::string def = in_.Content(16);
  std::string expect;
  bool known = true;
  Trace("get-entry %s%d '%s' form %u%s", fi >= 0 ? "h" : "store ", fi >= 0 ? fi : si,
        Printable(name).c_str(), what, fast ? " fast" : "");
#define GET_FIXED(T)                                                      \
  {                                                                       \
    const T d = FromBytes<T>(def);                                        \
    const T v = f != nullptr ? f->GetEntry(key, d)                        \
                : fast       ? st->GetEntryFast(key, d)                   \
                             : st->GetEntry(key, d);                            \
    known = ExpectFixed(n, sizeof(T), def.substr(0, sizeof(T)), &expect); \
    if (known) CHECK(memcmp(&v, expect.data(), sizeof(T)) == 0);          \
    break;                                                                \
  }
  switch (what) {
    case 0:
      GET_FIXED(int)
    case 1:
      GET_FIXED(DWORD)
    case 2:
      GET_FIXED(double)
    case 3:
      GET_FIXED(__int64)
    case 4:
      GET_FIXED(unsigned __int64)
    case 5: {
      const bool nullDef = in_.Bit();
      const char* d = nullDef && f != nullptr ? nullptr : def.c_str();
      const CString v = f != nullptr ? f->GetEntry(key, d)
                        : fast       ? st->GetEntryFast(key, d)
                                     : st->GetEntry(key, d);
      known = ExpectString(n, d, &expect);
      if (known)
        CHECK(static_cast<size_t>(v.GetLength()) == expect.size() &&
              memcmp(v.GetString(), expect.data(), expect.size()) == 0);
      break;
    }
    case 6: {
      void* data = reinterpret_cast<void*>(1);
      unsigned int size = 77;
      const int r = f != nullptr ? f->GetEntryErasedOld(key, &data, &size)
                                 : st->GetEntryErasedOld(key, &data, &size);
      if (!folderKey) {
        const bool ok = ExpectErased(n, &expect, &known);
        if (known) {
          CHECK((r != 0) == ok);
          CHECK(size == expect.size() && (data == nullptr) == expect.empty());
          if (!expect.empty()) CHECK(memcmp(data, expect.data(), expect.size()) == 0);
        }
      }
      if (r && data != nullptr && data != reinterpret_cast<void*>(1)) GlobalFree(data);
      break;
    }
    case 7: {
      bool ok = false;
      if (!folderKey) ok = ExpectErased(n, &expect, &known);
      const unsigned int size = static_cast<unsigned int>(in_.UpTo(ok ? expect.size() + 2 : 4));
      buf_.assign(size + 1, '\0');
      const int r = f != nullptr ? f->GetEntryErasedOld(key, buf_.data(), size)
                                 : st->GetEntryErasedOld(key, buf_.data(), size);
      if (!folderKey && known) {
        CHECK((r != 0) == (ok && size <= expect.size()));
        if (r) CHECK(memcmp(buf_.data(), expect.data(), size) == 0);
      }
      break;
    }
    default: {
      // SIZE or RECT: a short read gives the default, or without one
      // leaves what the read brought over what *out held.
      const long long width = what == 8 ? 8 : 16;
      const bool nullDef = in_.Bit();
      const std::string before = in_.Content(16);
      char out[16];
      memcpy(out, before.data(), 16);
      const void* d = nullDef ? nullptr : def.data();
      if (what == 8)
        f->GetEntry(key, reinterpret_cast<SIZE*>(out), static_cast<const SIZE*>(d));
      else
        f->GetEntry(key, reinterpret_cast<RECT*>(out), static_cast<const RECT*>(d));
      known = ExpectFixed(n, width, nullDef ? std::string() : def.substr(0, width), &expect);
      if (known && expect.empty()) {
        // No default: what a short read of an entry brought, then the rest.
        const size_t got = n != nullptr && !n->folder && n->hasBlocks
                               ? std::min<size_t>(n->data.size(), static_cast<size_t>(width))
                               : 0;
        expect = (got > 0 ? n->data.substr(0, got) : std::string()) +
                 before.substr(got, static_cast<size_t>(width) - got);
      }
      if (known) CHECK(memcmp(out, expect.data(), static_cast<size_t>(width)) == 0);
      break;
    }
  }
#undef GET_FIXED
  Touch(si);
}

// A typed setter or getter on a folder object or at the root of a storage.
void OpsFuzzer::OpEntries() {
  const bool atRoot = in_.Bit();
  const bool set = in_.Below(3) != 0;
  if (atRoot) {
    const int si = PickStore();
    const bool fast = in_.Below(3) == 0;
    if (set) {
      if (!Writable(si)) return;
      const std::string name = PickName();
      const EntryOp e = PickEntryOp(true);
      if (fast && IsBuffer(e.kind)) return;  // no fast form
      if (SetRootEntry(si, fast, name, e) && in_.Bit()) CheckEntryBytes(si, -1, fast, name);
    } else {
      const char* key = nullptr;
      const std::string name = PickNameMaybeBad(&key);
      GetEntryChecked(si, -1, fast, key, name);
    }
    return;
  }
  const int fi = PickHandle(Usable);
  if (fi < 0) return;
  const int si = handles_[fi].store;
  const char* key = nullptr;
  const std::string name = PickNameMaybeBad(&key);
  if (set) {
    if (!Writable(si)) return;
    const EntryOp e = PickEntryOp(false);
    if (SetFolderEntry(fi, key, name, e) && in_.Bit()) CheckEntryBytes(si, fi, false, name);
  } else {
    GetEntryChecked(si, fi, false, key, name);
  }
}

// --- operations: recording and replay -----------------------------------------------

// The tree that replaying one of our recordings builds in a fresh storage:
// the streams its records enter and the values they write.  `ends` is set
// when the replay is expected to stop early (an enter it cannot follow in
// the fresh storage); the target then checks less.
struct OpsFuzzer::ReplayModel {
  ModelNode root;
  bool b64 = true;
  bool ends = false;
};

// The root stream an enter record opens or creates in the replayed storage.
ModelNode* OpsFuzzer::ReplayRoot(ReplayModel& t, const std::string& name, bool fast, bool folder) {
  if (t.ends) return nullptr;
  const int at = FindSlot(&t.root, name);
  int index = -1;
  if (fast) {
    if (at >= 0 && at < kFastSlots) return t.root.slots[static_cast<size_t>(at)].node.get();
    if (at < 0) index = FirstFreeSlot(&t.root, 0, kFastSlots);
  } else {
    if (at >= 0) return t.root.slots[static_cast<size_t>(at)].node.get();
    index = FirstFreeSlot(&t.root, kFastSlots, t.root.slots.size());
    if (index < 0) {
      index = static_cast<int>(t.root.slots.size());
      t.root.slots.resize(t.root.slots.size() + kSlotsPerBlock);
    }
  }
  if (index < 0) {
    t.ends = true;
    return nullptr;
  }
  return OccupySlot(&t.root, static_cast<size_t>(index), name, folder, 0);
}

// The child an enter record opens or creates below `dir`.
ModelNode* OpsFuzzer::ReplayChild(ReplayModel& t, ModelNode* dir, const std::string& name,
                                  bool folder) {
  if (t.ends || dir == nullptr || !dir->folder) {
    t.ends = true;
    return nullptr;
  }
  const int at = FindSlot(dir, name);
  if (at >= 0) return dir->slots[static_cast<size_t>(at)].node.get();
  const long long w = t.b64 ? 92 : 80;
  if (dir->folderLength + w > limit_) {
    t.ends = true;
    return nullptr;
  }
  dir->folderLength += w;
  dir->slots.emplace_back();
  return OccupySlot(dir, dir->slots.size() - 1, name, folder, 0);
}

void OpsFuzzer::ReplayEntryWrite(ReplayModel& t, ModelNode* n, const EntryOp& e) {
  if (t.ends || n == nullptr || n->folder) {
    t.ends = true;  // a write into a folder is not something we predict
    return;
  }
  ModelEntryWrite(n, e, t.b64, limit_);
}

// Reads the replayed storage against the model: every root stream with all
// it holds, and no other root stream.
void OpsFuzzer::VerifyReplayed(int si, kyStorage* ts, const ReplayModel& t) {
  int used = 0;
  for (const ModelSlot& slot : t.root.slots) {
    if (slot.name.empty()) continue;
    ++used;
    kyStream* stm = ts->OpenStream(slot.name.c_str(), kModeReadShared);
    VerifyNode(si, stm, slot.node.get(), 0);
    stm->Release();
  }
  int cursor = -1;
  int count = 0;
  kyStream* stm = ts->OpenStreamFirst2(cursor, kModeReadShared);
  for (int i = 0; cursor == i; ++i) {
    CHECK(stm != nullptr);
    ++count;
    stm->Release();
    stm = ts->OpenStreamNext2(cursor, kModeReadShared);
  }
  CHECK(stm == nullptr && count == used);
}

// Records a few entry setters on storage `si` (at its root, then in a root
// folder, then in a folder inside it, in that order so that the recorder's
// stack can follow every write), stops, and replays the recording into a
// fresh storage whose tree must be what the records imply.
void OpsFuzzer::OpReplay() {
  const int si = PickStore();
  if (!Writable(si)) return;
  Store& s = stores_[si];
  ReplayModel t;
  t.b64 = in_.Bit();
  t.root.folder = true;
  t.root.slots.resize(kSlotsPerBlock);
  const DWORD blockSize = kBlockSizes[in_.Below(4)];
  Trace("replay: record on store %d, replay into a fresh %s storage", si,
        t.b64 ? "64-bit" : "32-bit");
  CHECK(s.st->StartRecording() == 1);
  if (in_.Bit()) CHECK(s.st->StartRecording() == 1);  // goes on with the same recorder
  bool wrote = false;

  for (uint32_t i = in_.Below(3); i > 0; --i) {
    const bool fast = in_.Bit();
    const std::string name = PickName();
    const EntryOp e = PickEntryOp(true);
    if (fast && IsBuffer(e.kind)) continue;
    if (!SetRootEntry(si, fast, name, e)) continue;
    wrote = true;
    ReplayEntryWrite(t, ReplayRoot(t, name, fast, false), e);
  }

  int hr = -1;
  int hf = -1;
  const std::string rname = PickName();
  const std::string fname = PickName();
  if (FreeHandle() >= 0) {
    const bool opened = RootMapped(si, rname);
    int index = -1;
    if (!opened && FindSlot(&s.root, rname) < 0) index = OrdinarySlotFor(si);
    kyStream* r = s.st->OpenOrCreateStream(rname.c_str(), 1);
    Touch(si);
    CHECK((r != nullptr) == (opened || index >= 0));
    if (r != nullptr) {
      ModelNode* n;
      if (opened) {
        n = s.root.slots[static_cast<size_t>(FindSlot(&s.root, rname))].node.get();
      } else {
        n = OccupySlot(&s.root, static_cast<size_t>(index), rname, true, 0);
        if (s.fast) s.mapped.insert(rname);
      }
      CheckOpened(r, n);
      hr = AddHandle(r, si, n, -1, kModeReadWriteShared, opened);
    }
  }
  if (hr >= 0 && handles_[hr].node->folder && FreeHandle() >= 0 && in_.Bit()) {
    ModelNode* dir = handles_[hr].node;
    ModelNode* n = nullptr;
    if (FindSlot(dir, fname) >= 0)
      n = dir->slots[static_cast<size_t>(FindSlot(dir, fname))].node.get();
    else
      n = ModelCreateChild(si, dir, fname, true, 0, true, hr);
    kyStream* c = handles_[hr].s->OpenOrCreateStream(fname.c_str(), 1);
    Touch(si);
    CHECK((c != nullptr) == (n != nullptr));
    if (c != nullptr) {
      CheckOpened(c, n);
      hf = AddHandle(c, si, n, hr, kModeReadWriteShared, true);
    }
  }
  for (int level = 0; level < 2; ++level) {
    const int h = level == 0 ? hr : hf;
    if (h < 0) continue;
    for (uint32_t i = in_.Below(4); i > 0; --i) {
      const std::string key = PickName();
      const EntryOp e = PickEntryOp(false);
      if (!SetFolderEntry(h, key.c_str(), key, e)) continue;
      wrote = true;
      ModelNode* dir = ReplayRoot(t, rname, false, true);
      if (level == 1) dir = ReplayChild(t, dir, fname, true);
      ReplayEntryWrite(t, ReplayChild(t, dir, key, false), e);
    }
  }
  if (hf >= 0) ReleaseHandle(hf);
  if (hr >= 0) ReleaseHandle(hr);

  CCompRecorder* rec = s.st->StopRecording();
  CHECK(rec != nullptr && s.st->StopRecording() == nullptr);
  CHECK(!rec->HasBeenStopped() && rec->GetStmDepth() == 0);
  unsigned int len = 0;
  unsigned char* buf = rec->Detach(&len);
  delete rec;
  CHECK(!wrote || (buf != nullptr && len > 0));
  const int total = static_cast<int>(CountWholeRecords(buf, len, nullptr));

  const std::string path = s.path + ".replay";
  kyStorage::g_bUse64BitOffsets = t.b64 ? 1 : 0;
  kyStorage* ts = kyStorage::Create(path.c_str(), kModeReadWriteShared, blockSize);
  kyStorage::g_bUse64BitOffsets = 1;
  CHECK(ts != nullptr);
  const int applied = ts->ReplayRecording(buf, len);
  Trace("  replayed %d of %d records%s", applied, total, t.ends ? " (ends early)" : "");
  CHECK(t.ends ? applied <= total : applied == total);
  CHECK(kyTestAccess::Registry(ts).IsEmpty());
  if (!t.ends) VerifyReplayed(si, ts, t);
  ts->Release();
  unlink(path.c_str());
  CCompRecorder::Free(buf);
}

// --- the run ------------------------------------------------------------------------

void OpsFuzzer::Run() {
  const uint8_t setup = in_.Byte();
  limit_ = kLimits[(setup >> 3) % 3];
  kyStorage::g_iMaxCompStmSize = limit_;
  for (int i = 0; i < kStores; ++i) {
    char path[96];
    snprintf(path, sizeof(path), "/tmp/kystore-fuzz-ops-%d-%d.kys", static_cast<int>(getpid()), i);
    stores_[i].path = path;
    stores_[i].access = Access::kClosed;
  }
  CreateStore(0, (setup & 1) != 0, kBlockSizes[(setup >> 1) & 3]);
  for (int step = 0; step < kMaxSteps && !in_.Done(); ++step) {
    const OpEntry& op = kOps[in_.Below(kOpRows)];
    if (op.enabled) (this->*op.run)();
  }
  for (int i = 0; i < kStores; ++i) {
    if (stores_[i].access == Access::kClosed) continue;
    ReleaseStore(i);
    stores_[i].st = kyStorage::Open(stores_[i].path.c_str(), kModeReadShared, 4096, 0);
    CHECK(stores_[i].st != nullptr);
    stores_[i].access = Access::kReadOnlyFile;
    stores_[i].fast = false;
    stores_[i].reg.clear();
    VerifyTree(i);
    ReleaseStore(i);
    unlink(stores_[i].path.c_str());
  }
  kyStorage::g_iMaxCompStmSize = kLimits[0];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool trace = getenv("KYSTORE_FUZZ_TRACE") != nullptr;
  g_trace = trace;
  OpsFuzzer fuzzer(data, size);
  fuzzer.Run();
  return 0;
}
