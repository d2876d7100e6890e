#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "Tracelet/Trace.h"

namespace Tracelet {

// Options of TraceParams, to be added up.
// What an earlier run left is set aside, instead of the file being gone on with.
inline constexpr int kStartEmpty = 1;
// The ring is kept in memory (mlock), so that a record never waits for the disk.
inline constexpr int kLockMemory = 2;

// How the trace file is made.
struct TraceParams {
  // The last "%d" stands for the process id. A name with a '/' is a path; any other lies in the directory of
  // the environment variable TRACELETDIR, else in that of directoryIs, else in the current one.
  std::string fileName;
  // Size of the ring of each level, in KiB; rounded up to at least four blocks, at most 64 MiB.
  std::array<std::uint32_t, kLevels> levelKiB = {8, 32, 256, 128, 512, 512};
  // The name that a file which cannot be gone on with is given; empty: its own with ".aside" behind it.
  std::string asideName = {};
  int options = 0;
  // How many files of a name with "%d" are kept, this one included: at start the oldest ones beyond are
  // removed, unless their process lives. 0 keeps all.
  int files = 24;
  // Records come from one thread; otherwise each takes a lock.
  bool singleThreaded = true;
  // An assertion's message becomes a record of level 0 before the process aborts.
  bool recordAssertions = true;
  // Bytes that a record may have, its 24-byte header included; 64 to 4096.
  std::uint32_t maxRecordBytes = 512;
};

// Opens the trace file of the process and sends later records to it. A file of that name from an earlier run,
// intact and of the same sizes, is gone on with, so what led to a crash is still there; any other one is set
// aside under another name.
//
// Returns the name of the open file. Never fatal: when the file cannot be made, or a living process has it
// open, records stay in memory, one line on the text sink says so, and the name is "". Another call that
// comes to the same file name changes nothing; one that comes to another leaves the first file as it is.
std::string initialize(const TraceParams& params);

// Sends later records to a ring in memory again.
void finalize();

// Where trace files lie unless TRACELETDIR says otherwise; "" is the current directory.
void directoryIs(const std::string& directory);

// The name of the open file, "" when records go to memory.
std::string fileName();

}  // namespace Tracelet
