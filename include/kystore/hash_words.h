// Helpers for applications that keep hash tables of 32-bit words.  They
// are exported under plain C names; the library itself does not use them.
// Words are read and written in the host's (little-endian) order, at any
// alignment.
#ifndef KYSTORE_HASH_WORDS_H_
#define KYSTORE_HASH_WORDS_H_

#include "kystore/export.h"
#include "platform/win_types.h"

extern "C" {

// The table index of `dwHash` under the table descriptor `pTable`, a block
// of 32-bit words of which word 4 holds the shift count and word 9 the
// index mask: (dwHash >> (shift & 31)) & mask.  0 for a null descriptor.
KYSTORE_EXPORT DWORD FormHashIndexDword(const void* pTable, DWORD dwHash);

// The word at `pWord`; 0 for a null pointer.
KYSTORE_EXPORT DWORD HashLoadHashWord(const void* pWord);

// Stores `dwValue` at `pWord` and returns it; a null pointer stores
// nothing and gives 0.
KYSTORE_EXPORT DWORD HashStoreHashWord(void* pWord, DWORD dwValue);

}  // extern "C"

#endif  // KYSTORE_HASH_WORDS_H_
