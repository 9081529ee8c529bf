// Entries: typed values kept as small streams, set and read through the
// library's typed setters and getters.  The Python layer picks the type
// from the value (or the caller's type=); this file keeps the forms.
#include <climits>

#include "platform/global_mem.h"

#include "core.h"

namespace kypy {

namespace {

enum class Kind { kInt32, kUInt32, kInt64, kUInt64, kDouble, kStr, kBytes };

Kind KindOf(const std::string& name) {
  static const std::pair<const char*, Kind> kKinds[] = {
      {"int32", Kind::kInt32},   {"uint32", Kind::kUInt32}, {"int64", Kind::kInt64},
      {"uint64", Kind::kUInt64}, {"double", Kind::kDouble}, {"str", Kind::kStr},
      {"bytes", Kind::kBytes}};
  for (const auto& k : kKinds)
    if (name == k.first) return k.second;
  throw Fault(FaultKind::kValue,
              "type must be 'int32', 'uint32', 'int64', 'uint64', 'double', 'str' or 'bytes'");
}

// Bytes read by each fixed-width getter.
long long WidthOf(Kind kind) {
  return kind == Kind::kInt32 || kind == Kind::kUInt32 ? 4 : 8;
}

// A value ready for the library, converted while the GIL is held.
struct Value {
  Kind kind;
  long long i = 0;
  unsigned long long u = 0;
  double d = 0;
  std::string s;
};

long long IntIn(py::handle value, long long low, long long high) {
  if (!PyLong_Check(value.ptr())) throw py::type_error("an integer type needs an int value");
  int overflow = 0;
  const long long v = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
  if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
  if (overflow != 0 || v < low || v > high)
    throw Fault(FaultKind::kValue, "the value does not fit the entry's type");
  return v;
}

Value ToValue(Kind kind, py::handle value) {
  Value v;
  v.kind = kind;
  switch (kind) {
    case Kind::kInt32:
      v.i = IntIn(value, INT_MIN, INT_MAX);
      break;
    case Kind::kUInt32:
      v.i = IntIn(value, 0, 0xFFFFFFFFLL);
      break;
    case Kind::kInt64:
      v.i = IntIn(value, LLONG_MIN, LLONG_MAX);
      break;
    case Kind::kUInt64: {
      if (!PyLong_Check(value.ptr())) throw py::type_error("an integer type needs an int value");
      v.u = PyLong_AsUnsignedLongLong(value.ptr());
      if (PyErr_Occurred()) {
        PyErr_Clear();
        throw Fault(FaultKind::kValue, "the value does not fit the entry's type");
      }
      break;
    }
    case Kind::kDouble:
      v.d = value.cast<double>();
      break;
    case Kind::kStr:
      if (!PyUnicode_Check(value.ptr()) && !PyBytes_Check(value.ptr()))
        throw py::type_error("a 'str' entry needs a str value");
      v.s = BytesOf(value);
      // The library keeps C strings: a NUL would end the value early.
      if (v.s.find('\0') != std::string::npos)
        throw Fault(FaultKind::kValue, "a 'str' entry cannot hold NUL characters");
      break;
    case Kind::kBytes: {
      ByteView view(value, false);
      v.s.assign(view.Data(), view.Size());
      // Our choice: the library stores nothing for an empty buffer and
      // keeps the old value, so an empty one is refused rather than ignored.
      if (v.s.empty()) throw Fault(FaultKind::kValue, "an empty 'bytes' entry cannot be stored");
      if (v.s.size() > 0xFFFFFFF0u) throw Fault(FaultKind::kTooLarge, "the value is too large");
      break;
    }
  }
  return v;
}

// Calls the setter of the value's form on `folder`, or on the root.
template <class Target>
int CallSetter(Target* target, const char* key, const Value& v) {
  switch (v.kind) {
    case Kind::kInt32:
      return target->SetEntry(key, static_cast<int>(v.i));
    case Kind::kUInt32:
      return target->SetEntry(key, static_cast<DWORD>(v.i));
    case Kind::kInt64:
      return target->SetEntry(key, static_cast<__int64>(v.i));
    case Kind::kUInt64:
      return target->SetEntry(key, static_cast<unsigned __int64>(v.u));
    case Kind::kDouble:
      return target->SetEntry(key, v.d);
    case Kind::kStr:
      return target->SetEntry(key, v.s.c_str());
    case Kind::kBytes:
      return target->SetEntryEraseOld(key, v.s.data(), static_cast<DWORD>(v.s.size()), 1);
  }
  return 0;
}

void SetEntry(StorageCore& core, py::handle pathObj, const std::string& kindName,
              py::handle value) {
  const Names names = ParsePath(BytesOf(pathObj), false);
  const Value v = ToValue(KindOf(kindName), value);
  CallLibrary([&] {
    kyStorage* storage = core.WritableStorage();
    Chain chain;
    core.MakeFolders(Names(names.begin(), names.end() - 1), true, chain);
    const char* key = names.back().c_str();
    if (kyStream* old = OpenChild(storage, chain.Leaf(), key, kModeReadShared)) {
      const bool folder = old->IsFolder() != 0;
      old->Release();
      if (folder) throw Fault(FaultKind::kIsFolder, JoinNames(names) + ": is a folder");
    }
    kyStream* folder = chain.Leaf();
    const int ok = folder != nullptr ? CallSetter(folder, key, v) : CallSetter(storage, key, v);
    if (!ok) throw Fault(FaultKind::kStorage, JoinNames(names) + ": cannot set the entry");
  });
}

// What a getter found; `found` false gives the caller's default.
struct Got {
  bool found = false;
  Value v;
};

template <class Target>
void CallGetter(Target* target, const char* key, Got& got) {
  Value& v = got.v;
  switch (v.kind) {
    case Kind::kInt32:
      v.i = target->GetEntry(key, 0);
      break;
    case Kind::kUInt32:
      v.i = target->GetEntry(key, static_cast<DWORD>(0));
      break;
    case Kind::kInt64:
      v.i = target->GetEntry(key, static_cast<__int64>(0));
      break;
    case Kind::kUInt64:
      v.u = target->GetEntry(key, static_cast<unsigned __int64>(0));
      break;
    case Kind::kDouble:
      v.d = target->GetEntry(key, 0.0);
      break;
    case Kind::kStr: {
      CString text = target->GetEntry(key, "");
      v.s.assign(static_cast<const char*>(text), static_cast<size_t>(text.GetLength()));
      break;
    }
    case Kind::kBytes: {
      void* data = nullptr;
      unsigned int size = 0;
      got.found = target->GetEntryErasedOld(key, &data, &size) != 0;
      if (data != nullptr) v.s.assign(static_cast<const char*>(data), size);
      GlobalFree(data);
      return;
    }
  }
  got.found = true;
}

py::object GetEntry(StorageCore& core, py::handle pathObj, const std::string& kindName,
                    py::object def) {
  const Names names = ParsePath(BytesOf(pathObj), false);
  Got got;
  got.v.kind = KindOf(kindName);
  CallLibrary([&] {
    kyStorage* storage = core.Storage();
    Chain chain;
    size_t reached = 0;
    if (core.OpenAlong(names, kModeReadShared, chain, reached) != StorageCore::Walk::kOpened)
      return;
    kyStream* entry = chain.Leaf();
    // Missing, a folder, or too short for a number: the caller's default.
    if (entry->IsFolder()) return;
    const bool fixed = got.v.kind != Kind::kStr && got.v.kind != Kind::kBytes;
    if (fixed && entry->GetLength() < WidthOf(got.v.kind)) return;
    chain.ReleaseLeaf();
    kyStream* folder = chain.Leaf();
    const char* key = names.back().c_str();
    if (folder != nullptr)
      CallGetter(folder, key, got);
    else
      CallGetter(storage, key, got);
  });
  if (!got.found) return def;
  const Value& v = got.v;
  switch (v.kind) {
    case Kind::kInt32:
    case Kind::kUInt32:
    case Kind::kInt64:
      return py::int_(v.i);
    case Kind::kUInt64:
      return py::int_(v.u);
    case Kind::kDouble:
      return py::float_(v.d);
    case Kind::kStr:
      return TextOf(v.s);
    case Kind::kBytes:
      return py::bytes(v.s);
  }
  return def;
}

}  // namespace

void BindEntries(py::class_<StorageCore, CoreRef>& cls) {
  cls.def("_set_entry", &SetEntry).def("_get_entry", &GetEntry);
}

}  // namespace kypy
