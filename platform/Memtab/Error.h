#pragma once

#include <stdexcept>
#include <string>

namespace Memtab {

// Shared memory that cannot be believed: a value that stays half written because its writer died, or a file
// behind the table's name that is not a table of the expected layout. The message names the file and what is
// wrong with it.
//
// Thrown by look-ups only; the caller catches it where it looks up and carries on as if the entry were
// unusable. Everything else (opening, iterating, draining) reports trouble by value.
class CorruptionError : public std::runtime_error {
 public:
  explicit CorruptionError(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace Memtab
