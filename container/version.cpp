#include "kystore/version.h"

// Compiled into the library, so a program sees the version it runs with
// rather than the one its headers named.
const char* kyVersion() {
  return KYSTORE_VERSION;
}
