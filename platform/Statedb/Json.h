#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Mox/Error.h"
#include "Mox/Ptr.h"
#include "Mox/Result.h"
#include "Mox/Strep.h"

// JSON of value types: what stands in attributes, in collections and in the entries of shared-memory tables.
//
//   bool, integers, floating point  the same; an integer must fit its C++ type
//   named enumerations              a string: the name
//   composite values (moxFields)    an object of those fields; a partial object changes those fields only,
//                                   null puts a field back to its default
//   lists (std::vector, std::set)   an array, which replaces the whole list
//   numbers in a class              a number: types whose value() is an integer that is also their text
//   other types with toStrep        a string
//
// A value type may say what it accepts in `static const char* allowed()` ("a VLAN id from 1 to 4094");
// refusals quote it. Texts that are not UTF-8 (the kernel's names may be any bytes) keep their bytes in the
// JSON value, and jsonText puts U+FFFD where it cannot write one.

namespace Statedb {

// One line, without spaces; never throws.
std::string jsonText(const nlohmann::json& json);
void appendJsonText(std::string& text, std::string_view string);
// Nothing when the text is not exactly one JSON value. Never throws.
std::optional<nlohmann::json> jsonOf(std::string_view text);
// How a message shows a value: scalars as they are, long strings cut, "a list", "an object".
std::string describe(const nlohmann::json& json);
// A refusal with its place (".mac", "[3]") in front.
Mox::Result<> within(const std::string& place, Mox::Result<> result);

// A reference to an object of this process has no JSON.
template <class T>
inline constexpr bool isReference = false;
template <class T>
inline constexpr bool isReference<Mox::Ptr<T>> = true;

template <class T>
concept ListValue =
    !std::convertible_to<T, std::string_view> && requires(T list, typename T::value_type element) {
  list.insert(list.end(), element);
  list.begin();
};
template <class T>
concept HasNumber = std::is_class_v<T> && !Mox::HasFields<T> && requires(const T& value) {
  { value.value() } -> std::integral;
}
&&(std::constructible_from<T, std::uint32_t> || requires { T::fromNumber(std::uint64_t{}); });

// Whether the type's text is its number: a label or a VLAN id, but not an address that has a number too.
template <class T>
bool writtenAsNumber() {
  if constexpr (HasNumber<T> && std::default_initializable<T>) {
    static const bool same = Mox::toStrep(T{}) == std::to_string(T{}.value());
    return same;
  } else {
    return false;
  }
}

// What a refusal says is allowed.
template <class T>
std::string allowedFor() {
  if constexpr (requires {
                  { T::allowed() } -> std::convertible_to<std::string>;
                }) {
    return T::allowed();
  } else if constexpr (std::same_as<T, bool>) {
    return "true or false";
  } else if constexpr (std::integral<T>) {
    return "a number from " + std::to_string(std::numeric_limits<T>::min()) + " to " +
           std::to_string(std::numeric_limits<T>::max());
  } else if constexpr (std::floating_point<T>) {
    return "a number";
  } else if constexpr (Mox::NamedEnum<T>) {
    std::string names;
    for (const auto& name : moxEnumNames(T{}))
      names += (names.empty() ? "\"" : ", \"") + std::string(name) + "\"";
    return "one of " + names;
  } else if constexpr (std::same_as<T, std::string>) {
    return "a string";
  } else if constexpr (Mox::HasFields<T>) {
    std::string names;
    std::apply(
        [&](const auto&... field) {
          ((names += (names.empty() ? "" : ", ") + std::string(field.name)), ...);
        },
        T::moxFields());
    return "an object of " + names;
  } else if constexpr (ListValue<T>) {
    return "a list";
  } else if constexpr (std::default_initializable<T>) {
    const std::string example = Mox::toStrep(T{});
    if (writtenAsNumber<T>()) return "an allowed number";
    return example.empty() ? "an allowed string" : "a string like \"" + example + "\"";
  } else {
    return "an allowed string";
  }
}

template <class T>
nlohmann::json valueToJson(const T& value) {
  if constexpr (std::is_arithmetic_v<T>) {
    return value;
  } else if constexpr (Mox::HasFields<T>) {
    nlohmann::json object = nlohmann::json::object();
    std::apply(
        [&](const auto&... field) { ((object[field.name] = valueToJson(value.*(field.member))), ...); },
        T::moxFields());
    return object;
  } else if constexpr (ListValue<T>) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& element : value) list.push_back(valueToJson<typename T::value_type>(element));
    return list;
  } else {
    if constexpr (HasNumber<T>) {
      if (writtenAsNumber<T>()) return value.value();
    }
    return Mox::toStrep(value);
  }
}

// Appends jsonText(valueToJson(value)), without making the JSON value first.
template <class T>
void appendValueText(std::string& text, const T& value);

template <class T, std::size_t I>
void appendField(std::string& text, const T& value) {
  const auto field = std::get<I>(T::moxFields());
  appendJsonText(text, field.name);
  text += ':';
  appendValueText(text, value.*(field.member));
}

// A writer for each field, in the order of their names, which is that of JSON objects.
template <class T>
const auto& fieldWriters() {
  static const auto sorted = []<std::size_t... I>(std::index_sequence<I...>) {
    using Writer = std::pair<std::string_view, void (*)(std::string&, const T&)>;
    std::array all{Writer{std::get<I>(T::moxFields()).name, &appendField<T, I>}...};
    std::ranges::sort(all, {}, &Writer::first);
    return all;
  }
  (std::make_index_sequence<std::tuple_size_v<decltype(T::moxFields())>>());
  return sorted;
}

template <class T>
void appendValueText(std::string& text, const T& value) {
  if constexpr (std::same_as<T, bool>) {
    text += value ? "true" : "false";
  } else if constexpr (std::integral<T>) {
    std::array<char, std::numeric_limits<T>::digits10 + 3> digits;
    text.append(digits.data(), std::to_chars(digits.begin(), digits.end(), value).ptr);
  } else if constexpr (std::is_arithmetic_v<T>) {
    text += jsonText(value);
  } else if constexpr (Mox::HasFields<T>) {
    char before = '{';
    for (const auto& writer : fieldWriters<T>()) {
      text += std::exchange(before, ',');
      writer.second(text, value);
    }
    text += '}';
  } else if constexpr (ListValue<T>) {
    text += '[';
    const char* before = "";
    for (const auto& element : value) {
      text += std::exchange(before, ",");
      appendValueText<typename T::value_type>(text, element);
    }
    text += ']';
  } else {
    if constexpr (HasNumber<T>) {
      if (writtenAsNumber<T>()) return appendValueText(text, value.value());
    }
    appendJsonText(text, Mox::toStrep(value));
  }
}

template <class T>
std::string valueText(const T& value) {
  std::string text;
  appendValueText(text, value);
  return text;
}

// The value of a text, also when the type's own parser or constructor raises a range error.
template <class T>
std::optional<T> textToValue(std::string_view text) {
  if constexpr (requires { T::fromStrep(text); } || std::same_as<T, std::string> || std::is_arithmetic_v<T> ||
                Mox::NamedEnum<T> || Mox::HasFields<T>) {
    try {
      return Mox::fromStrep<T>(text);
    } catch (const Mox::Error&) {
    }
  }
  return std::nullopt;
}

// Merges JSON into `value`. A refusal's text is what follows the value's own name: ".mac: 5 is not a string
// like ...", ": 70000 is not a number from 0 to 65535". `value` is then unspecified.
template <class T>
Mox::Result<> mergeValue(const nlohmann::json& json, T& value);

template <class T>
std::optional<T> numberToValue(const nlohmann::json& json) {
  if (!json.is_number_unsigned() && !(json.is_number_integer() && json.get<std::int64_t>() >= 0))
    return std::nullopt;
  const std::uint64_t number = json.get<std::uint64_t>();
  try {
    if constexpr (requires { T::fromNumber(number); }) {
      return T::fromNumber(number);
    } else {
      if (number <= UINT32_MAX) return T(static_cast<std::uint32_t>(number));
    }
  } catch (const Mox::Error&) {
  }
  return std::nullopt;
}

template <class T>
std::optional<T> scalarToValue(const nlohmann::json& json) {
  if constexpr (std::same_as<T, bool>) {
    if (json.is_boolean()) return json.get<bool>();
  } else if constexpr (std::integral<T>) {
    if (json.is_number_unsigned()) {
      const std::uint64_t number = json.get<std::uint64_t>();
      if (std::in_range<T>(number)) return static_cast<T>(number);
    } else if (json.is_number_integer()) {
      const std::int64_t number = json.get<std::int64_t>();
      if (std::in_range<T>(number)) return static_cast<T>(number);
    }
  } else if constexpr (std::floating_point<T>) {
    if (json.is_number()) return static_cast<T>(json.get<double>());
  } else {
    if constexpr (HasNumber<T>) {
      if (writtenAsNumber<T>()) return numberToValue<T>(json);
    }
    if (json.is_string()) return textToValue<T>(json.get_ref<const std::string&>());
  }
  return std::nullopt;
}

template <class T>
Mox::Result<> mergeFields(const nlohmann::json& json, T& value) {
  for (auto item = json.begin(); item != json.end(); ++item) {
    bool known = false;
    Mox::Result<> merged;
    std::apply(
        [&](const auto&... field) {
          (
              [&](const auto& f) {
                if (item.key() != f.name) return;
                known = true;
                auto& part = value.*(f.member);
                if (item.value().is_null()) {
                  part = T{}.*(f.member);
                } else {
                  merged = within("." + std::string(f.name), mergeValue(item.value(), part));
                }
              }(field),
              ...);
        },
        T::moxFields());
    if (!known)
      return Mox::Failure{": unknown key " + describe(item.key()) + "; allowed is " + allowedFor<T>()};
    if (!merged) return merged;
  }
  return {};
}

template <class T>
Mox::Result<> mergeValue(const nlohmann::json& json, T& value) {
  if constexpr (Mox::HasFields<T>) {
    if (json.is_object()) return mergeFields(json, value);
  } else if constexpr (ListValue<T>) {
    if (json.is_array()) {
      T list;
      for (std::size_t i = 0; i < json.size(); ++i) {
        typename T::value_type element{};
        if (const auto merged = mergeValue(json[i], element); !merged)
          return within("[" + std::to_string(i) + "]", merged);
        list.insert(list.end(), std::move(element));
      }
      value = std::move(list);
      return {};
    }
  } else if (std::optional<T> scalar = scalarToValue<T>(json)) {
    value = std::move(*scalar);
    return {};
  }
  return Mox::Failure{": " + describe(json) + " is not " + allowedFor<T>()};
}

}  // namespace Statedb
