// Holds the typed overload set at compile time: code written for the Windows
// compiler mixes __int64, LONGLONG and long long, passes plain int and DWORD
// literals, and must land on the overload of the matching width.  Each call
// below must compile without ambiguity, and for each argument type an
// overload taking exactly that type must exist (an exact match always wins).

#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

#include "kystore.h"

namespace {

static_assert(std::is_same<__int64, long long>::value, "__int64 is long long");
static_assert(std::is_same<LONGLONG, long long>::value, "LONGLONG is long long");
static_assert(std::is_same<ULONGLONG, unsigned long long>::value, "ULONGLONG");
static_assert(sizeof(DWORD) == 4 && sizeof(LONG) == 4 && sizeof(UINT) == 4, "32-bit words");

template <class C, class T>
using Setter = int (C::*)(const char*, T);
template <class C, class T>
using Getter = T (C::*)(const char*, T);

// The casts are ill-formed, and the test does not compile, when no overload
// takes exactly T.
template <class C, class T>
constexpr bool HasExactPair() {
  using S = decltype(static_cast<Setter<C, T>>(&C::SetEntry));
  using G = decltype(static_cast<Getter<C, T>>(&C::GetEntry));
  return std::is_same<S, Setter<C, T>>::value && std::is_same<G, Getter<C, T>>::value;
}

template <class C>
constexpr bool CallsResolve() {
  C* c = nullptr;
  using Calls = decltype((c->SetEntry("k", (__int64)5), c->SetEntry("k", (unsigned __int64)5),
                          c->SetEntry("k", 7), c->SetEntry("k", (DWORD)7), c->SetEntry("k", 1.0),
                          c->SetEntry("k", 5LL), c->SetEntry("k", "s")));
  static_assert(std::is_same<Calls, int>::value, "setters return int");
  static_assert(std::is_same<decltype(c->GetEntry("k", 7)), int>::value, "int getter");
  static_assert(std::is_same<decltype(c->GetEntry("k", (DWORD)7)), DWORD>::value, "DWORD");
  static_assert(std::is_same<decltype(c->GetEntry("k", 5LL)), __int64>::value, "__int64");
  static_assert(std::is_same<decltype(c->GetEntry("k", 5ULL)), unsigned __int64>::value, "u64");
  static_assert(std::is_same<decltype(c->GetEntry("k", 1.0)), double>::value, "double");
  static_assert(std::is_same<decltype(c->GetEntry("k", "s")), CString>::value, "string");
  return HasExactPair<C, int>() && HasExactPair<C, DWORD>() && HasExactPair<C, double>() &&
         HasExactPair<C, __int64>() && HasExactPair<C, unsigned __int64>();
}

static_assert(CallsResolve<kyStream>(), "kyStream overloads");
static_assert(CallsResolve<kyStorage>(), "kyStorage overloads");

// The 64-bit forms of the stream calls bind long long arguments directly.
using ReadCall = decltype(std::declval<kyStream&>().Read(nullptr, 10LL));
static_assert(std::is_same<ReadCall, __int64>::value, "Read counts in __int64");
using LengthCall =
    decltype(std::declval<kyStream&>().GetVerifiedDataLength(std::declval<long long&>()));
static_assert(std::is_same<LengthCall, BOOL>::value, "a long long binds the length");
static_assert(std::is_same<decltype(std::declval<kyStream&>() << 5LL), kyStream&>::value, "<<");
static_assert(std::is_same<decltype(std::declval<kyStream&>() >> std::declval<long long&>()),
                           kyStream&>::value,
              ">>");

TEST(Overloads, HeldAtCompileTime) {
  SUCCEED();
}

}  // namespace
