#pragma once

#include <stdexcept>

// The second tier of error: the only exceptions that the entity runtime raises. They are caught and traced
// where the event loop dispatches (task run, descriptor, delivery of an outside notification); the work that
// raised them is dropped.

namespace Mox {

struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A range-checked value was given something out of its range; the text is fixed for each type.
struct RangeError : Error {
  using Error::Error;
};

// A null pointer was given where an object is required.
struct NullError : Error {
  using Error::Error;
};

// A keyed child was asked for again with other construction values than it was made with.
struct ReinstantiationError : Error {
  using Error::Error;
};

}  // namespace Mox
