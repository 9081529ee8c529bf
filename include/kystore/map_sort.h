// CMapSort: a name-keyed hash map that can also hand its entries out in
// name order.
//
// The hash side behaves exactly like the framework map (same walk order).
// The sorted view holds references to the pairs stored in the map, not
// copies, and is rebuilt only when the map or the requested order changed
// since the last sort.
#ifndef KYSTORE_MAP_SORT_H_
#define KYSTORE_MAP_SORT_H_

#include <algorithm>
#include <cstdint>

#include "platform/cmap.h"
#include "platform/collections.h"

template <class KEY, class ARG_KEY, class VALUE, class ARG_VALUE>
class CMapSort : public CObject {
 public:
  // One element of the sorted view: a reference to a pair held by the map.
  struct MAP_SORT_STRUCT {
    const KEY* pKey;
    VALUE* pValue;
  };

  CMapSort() : m_map(10) {}
  CMapSort(const CMapSort&) = delete;
  CMapSort& operator=(const CMapSort&) = delete;
  ~CMapSort() override { RemoveAll(); }

  int GetCount() const { return m_map.GetCount(); }

  bool Lookup(ARG_KEY key, VALUE& value) const { return m_map.Lookup(key, value); }

  // Inserts or overwrites; the sorted view becomes stale.
  void SetAt(ARG_KEY key, ARG_VALUE value) {
    m_map[key] = value;
    m_bSorted = FALSE;
  }

  // Removes the entry.  The view is emptied at once so that no walk in
  // progress can reach the removed pair.
  bool RemoveKey(ARG_KEY key) {
    bool removed = m_map.RemoveKey(key);
    m_bSorted = FALSE;
    m_sorted.RemoveAll();
    return removed;
  }

  POSITION GetStartPosition() const { return m_map.GetStartPosition(); }
  void GetNextAssoc(POSITION& pos, KEY& key, VALUE& value) const {
    m_map.GetNextAssoc(pos, key, value);
  }

  // Brings the view up to date for `order` (0 ascending, nonzero
  // descending).  Returns 0 when the view has entries, -1 for an empty map.
  int Sort(int order) {
    if (order != m_iOrder) {
      m_iOrder = order;
      m_bSorted = FALSE;
    }
    if (!m_bSorted) m_sorted.RemoveAll();
    if (m_sorted.IsEmpty()) Fill();
    if (!m_bSorted) {
      const bool descending = m_iOrder != 0;
      std::sort(m_sorted.GetData(), m_sorted.GetData() + m_sorted.GetSize(),
                [descending](const MAP_SORT_STRUCT& a, const MAP_SORT_STRUCT& b) {
                  int c = a.pKey->Compare(*b.pKey);
                  return descending ? c > 0 : c < 0;
                });
    }
    m_bSorted = TRUE;
    return m_sorted.IsEmpty() ? -1 : 0;
  }

  // Copies the entry at `index` and advances it, to -1 after the last one.
  // An index outside the view copies nothing and leaves the index as it was.
  void GetNextSorted(int& index, KEY& key, VALUE& value) const {
    if (index < 0 || index >= m_sorted.GetSize()) return;
    key = *m_sorted[index].pKey;
    value = *m_sorted[index].pValue;
    if (++index >= m_sorted.GetSize()) index = -1;
  }

  bool GetSortedAt(int index, KEY& key, VALUE& value) const {
    if (index < 0 || index >= m_sorted.GetSize()) return false;
    key = *m_sorted[index].pKey;
    value = *m_sorted[index].pValue;
    return true;
  }

  int GetSortedCount() const { return m_sorted.GetSize(); }
  bool IsSorted() const { return m_bSorted != FALSE; }

  void RemoveAll() {
    m_sorted.RemoveAll();
    m_bSorted = FALSE;
    m_map.RemoveAll();
  }

 private:
  void Fill() {
    m_sorted.SetSize(m_map.GetCount());
    POSITION pos = m_map.GetStartPosition();
    for (int i = 0; pos != nullptr; ++i) {
      MAP_SORT_STRUCT& e = m_sorted[i];
      m_map.GetNextAssocRef(pos, e.pKey, e.pValue);
    }
    m_bSorted = FALSE;  // freshly filled in walk order; still to be sorted
  }

  CArray<MAP_SORT_STRUCT, MAP_SORT_STRUCT&> m_sorted;
  BOOL m_bSorted = FALSE;
  int m_iOrder = 0;
  CMap<KEY, ARG_KEY, VALUE, ARG_VALUE> m_map;
};

#endif  // KYSTORE_MAP_SORT_H_
