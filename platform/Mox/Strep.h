#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Mox {

using String = std::string;

// String representations. A value type has
//   std::string toStrep() const;  static std::optional<T> fromStrep(std::string_view);
// an enumeration has a constexpr function moxEnumNames(E) that ADL finds and that returns an array of names
// indexed by value; a composite value lists its fields once,
//   static constexpr auto moxFields() { return std::tuple(Mox::Field("mac", &ArpEntry::mac), ...); }
// and its string form is its parts joined by one space.

template <class Owner, class Type>
struct Field {
  constexpr Field(const char* name, Type Owner::*member) : name(name), member(member) {}
  const char* name;
  Type Owner::*member;
};

template <class T>
concept HasFields = requires {
  T::moxFields();
};
template <class T>
concept HasStrep = requires(const T& value) {
  { value.toStrep() } -> std::convertible_to<std::string>;
};
template <class T>
concept NamedEnum = std::is_enum_v<T> && requires(T value) {
  moxEnumNames(value);
};

template <class T>
std::string toStrep(const T& value) {
  if constexpr (HasStrep<T>) {
    return value.toStrep();
  } else if constexpr (std::convertible_to<T, std::string_view>) {
    return std::string(std::string_view(value));
  } else if constexpr (std::same_as<T, bool>) {
    return value ? "true" : "false";
  } else if constexpr (NamedEnum<T>) {
    const auto& names = moxEnumNames(value);
    const auto index = static_cast<std::size_t>(value);
    return index < std::size(names) ? std::string(names[index]) : std::to_string(index);
  } else if constexpr (std::is_arithmetic_v<T>) {
    return std::to_string(value);
  } else {
    static_assert(HasFields<T>, "a value type needs toStrep or moxFields");
    std::string text;
    const char* separator = "";
    std::apply(
        [&](const auto&... field) {
          ((text += std::exchange(separator, " ") + toStrep(value.*(field.member))), ...);
        },
        T::moxFields());
    return text;
  }
}

// Nothing when the text is not exactly one value of the type.
template <class T>
std::optional<T> fromStrep(std::string_view text) {
  if constexpr (requires { T::fromStrep(text); }) {
    return T::fromStrep(text);
  } else if constexpr (std::same_as<T, std::string>) {
    return std::string(text);
  } else if constexpr (std::same_as<T, bool>) {
    if (text == "true") return true;
    if (text == "false") return false;
    return std::nullopt;
  } else if constexpr (NamedEnum<T>) {
    const auto& names = moxEnumNames(T{});
    for (std::size_t i = 0; i < std::size(names); ++i) {
      if (text == names[i]) return static_cast<T>(i);
    }
    return std::nullopt;
  } else if constexpr (std::is_arithmetic_v<T>) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
  } else {
    static_assert(HasFields<T>, "a value type needs fromStrep or moxFields");
    T value{};
    bool good = true;
    bool first = true;
    std::apply(
        [&](const auto&... field) {
          (
              [&](const auto& f) {
                if (!first) {
                  good = good && !text.empty() && text.front() == ' ';
                  if (good) text.remove_prefix(1);
                }
                first = false;
                using Part = std::remove_cvref_t<decltype(value.*(f.member))>;
                const std::size_t end = text.find(' ');
                const auto part = good ? fromStrep<Part>(text.substr(0, end)) : std::nullopt;
                good = good && part;
                if (part) value.*(f.member) = *part;
                text.remove_prefix(end == std::string_view::npos ? text.size() : end);
              }(field),
              ...);
        },
        T::moxFields());
    if (!good || !text.empty()) return std::nullopt;
    return value;
  }
}

}  // namespace Mox
