// kystore: a tree of named byte streams inside one ordinary file.
//
// This umbrella header declares the whole exported interface.
#ifndef KYSTORE_H_
#define KYSTORE_H_

#include "kystore/check.h"
#include "kystore/export.h"
#include "kystore/format.h"
#include "kystore/hash_words.h"
#include "kystore/map_sort.h"
#include "kystore/memory_stream.h"
#include "kystore/open_stream.h"
#include "kystore/path_loader.h"
#include "kystore/recorder.h"
#include "kystore/storage.h"
#include "kystore/stream.h"
#include "kystore/stream_file.h"
#include "kystore/tolvar_file.h"
#include "kystore/version.h"

#endif  // KYSTORE_H_
