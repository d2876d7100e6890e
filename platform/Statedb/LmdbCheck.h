#pragma once

#include "Mox/Result.h"

namespace Statedb {

// Whether a database file can be given to LMDB, which trusts what it maps: a page number out of range, a node
// that runs over its page or a file cut short would crash the process that uses it.
//
// Reads the file as LMDB 0.9 lays it out (mdb.c, data format version 1, 64 bit): both meta pages; every page
// of the newer one's free list and main tree, each of which must lie inside the file and be used once; every
// node inside its page, keys in order, and the free list naming no page in use. Values are not looked at.
//
// Good for a sound file. Reads the whole used part of the file once. The caller keeps others from changing
// the file meanwhile.
Mox::Result<> checkLmdbFile(int descriptor);

}  // namespace Statedb
