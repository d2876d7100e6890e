#pragma once

#include <cstddef>
#include <new>
#include <vector>

#include "Mox/Assert.h"

namespace Mox {

// Base of a class whose objects come and go all the time: the memory of one that is dropped waits for the
// next, so that in a steady state nothing is allocated. Up to kMost objects' worth is kept. For one thread,
// and for a class that nothing is derived from.
template <class T, std::size_t kMost>
class Pooled {
 public:
  static void* operator new(std::size_t size) {
    MOX_ASSERT("Mox/Pooled", "size == sizeof(T)", size == sizeof(T));
    if (pool().empty()) return ::operator new(size);
    void* const memory = pool().back();
    pool().pop_back();
    return memory;
  }
  static void operator delete(void* memory) {
    if (pool().size() < kMost) {
      pool().push_back(memory);
    } else {
      ::operator delete(memory);
    }
  }
  // How many objects' worth of memory waits.
  static std::size_t pooled() { return pool().size(); }

 private:
  // Never destroyed: objects may outlive everything static.
  static std::vector<void*>& pool() {
    static auto* const pool = [] {
      auto* made = new std::vector<void*>;
      made->reserve(kMost);
      return made;
    }();
    return *pool;
  }
};

}  // namespace Mox
