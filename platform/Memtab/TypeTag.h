#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "Mox/Strep.h"

namespace Memtab {

// A type's name as the compilers spell it, namespaces included.
template <class T>
consteval std::string_view typeName() {
  // "... [with T = Lanix::EthAddr; ...]" or "... [T = Lanix::EthAddr]"
  std::string_view text = __PRETTY_FUNCTION__;
  text.remove_prefix(text.find("T = ") + 4);
  return text.substr(0, text.find_first_of(";]"));
}

namespace Detail {

constexpr std::uint64_t mixed(std::uint64_t tag, std::string_view text) {
  for (const char c : text) tag = (tag ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
  return tag;
}
constexpr std::uint64_t mixed(std::uint64_t tag, std::uint64_t number) {
  return (tag ^ number) * 0x100000001b3ULL;
}

template <class T>
constexpr std::uint64_t described(std::uint64_t tag) {
  tag = mixed(tag, sizeof(T));
  if constexpr (std::is_arithmetic_v<T>) {
    return mixed(tag, std::is_same_v<T, bool> ? "bool" : std::is_floating_point_v<T> ? "real" : "whole");
  } else if constexpr (Mox::HasFields<T>) {
    std::apply(
        [&]<class... Owner, class... Part>(const Mox::Field<Owner, Part>&... field) {
          ((tag = described<Part>(mixed(tag, field.name))), ...);
        },
        T::moxFields());
    return mixed(tag, typeName<T>());
  } else {
    return mixed(tag, typeName<T>());
  }
}

}  // namespace Detail

// Tells apart types that have the same size: differs when a class has another name, or when its fields
// (moxFields) have other names, sizes, types or another order. A class without fields is known by its name
// and size only: give it another name when its bytes get another meaning.
template <class T>
inline constexpr std::uint64_t kTypeTag = Detail::described<T>(0xcbf29ce484222325ULL);

}  // namespace Memtab
