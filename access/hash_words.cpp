#include "kystore/hash_words.h"

#include <cstring>

namespace {

const size_t kShiftWord = 4;
const size_t kMaskWord = 9;

}  // namespace

extern "C" DWORD FormHashIndexDword(const void* pTable, DWORD dwHash) {
  if (pTable == nullptr) return 0;
  const DWORD shift = HashLoadHashWord(static_cast<const BYTE*>(pTable) + 4 * kShiftWord);
  const DWORD mask = HashLoadHashWord(static_cast<const BYTE*>(pTable) + 4 * kMaskWord);
  // Only the low five bits of the count take effect, as in the shift
  // instruction the helpers were written for.
  return (dwHash >> (shift & 31u)) & mask;
}

extern "C" DWORD HashLoadHashWord(const void* pWord) {
  DWORD value = 0;
  if (pWord != nullptr) memcpy(&value, pWord, sizeof(value));
  return value;
}

extern "C" DWORD HashStoreHashWord(void* pWord, DWORD dwValue) {
  if (pWord == nullptr) return 0;
  memcpy(pWord, &dwValue, sizeof(dwValue));
  return dwValue;
}
