#pragma once

#include <cstdint>

// Hash of a key's words. Two to three multiplications for the usual sizes, each folding a 128-bit product
// (the construction of the wyhash family, in the public domain). The seed is random for each table, so that a
// host which can choose its addresses cannot choose where they collide.
namespace Memtab {

__extension__ using Wide = unsigned __int128;

[[gnu::always_inline]] inline std::uint64_t foldMultiply(std::uint64_t a, std::uint64_t b) {
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

[[gnu::always_inline]] inline std::uint64_t hashWords(const std::uint32_t* words, std::uint32_t count,
                                                      std::uint64_t seed) {
  constexpr std::uint64_t kA = 0xa0761d6478bd642fULL;
  constexpr std::uint64_t kB = 0xe7037ed1a0b428dbULL;
  const std::uint64_t other = seed * 0x9e3779b97f4a7c15ULL ^ kB;
  const auto pair = [words](std::uint32_t i) {
    return std::uint64_t{words[i]} | std::uint64_t{words[i + 1]} << 32;
  };
  std::uint64_t hash = seed ^ kA * (count + 1);
  std::uint32_t i = 0;
  for (; i + 4 <= count; i += 4) hash = foldMultiply(hash ^ pair(i), other ^ pair(i + 2));
  switch (count - i) {
    case 3:
      hash = foldMultiply(hash ^ pair(i), other ^ words[i + 2]);
      break;
    case 2:
      hash = foldMultiply(hash ^ pair(i), other);
      break;
    case 1:
      hash = foldMultiply(hash ^ words[i], other);
      break;
    default:
      break;
  }
  return foldMultiply(hash ^ kB, other ^ kA);
}

// The home position of a hash among `capacity` ones, and the least hash whose home is `position` (< capacity)
// or later.
inline std::uint64_t homeOf(std::uint64_t hash, std::uint64_t capacity) {
  return static_cast<std::uint64_t>((static_cast<Wide>(hash) * capacity) >> 64);
}
inline std::uint64_t leastHashAt(std::uint64_t position, std::uint64_t capacity) {
  return static_cast<std::uint64_t>(((static_cast<Wide>(position) << 64) + capacity - 1) / capacity);
}

}  // namespace Memtab
