#include "kystore/storage.h"

// Settings read at the moment of use; applications may change them before
// they create or open storages.
int kyStorage::g_bUse64BitOffsets = 1;
__int64 kyStorage::g_iMaxTolvarSize = 4294967296LL;
__int64 kyStorage::g_iMaxCompStmSize = 1073741824LL;
