#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "Mox/Assert.h"

namespace Mox {

// Base of a class of which there are a great many objects: they lie side by side in blocks, without an
// allocator's word and rounding for each. A block goes back when its last object does. For one thread, and for
// a class that nothing is derived from.
template <class T>
class Dense {
 public:
  static void* operator new(std::size_t size) {
    MOX_ASSERT("Mox/Dense", "size == sizeof(T)", size == sizeof(T));
    if (!withRoom) (new (newBlock()) Block)->link();
    Block& block = *withRoom;
    void* memory = block.freed;
    if (memory) {
      block.freed = block.freed->next;
    } else {
      memory = block.begin() + sizeof(T) * block.made++;
    }
    if (++block.used == kObjects) block.unlink();
    return memory;
  }
  static void operator delete(void* memory) {
    auto* const block = reinterpret_cast<Block*>(reinterpret_cast<std::uintptr_t>(memory) & ~(kAlign - 1));
    block->freed = new (memory) Freed{block->freed};
    if (block->used-- == kObjects) block->link();
    if (block->used != 0) return;
    block->unlink();
    std::free(block);
  }
  // How many objects a block holds.
  static constexpr std::size_t objectsOfBlock() { return kObjects; }

 private:
  static constexpr std::uintptr_t kAlign = 32768;
  // The rest is for the allocator, so that one block begins where the other ends.
  static constexpr std::size_t kBytes = kAlign - 16;

  struct Freed {
    Freed* next;
  };
  struct Block {
    Block* previous = nullptr;  // those with room are a list
    Block* next = nullptr;
    Freed* freed = nullptr;
    std::uint32_t made = 0;  // the places behind these were never used
    std::uint32_t used = 0;

    std::byte* begin() { return reinterpret_cast<std::byte*>(this) + kFirst; }
    void link() {
      next = withRoom;
      if (next) next->previous = this;
      withRoom = this;
    }
    void unlink() {
      (previous ? previous->next : withRoom) = next;
      if (next) next->previous = previous;
      previous = next = nullptr;
    }
  };
  static constexpr std::size_t kFirst = (sizeof(Block) + 15) / 16 * 16;
  static constexpr std::size_t kObjects = (kBytes - kFirst) / sizeof(T);
  static inline Block* withRoom = nullptr;

  static void* newBlock() {
    static_assert(sizeof(T) >= sizeof(Freed) && alignof(T) <= 16 && kObjects > 1);
    void* memory = nullptr;
    if (posix_memalign(&memory, kAlign, kBytes) != 0) throw std::bad_alloc();
    return memory;
  }
};

}  // namespace Mox
