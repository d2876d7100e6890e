#include "Mox/Hash.h"

#include <cstring>

namespace Mox {

std::uint64_t hashBytes(const void* data, std::size_t size, std::uint64_t seed) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint64_t hash = hashMix(seed, size);
  for (; size >= 8; bytes += 8, size -= 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes, 8);
    hash = hashMix(hash, word);
  }
  if (size != 0) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, size);
    hash = hashMix(hash, word);
  }
  return hash;
}

}  // namespace Mox
