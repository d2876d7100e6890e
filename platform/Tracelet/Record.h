#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Mox/Strep.h"
#include "Tracelet/RingFile.h"

// Trace records: binary, always on, tens of nanoseconds each.
//
//   TRACELET_RECORD("trappedRequest=<vlanId={};srcIntf={}> connectionType={}", vlan, intf, 'U');
//
// puts the arguments, the time and a reference to the call site into the ring of level 2; the text is made
// by whoever reads the ring (Tracelet/Reader.h). The format is a literal with a {} for each argument.
// Arguments are integers, bool, char, floating point, texts, enumerations (by name where they have names),
// and types with a member traceletArg() that returns one of those, or Mac, Ip4, Ip6 or Ip. Texts are cut when
// the record would exceed the largest record size; the reader shows "..." there.
//
// Records go to the ring of the process: in memory until Tracelet::initialize opens a file. Their times do
// not jump with a clock that is set (16 ns a reading, right to the microsecond); the order of records is that
// of their sequence numbers.

namespace Tracelet {

// The level that TRACELET_RECORD uses, of 0 (the fewest and most important) to 5.
inline constexpr int kDefaultLevel = 2;

struct Mac {
  std::array<std::uint8_t, 6> bytes;
};
struct Ip4 {
  std::array<std::uint8_t, 4> bytes;  // network order
};
struct Ip6 {
  std::array<std::uint8_t, 16> bytes;
};
// An address that may be of either family, or none.
struct Ip {
  std::uint8_t family;  // 4, 6, or 0: no address
  std::array<std::uint8_t, 16> bytes;
};

// A TRACELET_RECORD in the code. `format` and `source` live as long as the code does.
struct CallSite {
  std::string_view format;
  std::string_view source;
  std::uint32_t line;
  int level;
  // The descriptor in the current ring.
  std::uint32_t descriptor = 0;
  std::uint32_t ring = 0;
};

// A path's last two parts without the extension: "ArpSuppression/MessageTrapSm".
consteval std::string_view sourceName(std::string_view path) {
  path = path.substr(0, path.rfind('.'));
  const std::size_t last = path.rfind('/');
  if (last == std::string_view::npos || last == 0) return path;
  const std::size_t folder = path.rfind('/', last - 1);
  return folder == std::string_view::npos ? path : path.substr(folder + 1);
}

consteval std::size_t placeholders(std::string_view format) {
  std::size_t count = 0;
  for (std::size_t at = format.find("{}"); at != std::string_view::npos; at = format.find("{}", at + 2)) {
    ++count;
  }
  return count;
}

// An argument as it is stored. A text refers to the caller's bytes until the record is written.
template <Kind K, class Stored>
struct Argument {
  static constexpr Kind kind = K;
  static constexpr std::size_t fixedSize = roundUp8(sizeof(Stored));
  Stored stored;
};
struct TextArgument {
  static constexpr Kind kind = Kind::text;
  static constexpr std::size_t fixedSize = 8;
  std::string_view text;
};

template <class T>
auto argumentOf(const T& value) {
  if constexpr (requires { value.traceletArg(); }) {
    return argumentOf(value.traceletArg());
  } else if constexpr (std::same_as<T, Mac>) {
    return Argument<Kind::mac, Mac>{value};
  } else if constexpr (std::same_as<T, Ip4>) {
    return Argument<Kind::ip4, Ip4>{value};
  } else if constexpr (std::same_as<T, Ip6>) {
    return Argument<Kind::ip6, Ip6>{value};
  } else if constexpr (std::same_as<T, Ip>) {
    struct Padded {
      std::uint64_t family;
      std::array<std::uint8_t, 16> bytes;
    };
    return Argument<Kind::ip, Padded>{{value.family, value.bytes}};
  } else if constexpr (std::same_as<T, bool>) {
    return Argument<Kind::boolean, std::uint64_t>{value};
  } else if constexpr (std::same_as<T, char>) {
    return Argument<Kind::character, std::uint64_t>{static_cast<unsigned char>(value)};
  } else if constexpr (std::signed_integral<T>) {
    return Argument<Kind::signedNumber, std::int64_t>{value};
  } else if constexpr (std::unsigned_integral<T>) {
    return Argument<Kind::unsignedNumber, std::uint64_t>{value};
  } else if constexpr (std::floating_point<T>) {
    return Argument<Kind::real, double>{static_cast<double>(value)};
  } else if constexpr (Mox::NamedEnum<T>) {
    const auto& names = moxEnumNames(value);
    const auto index = static_cast<std::size_t>(value);
    return TextArgument{index < std::size(names) ? std::string_view(names[index]) : std::string_view("?")};
  } else if constexpr (std::is_enum_v<T>) {
    return argumentOf(static_cast<std::underlying_type_t<T>>(value));
  } else {
    static_assert(std::convertible_to<T, std::string_view>, "a recorded value needs traceletArg");
    if constexpr (std::is_pointer_v<T>) {
      return TextArgument{value ? std::string_view(value) : std::string_view("NULL")};
    } else {
      return TextArgument{std::string_view(value)};
    }
  }
}

// A record being written; `at` is null when there is no room for it.
struct OpenRecord {
  std::byte* at;
  std::uint32_t size;
};

// The bytes that a record of the current ring may have.
extern std::uint32_t largestRecord;
OpenRecord openRecord(CallSite& site, const Kind* kinds, std::uint16_t arguments, std::uint32_t size);
void closeRecord(const OpenRecord& record);

template <class A>
std::size_t sizeOf(const A& argument, std::size_t textLimit) {
  if constexpr (std::same_as<A, TextArgument>) {
    return A::fixedSize + roundUp8(std::min(argument.text.size(), textLimit));
  } else {
    return A::fixedSize;
  }
}

template <class A>
std::byte* put(std::byte* at, const A& argument, std::size_t textLimit) {
  if constexpr (std::same_as<A, TextArgument>) {
    const std::size_t size = std::min(argument.text.size(), textLimit);
    const std::uint32_t sizes[2] = {
        static_cast<std::uint32_t>(size),
        static_cast<std::uint32_t>(std::min<std::size_t>(argument.text.size(), UINT32_MAX))};
    std::memcpy(at, sizes, sizeof sizes);
    if (size != 0) std::memcpy(at + sizeof sizes, argument.text.data(), size);
    return at + A::fixedSize + roundUp8(size);
  } else {
    std::uint64_t words[A::fixedSize / 8] = {};
    std::memcpy(words, &argument.stored, sizeof argument.stored);
    std::memcpy(at, words, sizeof words);
    return at + A::fixedSize;
  }
}

template <class... Stored>
void recordArguments(CallSite& site, const Stored&... stored) {
  static constexpr std::array<Kind, sizeof...(Stored)> kinds{Stored::kind...};
  constexpr std::size_t fixed = sizeof(RecordHeader) + (std::size_t{0} + ... + Stored::fixedSize);
  constexpr std::size_t texts = (std::size_t{0} + ... + (Stored::kind == Kind::text ? 1u : 0u));
  std::size_t textLimit = 0;
  if constexpr (texts != 0) {
    const std::size_t room = largestRecord > fixed ? largestRecord - fixed : 0;
    textLimit = room / texts & ~std::size_t{7};
  }
  const std::size_t size = sizeof(RecordHeader) + (std::size_t{0} + ... + sizeOf(stored, textLimit));
  const OpenRecord record = openRecord(site, kinds.data(), static_cast<std::uint16_t>(kinds.size()),
                                       static_cast<std::uint32_t>(size));
  if (!record.at) return;
  [[maybe_unused]] std::byte* at = record.at + sizeof(RecordHeader);
  ((at = put(at, stored, textLimit)), ...);
  closeRecord(record);
}

template <std::size_t Placeholders, class... Args>
void record(CallSite& site, const Args&... args) {
  static_assert(Placeholders == sizeof...(Args), "one {} in the format an argument");
  static_assert(sizeof...(Args) <= 24, "at most 24 arguments");
  recordArguments(site, argumentOf(args)...);
}

}  // namespace Tracelet

#define TRACELET_RECORD(format, ...) \
  TRACELET_RECORD_AT(::Tracelet::kDefaultLevel, format __VA_OPT__(, ) __VA_ARGS__)

// `level` is a constant of 0 to 5, `format` a literal.
#define TRACELET_RECORD_AT(level, format, ...)                                                             \
  do {                                                                                                     \
    static_assert((level) >= 0 && (level) < ::Tracelet::kLevels);                                          \
    static constinit ::Tracelet::CallSite traceletSite{format, ::Tracelet::sourceName(__FILE__), __LINE__, \
                                                       level};                                             \
    ::Tracelet::record<::Tracelet::placeholders(format)>(traceletSite __VA_OPT__(, ) __VA_ARGS__);         \
  } while (false)
