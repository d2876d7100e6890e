#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

// Hashing with a secret seed, so that a host which can choose its addresses cannot choose where they collide.
// Each step multiplies by the secret and folds the 128-bit product (the construction of the wyhash family, in
// the public domain).
//
// Tables in memory share one seed a process; a table in shared memory has its own. A hash means nothing to
// another process, nor after a restart.

namespace Mox {

__extension__ using UInt128 = unsigned __int128;

[[gnu::always_inline]] inline std::uint64_t foldMultiply(std::uint64_t a, std::uint64_t b) {
  const UInt128 product = static_cast<UInt128>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// What a hash begins with, and what each step multiplies by: odd, and so it never takes bits of a key away.
struct HashSeed {
  explicit HashSeed(std::uint64_t seed)
      : first(seed), multiplier(foldMultiply(seed ^ 0xa0761d6478bd642fULL, 0xe7037ed1a0b428dbULL) | 1) {}
  std::uint64_t first;
  std::uint64_t multiplier;
};

namespace Detail {
extern HashSeed processSeed;
}

// The seed of this process' tables: random, drawn when the program starts.
inline const HashSeed& hashSeed() { return Detail::processSeed; }
// Another seed, the same in each run of a test. Only while no table has an element.
void hashSeedIs(std::uint64_t seed);

// Never 0. From the kernel's random generator, without waiting for it: early in the boot of a machine, when
// it has nothing yet, the word is only different from run to run.
std::uint64_t randomWord();

// One step: `state` is what the steps before gave, at first hashSeed().first.
inline std::uint64_t hashMix(std::uint64_t word, std::uint64_t state) {
  return foldMultiply(word ^ state, hashSeed().multiplier);
}

// The last step. Without it consecutive keys are a lattice: with some seeds their hashes are close together.
inline std::uint64_t hashFinish(std::uint64_t state) { return foldMultiply(state, 0x9e3779b97f4a7c15ULL); }

std::uint64_t hashBytes(const void* data, std::size_t size, std::uint64_t state);

// The steps for one value, without the last. A type of its own has a member `hash(state)`.
template <class T>
std::uint64_t hashOf(const T& value, std::uint64_t state = hashSeed().first) {
  if constexpr (requires { value.hash(state); }) {
    return value.hash(state);
  } else if constexpr (std::integral<T>) {
    return hashMix(static_cast<std::uint64_t>(value), state);
  } else if constexpr (std::convertible_to<T, std::string_view>) {
    const std::string_view text(value);
    return hashBytes(text.data(), text.size(), state);
  } else {
    return hashMix(std::bit_cast<std::uintptr_t>(value.get()), state);  // a counted pointer: by identity
  }
}

// The finished hash of `count` words with a seed of the caller's own: two multiplications for up to 16 bytes,
// one more for each further 16 or part of it.
[[gnu::always_inline]] inline std::uint64_t hashWords(const std::uint32_t* words, std::uint32_t count,
                                                      const HashSeed& seed) {
  const auto pair = [words](std::uint32_t i) {
    return std::uint64_t{words[i]} | std::uint64_t{words[i + 1]} << 32;
  };
  std::uint64_t hash = seed.first;
  std::uint32_t i = 0;
  for (; i + 4 <= count; i += 4) hash = foldMultiply(hash ^ pair(i), seed.multiplier ^ pair(i + 2));
  switch (count - i) {
    case 3:
      hash = foldMultiply(hash ^ pair(i), seed.multiplier ^ words[i + 2]);
      break;
    case 2:
      hash = foldMultiply(hash ^ pair(i), seed.multiplier);
      break;
    case 1:
      hash = foldMultiply(hash ^ words[i], seed.multiplier);
      break;
    default:
      break;
  }
  return hashFinish(hash);
}

}  // namespace Mox
