// The plain in-memory model that fuzz_ops runs next to a real storage.
//
// A folder (the root directory included) is a vector of slots in slot order;
// a slot is used (a name and the stream in it) or free (left by a removal,
// possibly with the removed stream's block chain still on it).  A data
// stream keeps its bytes, and a few facts about its block chain that decide
// what the library can be expected to do beyond the stream's length:
//
//   hasBlocks  the stream owns a chain (seeks fail and reads give 0 without)
//   endKnown   a seek from the end lands exactly at the length
//   noTail     no bytes of the chain lie beyond the length
//
// The last two start true for a new chain and become false (for good, until
// a write that ends the stream restores endKnown) whenever the length is
// lowered or an old chain is taken over; the target then checks less.
#ifndef KYSTORE_FUZZ_OPS_MODEL_H_
#define KYSTORE_FUZZ_OPS_MODEL_H_

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

struct ModelNode;

struct ModelSlot {
  std::string name;  // empty: the slot is free
  bool chain = false;
  std::unique_ptr<ModelNode> node;
};

struct ModelNode {
  std::string name;
  bool folder = false;
  uint16_t duration = 0;
  bool sizeMark = false;
  std::string data;
  bool hasBlocks = false;
  bool endKnown = true;
  bool noTail = true;
  long long folderLength = 4;  // a folder's data: the count and its slots
  std::vector<ModelSlot> slots;
  ModelNode* parent = nullptr;

  long long Length() const { return folder ? folderLength : static_cast<long long>(data.size()); }
};

inline int FindSlot(const ModelNode* folder, const std::string& name) {
  for (size_t i = 0; i < folder->slots.size(); ++i)
    if (!folder->slots[i].name.empty() && folder->slots[i].name == name) return static_cast<int>(i);
  return -1;
}

// First free slot in [from, to), or -1.
inline int FirstFreeSlot(const ModelNode* folder, size_t from, size_t to) {
  for (size_t i = from; i < to && i < folder->slots.size(); ++i)
    if (folder->slots[i].name.empty()) return static_cast<int>(i);
  return -1;
}

inline bool IsWithin(const ModelNode* node, const ModelNode* ancestor) {
  for (const ModelNode* p = node; p != nullptr; p = p->parent)
    if (p == ancestor) return true;
  return false;
}

inline std::vector<std::string> UsedNames(const ModelNode* folder) {
  std::vector<std::string> names;
  for (const ModelSlot& s : folder->slots)
    if (!s.name.empty()) names.push_back(s.name);
  return names;
}

// Puts a new stream into slot `index`.  A data stream takes over the chain
// the slot holds; a folder starts a chain of its own with its child count.
inline ModelNode* OccupySlot(ModelNode* folder, size_t index, const std::string& name,
                             bool isFolder, uint16_t duration) {
  ModelSlot& slot = folder->slots[index];
  slot.name = name;
  slot.node.reset(new ModelNode);
  ModelNode* n = slot.node.get();
  n->name = name;
  n->folder = isFolder;
  n->duration = duration;
  n->parent = folder;
  n->hasBlocks = isFolder || slot.chain;
  n->endKnown = !n->hasBlocks || isFolder;
  n->noTail = n->endKnown;
  return n;
}

inline void FreeSlot(ModelNode* folder, size_t index) {
  ModelSlot& slot = folder->slots[index];
  slot.chain = slot.node != nullptr && slot.node->hasBlocks;
  slot.name.clear();
  slot.node.reset();
}

// A write of `bytes` at data position `pos` (never beyond the length), cut
// at the stream limit `limit`.  Returns the bytes the library reports.
inline long long ModelWrite(ModelNode* n, long long pos, const std::string& bytes, bool eraseOld,
                          long long limit) {
  n->hasBlocks = true;  // even an empty write gives the stream its first block
  const long long count = static_cast<long long>(bytes.size());
  if (count == 0 || pos >= limit) return 0;
  const long long written = count < limit - pos ? count : limit - pos;
  const long long length = n->Length();
  const long long end = pos + written;
  if (end > length) n->data.resize(static_cast<size_t>(end));
  memcpy(&n->data[static_cast<size_t>(pos)], bytes.data(), static_cast<size_t>(written));
  if (eraseOld) {
    n->data.resize(static_cast<size_t>(end));
    n->noTail = n->noTail && end >= length;
    n->endKnown = true;
  } else if (end > length) {
    n->endKnown = n->noTail;
  }
  return written;
}

inline void ModelSetLength(ModelNode* n, long long length) {
  if (length >= n->Length()) return;
  n->data.resize(static_cast<size_t>(length));
  n->endKnown = false;
  n->noTail = false;
}

#endif  // KYSTORE_FUZZ_OPS_MODEL_H_
