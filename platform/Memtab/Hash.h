#pragma once

#include <cstdint>

// Hash of a key's words: two multiplications for keys of up to 16 bytes, one more for each further 16 or part
// of it, each folding a 128-bit product (the construction of the wyhash family, in the public domain). The
// seed is random for each table, so that a host which can choose its addresses cannot choose where they
// collide.
namespace Memtab {

__extension__ using Wide = unsigned __int128;

[[gnu::always_inline]] inline std::uint64_t foldMultiply(std::uint64_t a, std::uint64_t b) {
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// Both halves of a seed; the second is odd and so never takes a key's bits away.
struct HashSeed {
  explicit HashSeed(std::uint64_t seed)
      : first(seed), second(foldMultiply(seed ^ 0xa0761d6478bd642fULL, 0xe7037ed1a0b428dbULL) | 1) {}
  std::uint64_t first;
  std::uint64_t second;
};

[[gnu::always_inline]] inline std::uint64_t hashWords(const std::uint32_t* words, std::uint32_t count,
                                                      const HashSeed& seed) {
  const auto pair = [words](std::uint32_t i) {
    return std::uint64_t{words[i]} | std::uint64_t{words[i + 1]} << 32;
  };
  std::uint64_t hash = seed.first;
  std::uint32_t i = 0;
  for (; i + 4 <= count; i += 4) hash = foldMultiply(hash ^ pair(i), seed.second ^ pair(i + 2));
  switch (count - i) {
    case 3:
      hash = foldMultiply(hash ^ pair(i), seed.second ^ words[i + 2]);
      break;
    case 2:
      hash = foldMultiply(hash ^ pair(i), seed.second);
      break;
    case 1:
      hash = foldMultiply(hash ^ words[i], seed.second);
      break;
    default:
      break;
  }
  // Consecutive keys are a lattice until here; for some seeds all their homes would be close together.
  return foldMultiply(hash, 0x9e3779b97f4a7c15ULL);
}

// The home of a hash among `homes` buckets, and the least hash whose home is `home` (< homes) or a later one.
inline std::uint64_t homeOf(std::uint64_t hash, std::uint64_t homes) {
  return static_cast<std::uint64_t>((static_cast<Wide>(hash) * homes) >> 64);
}
inline std::uint64_t leastHashAt(std::uint64_t home, std::uint64_t homes) {
  return static_cast<std::uint64_t>(((static_cast<Wide>(home) << 64) + homes - 1) / homes);
}

}  // namespace Memtab
