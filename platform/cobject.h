// The root of the framework's class tree, with its run-time class records.
//
// A class that declares DECLARE_DYNAMIC and defines IMPLEMENT_DYNAMIC gets a
// static CRuntimeClass record; GetRuntimeClass() gives the record of an
// object's own class and IsKindOf() asks whether that class is, or derives
// from, another.  Only this identification is provided: the records carry no
// creation function and nothing here serializes.
#ifndef KYSTORE_PLATFORM_COBJECT_H_
#define KYSTORE_PLATFORM_COBJECT_H_

#include "kystore/export.h"
#include "win_types.h"

class CObject;

// One class's identity.  Records are compared by address.
struct KYSTORE_EXPORT CRuntimeClass {
  const char* m_lpszClassName;
  int m_nObjectSize;
  UINT m_wSchema;                         // 0xFFFF: the class does not serialize
  CObject* (*m_pfnCreateObject)();        // null: cannot be created by name
  CRuntimeClass* (*m_pfnGetBaseClass)();  // null for CObject itself
  CRuntimeClass* m_pNextClass;            // unused; kept for the record's shape

  // Always null here: no record carries a creation function.
  CObject* CreateObject() const;
  // Whether this class is `base` or derives from it.  False for null.
  BOOL IsDerivedFrom(const CRuntimeClass* base) const;
};

#define RUNTIME_CLASS(class_name) (class_name::GetThisClass())

// In the class body: the record and the functions that reach it.
#define DECLARE_DYNAMIC(class_name)             \
 public:                                        \
  static const CRuntimeClass class##class_name; \
  static CRuntimeClass* _GetBaseClass();        \
  static CRuntimeClass* GetThisClass();         \
  CRuntimeClass* GetRuntimeClass() const override;

// In one source file: the record of `class_name`, whose base is `base_name`.
#define IMPLEMENT_DYNAMIC(class_name, base_name)                       \
  const CRuntimeClass class_name::class##class_name = {                \
      #class_name, static_cast<int>(sizeof(class_name)), 0xFFFF,       \
      nullptr,     &class_name::_GetBaseClass,           nullptr};     \
  CRuntimeClass* class_name::_GetBaseClass() {                         \
    return RUNTIME_CLASS(base_name);                                   \
  }                                                                    \
  CRuntimeClass* class_name::GetThisClass() {                          \
    return const_cast<CRuntimeClass*>(&class_name::class##class_name); \
  }                                                                    \
  CRuntimeClass* class_name::GetRuntimeClass() const {                 \
    return class_name::GetThisClass();                                 \
  }

// Root of the framework's class tree.  Serialization and diagnostics do
// nothing here; the class exists so that derived classes keep their shape
// and can be identified at run time.
class KYSTORE_EXPORT CObject {
 public:
  CObject() = default;
  CObject(const CObject&) = default;
  CObject& operator=(const CObject&) = default;
  virtual ~CObject() = default;

  static const CRuntimeClass classCObject;
  static CRuntimeClass* GetThisClass();
  virtual CRuntimeClass* GetRuntimeClass() const;
  virtual void AssertValid() const {}

  // Whether this object's class is `cls` or derives from it.
  BOOL IsKindOf(const CRuntimeClass* cls) const;
};

#endif  // KYSTORE_PLATFORM_COBJECT_H_
