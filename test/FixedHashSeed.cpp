#include "Mox/Hash.h"

// Part of every test program: hash tables have the same order in each run.

namespace {

[[maybe_unused]] const bool kFixed = [] {
  Mox::hashSeedIs(1);
  return true;
}();

}  // namespace
