#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Seeded hashing by 64x64→128-bit multiplication and folding (the mixing step of wyhash, public domain). Good
// in all bits, the high ones included; stable within a process only.

namespace Mox {

inline std::uint64_t hashMix(std::uint64_t a, std::uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a ^ 0xa0761d6478bd642fULL) * (b ^ 0xe7037ed1a0b428dbULL);
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

std::uint64_t hashBytes(const void* data, std::size_t size, std::uint64_t seed);

// Customised by a member `hash(seed)` of the key type.
template <class T>
std::uint64_t hashOf(const T& value, std::uint64_t seed = 0) {
  if constexpr (requires { value.hash(seed); }) {
    return value.hash(seed);
  } else if constexpr (std::integral<T>) {
    return hashMix(static_cast<std::uint64_t>(value), seed);
  } else if constexpr (std::convertible_to<T, std::string_view>) {
    const std::string_view text(value);
    return hashBytes(text.data(), text.size(), seed);
  } else {
    return hashMix(std::bit_cast<std::uintptr_t>(value.get()), seed);  // a counted pointer: by identity
  }
}

}  // namespace Mox
