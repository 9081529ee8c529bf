// Framework-style containers: CList, CArray, CStringArray, CPtrArray and
// CTypedPtrArray.
//
// Only what the library and its callers use is here.  Positions are opaque
// pointers to list nodes; they stay valid until that node is removed.
#ifndef KYSTORE_PLATFORM_COLLECTIONS_H_
#define KYSTORE_PLATFORM_COLLECTIONS_H_

#include <utility>
#include <vector>

#include "cobject.h"
#include "cstring.h"
#include "win_types.h"

struct PositionTag;
typedef PositionTag* POSITION;

// Doubly linked list.  `blockSize` is accepted for the framework's signature;
// nodes are allocated one by one.
template <class TYPE, class ARG_TYPE = const TYPE&>
class CList : public CObject {
  struct Node {
    Node* next;
    Node* prev;
    TYPE data;
  };

 public:
  explicit CList(int /*blockSize*/ = 10) {}
  CList(const CList&) = delete;
  CList& operator=(const CList&) = delete;
  ~CList() override { RemoveAll(); }

  int GetCount() const { return m_count; }
  int GetSize() const { return m_count; }
  bool IsEmpty() const { return m_count == 0; }

  POSITION AddTail(ARG_TYPE value) {
    Node* n = new Node{nullptr, m_tail, value};
    (m_tail ? m_tail->next : m_head) = n;
    m_tail = n;
    ++m_count;
    return Pos(n);
  }
  POSITION AddHead(ARG_TYPE value) {
    Node* n = new Node{m_head, nullptr, value};
    (m_head ? m_head->prev : m_tail) = n;
    m_head = n;
    ++m_count;
    return Pos(n);
  }
  POSITION GetHeadPosition() const { return Pos(m_head); }
  POSITION GetTailPosition() const { return Pos(m_tail); }
  TYPE& GetHead() { return m_head->data; }
  TYPE& GetTail() { return m_tail->data; }

  // Returns the element at `pos` and moves `pos` to the next node (null after
  // the last).
  TYPE& GetNext(POSITION& pos) {
    Node* n = NodeOf(pos);
    pos = Pos(n->next);
    return n->data;
  }
  const TYPE& GetNext(POSITION& pos) const {
    Node* n = NodeOf(pos);
    pos = Pos(n->next);
    return n->data;
  }
  TYPE& GetAt(POSITION pos) { return NodeOf(pos)->data; }
  const TYPE& GetAt(POSITION pos) const { return NodeOf(pos)->data; }

  void RemoveAt(POSITION pos) {
    Node* n = NodeOf(pos);
    (n->prev ? n->prev->next : m_head) = n->next;
    (n->next ? n->next->prev : m_tail) = n->prev;
    delete n;
    --m_count;
  }
  void RemoveAll() {
    while (m_head) {
      Node* next = m_head->next;
      delete m_head;
      m_head = next;
    }
    m_tail = nullptr;
    m_count = 0;
  }
  POSITION Find(ARG_TYPE value) const {
    for (Node* n = m_head; n; n = n->next)
      if (n->data == value) return Pos(n);
    return nullptr;
  }

 private:
  static POSITION Pos(Node* n) { return reinterpret_cast<POSITION>(n); }
  static Node* NodeOf(POSITION p) { return reinterpret_cast<Node*>(p); }

  Node* m_head = nullptr;
  Node* m_tail = nullptr;
  int m_count = 0;
};

// Growable array.
template <class TYPE, class ARG_TYPE = const TYPE&>
class CArray : public CObject {
 public:
  CArray() = default;
  CArray(const CArray&) = default;
  CArray& operator=(const CArray&) = default;

  int GetSize() const { return static_cast<int>(m_data.size()); }
  int GetCount() const { return GetSize(); }
  bool IsEmpty() const { return m_data.empty(); }
  void SetSize(int newSize, int /*growBy*/ = -1) {
    m_data.resize(newSize > 0 ? static_cast<size_t>(newSize) : 0);
  }
  void RemoveAll() { m_data.clear(); }
  TYPE& operator[](int i) { return m_data[static_cast<size_t>(i)]; }
  const TYPE& operator[](int i) const { return m_data[static_cast<size_t>(i)]; }
  TYPE& ElementAt(int i) { return m_data[static_cast<size_t>(i)]; }
  const TYPE& GetAt(int i) const { return m_data[static_cast<size_t>(i)]; }
  void SetAt(int i, ARG_TYPE v) { m_data[static_cast<size_t>(i)] = v; }
  void SetAtGrow(int i, ARG_TYPE v) {
    if (i >= GetSize()) SetSize(i + 1);
    m_data[static_cast<size_t>(i)] = v;
  }
  int Add(ARG_TYPE v) {
    m_data.push_back(v);
    return GetSize() - 1;
  }
  void RemoveAt(int i, int count = 1) {
    m_data.erase(m_data.begin() + i, m_data.begin() + i + count);
  }
  TYPE* GetData() { return m_data.data(); }
  const TYPE* GetData() const { return m_data.data(); }

 private:
  std::vector<TYPE> m_data;
};

class CStringArray : public CArray<CString, const char*> {};

class CPtrArray : public CArray<void*, void*> {};

// A pointer array over BASE (CPtrArray) whose elements are all of type TYPE.
// Elements are read by value; they are changed only through SetAt.
template <class BASE, class TYPE>
class CTypedPtrArray : public BASE {
 public:
  TYPE GetAt(int i) const { return static_cast<TYPE>(BASE::GetAt(i)); }
  TYPE operator[](int i) const { return GetAt(i); }
  void SetAt(int i, TYPE p) { BASE::SetAt(i, p); }
  int Add(TYPE p) { return BASE::Add(p); }
  int GetUpperBound() const { return BASE::GetSize() - 1; }
};

#endif  // KYSTORE_PLATFORM_COLLECTIONS_H_
