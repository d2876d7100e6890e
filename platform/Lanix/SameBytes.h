#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Lanix {

// Whether two small arrays are equal, in place: the operator of std::array calls memcmp for sizes like 6 and
// 16, and addresses are compared many times for each packet.
template <std::size_t N>
constexpr bool sameBytes(const std::array<std::uint8_t, N>& a, const std::array<std::uint8_t, N>& b) {
  if (std::is_constant_evaluated()) return a == b;
  std::uint64_t difference = 0;
  const auto compare = [&]<class Word>(Word x, std::size_t at) {
    Word y;
    std::memcpy(&x, a.data() + at, sizeof x);
    std::memcpy(&y, b.data() + at, sizeof y);
    difference |= static_cast<std::uint64_t>(x ^ y);
  };
  for (std::size_t at = 0; at + 8 <= N; at += 8) compare(std::uint64_t{}, at);
  if constexpr (N % 8 >= 4) compare(std::uint32_t{}, N / 8 * 8);
  if constexpr (N % 4 >= 2) compare(std::uint16_t{}, N / 4 * 4);
  if constexpr (N % 2 == 1) compare(std::uint8_t{}, N - 1);
  return difference == 0;
}

}  // namespace Lanix
