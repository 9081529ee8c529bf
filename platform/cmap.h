// The framework's hash map, reproduced for its walk order.
//
// Applications see the unsorted iteration order of root streams and of
// preloaded children, so the table must walk exactly as the framework's does:
// 17 buckets unless InitHashTable says otherwise; a key goes to bucket
// HashKey(key) % size; the walk visits buckets from 0 upward and, within a
// bucket, the most recently inserted key first.  Overwriting a key keeps its
// place; removing it and inserting it again puts it at the front of its
// bucket.
//
// Those 17 buckets never grow, so a map of N keys would search N/17 of them
// per lookup.  Beside the buckets each map keeps a lookup index that grows
// with it (Fibonacci hashing of the same key hash over a power-of-two
// table).  The index answers Lookup, insertion and RemoveKey; the buckets
// alone decide the walk order, which stays the framework's.
#ifndef KYSTORE_PLATFORM_CMAP_H_
#define KYSTORE_PLATFORM_CMAP_H_

#include <cstring>
#include <vector>

#include "collections.h"
#include "cstring.h"
#include "win_types.h"

// The framework's string hash: h = h * 33 + c over the bytes, where each
// byte counts as a signed char (MSVC's char is signed), in unsigned 32-bit
// arithmetic.
inline UINT HashKey(const char* key) {
  UINT h = 0;
  for (; key && *key; ++key)
    h = h * 33u + static_cast<UINT>(static_cast<int>(static_cast<signed char>(*key)));
  return h;
}
inline UINT HashKey(const CString& key) {
  return HashKey(key.GetString());
}

inline bool CompareElements(const CString* a, const char* const* b) {
  return strcmp(*a, *b) == 0;
}
inline bool CompareElements(const CString* a, const CString* b) {
  return *a == *b;
}

template <class KEY, class ARG_KEY, class VALUE, class ARG_VALUE>
class CMap : public CObject {
  struct Assoc {
    Assoc* next;       // the walk's bucket chain
    Assoc* prev;       // the same chain backwards, for removal in place
    Assoc* indexNext;  // the lookup index's chain
    UINT hash;
    KEY key;
    VALUE value;
  };

 public:
  explicit CMap(int /*blockSize*/ = 10) {}
  CMap(const CMap&) = delete;
  CMap& operator=(const CMap&) = delete;
  ~CMap() override { RemoveAll(); }

  int GetCount() const { return m_count; }
  int GetSize() const { return m_count; }
  bool IsEmpty() const { return m_count == 0; }

  // Sets the bucket count; only honoured while the map is empty.
  void InitHashTable(UINT size) {
    if (m_count == 0 && size > 0) {
      m_table.assign(size, nullptr);
      m_tableSize = size;
    }
  }

  bool Lookup(ARG_KEY key, VALUE& value) const {
    const Assoc* a = Find(key);
    if (a == nullptr) return false;
    value = a->value;
    return true;
  }
  // Address of the stored value, or null.  Valid until the key is removed.
  VALUE* PLookup(ARG_KEY key) {
    Assoc* a = Find(key);
    return a ? &a->value : nullptr;
  }

  VALUE& operator[](ARG_KEY key) {
    Assoc* a = Find(key);
    if (a) return a->value;
    if (m_table.empty()) m_table.assign(m_tableSize, nullptr);
    if (static_cast<size_t>(m_count) + 1 > m_index.size()) GrowIndex();
    const UINT h = HashKey(key);
    Assoc*& bucket = m_table[h % m_tableSize];
    a = new Assoc{bucket, nullptr, nullptr, h, KEY(key), VALUE()};
    if (bucket) bucket->prev = a;
    bucket = a;
    LinkIntoIndex(a);
    ++m_count;
    return a->value;
  }
  void SetAt(ARG_KEY key, ARG_VALUE value) { (*this)[key] = value; }

  bool RemoveKey(ARG_KEY key) {
    if (m_count == 0) return false;
    const UINT h = HashKey(key);
    for (Assoc** link = &m_index[IndexSlot(h)]; *link; link = &(*link)->indexNext) {
      Assoc* dead = *link;
      if (dead->hash != h || !CompareElements(&dead->key, &key)) continue;
      *link = dead->indexNext;
      if (dead->prev)
        dead->prev->next = dead->next;
      else
        m_table[h % m_tableSize] = dead->next;
      if (dead->next) dead->next->prev = dead->prev;
      delete dead;
      --m_count;
      return true;
    }
    return false;
  }

  void RemoveAll() {
    for (Assoc*& bucket : m_table) {
      while (bucket) {
        Assoc* next = bucket->next;
        delete bucket;
        bucket = next;
      }
    }
    m_table.clear();
    m_index.clear();
    m_indexBits = 0;
    m_count = 0;
  }

  POSITION GetStartPosition() const { return m_count == 0 ? nullptr : Pos(FirstFrom(0)); }

  // Copies the entry at `pos` out and moves `pos` to the next entry of the
  // walk (null after the last).
  void GetNextAssoc(POSITION& pos, KEY& key, VALUE& value) const {
    const Assoc* a = reinterpret_cast<const Assoc*>(pos);
    key = a->key;
    value = a->value;
    pos = Pos(Following(a));
  }
  // The same, handing out references to the stored pair instead of copies.
  void GetNextAssocRef(POSITION& pos, const KEY*& key, VALUE*& value) {
    Assoc* a = reinterpret_cast<Assoc*>(pos);
    key = &a->key;
    value = &a->value;
    pos = Pos(Following(a));
  }

 private:
  static POSITION Pos(const Assoc* a) { return reinterpret_cast<POSITION>(const_cast<Assoc*>(a)); }
  size_t IndexSlot(UINT hash) const {
    return m_indexBits == 0 ? 0 : static_cast<size_t>((hash * 0x9E3779B1u) >> (32 - m_indexBits));
  }
  void LinkIntoIndex(Assoc* a) {
    Assoc*& slot = m_index[IndexSlot(a->hash)];
    a->indexNext = slot;
    slot = a;
  }
  // Doubles the index (at least 16 slots) and rehashes every key into it.
  void GrowIndex() {
    m_indexBits = m_indexBits < 4 ? 4 : m_indexBits + 1;
    m_index.assign(size_t{1} << m_indexBits, nullptr);
    for (Assoc* bucket : m_table)
      for (Assoc* a = bucket; a; a = a->next) LinkIntoIndex(a);
  }
  Assoc* Find(ARG_KEY key) const {
    if (m_count == 0) return nullptr;
    const UINT h = HashKey(key);
    for (Assoc* a = m_index[IndexSlot(h)]; a; a = a->indexNext)
      if (a->hash == h && CompareElements(&a->key, &key)) return a;
    return nullptr;
  }
  Assoc* FirstFrom(UINT bucket) const {
    for (UINT b = bucket; b < m_table.size(); ++b)
      if (m_table[b]) return m_table[b];
    return nullptr;
  }
  Assoc* Following(const Assoc* a) const {
    return a->next ? a->next : FirstFrom(a->hash % m_tableSize + 1);
  }

  std::vector<Assoc*> m_table;  // the framework's buckets: the walk order
  UINT m_tableSize = 17;
  std::vector<Assoc*> m_index;  // the lookup index: 2^m_indexBits chains
  int m_indexBits = 0;
  int m_count = 0;
};

#endif  // KYSTORE_PLATFORM_CMAP_H_
