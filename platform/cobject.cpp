#include "cobject.h"

const CRuntimeClass CObject::classCObject = {
    "CObject", static_cast<int>(sizeof(CObject)), 0xFFFF, nullptr, nullptr, nullptr};

CRuntimeClass* CObject::GetThisClass() {
  return const_cast<CRuntimeClass*>(&classCObject);
}

CRuntimeClass* CObject::GetRuntimeClass() const {
  return GetThisClass();
}

BOOL CObject::IsKindOf(const CRuntimeClass* cls) const {
  return GetRuntimeClass()->IsDerivedFrom(cls);
}

CObject* CRuntimeClass::CreateObject() const {
  return nullptr;
}

// The chain of bases is as deep as the class tree; every record ends it
// with CObject, whose base function is null.
BOOL CRuntimeClass::IsDerivedFrom(const CRuntimeClass* base) const {
  if (base == nullptr) return FALSE;
  for (const CRuntimeClass* c = this; c != nullptr;
       c = c->m_pfnGetBaseClass ? c->m_pfnGetBaseClass() : nullptr) {
    if (c == base) return TRUE;
  }
  return FALSE;
}
