#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include "Mox/Ptr.h"
#include "Mox/Strep.h"

namespace Tracelet {

template <class T>
concept Streamable = requires(std::ostream& out, const T& value) {
  out << value;
};
// What Mox::toStrep prints besides numbers and texts.
template <class T>
concept ValueType = Mox::HasStrep<T> || Mox::NamedEnum<T> || Mox::HasFields<T>;

// The stream of a trace line: collects text in memory. What prints how:
//
//   texts               as they are; a null `const char*` is "NULL"
//   bool                "true" or "false"
//   char                the character; every other integer (8-bit ones too) as a number
//   value types         their string form (Mox::toStrep)
//   pointers, counted   "NULL", or what they point to when that prints, or the address
//   anything else       its operator<<: one for TextStream is preferred to one for std::ostream
class TextStream {
 public:
  const std::string& text() const { return text_; }

  TextStream& operator<<(std::string_view text) {
    text_ += text;
    return *this;
  }
  TextStream& operator<<(const char* text) { return *this << std::string_view(text ? text : "NULL"); }
  TextStream& operator<<(const std::string& text) { return *this << std::string_view(text); }
  TextStream& operator<<(bool value) { return *this << std::string_view(value ? "true" : "false"); }
  TextStream& operator<<(char value) {
    text_ += value;
    return *this;
  }
  template <class T>
  TextStream& operator<<(const Mox::Ptr<T>& pointer) {
    return streamPointer(pointer.get());
  }
  template <class T>
  TextStream& operator<<(const T& value) {
    if constexpr (std::is_pointer_v<T>) {
      return streamPointer(value);
    } else if constexpr (std::integral<T>) {
      char digits[24];
      const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
      return *this << std::string_view(digits, static_cast<std::size_t>(end - digits));
    } else if constexpr (ValueType<T>) {
      return *this << Mox::toStrep(value);
    } else {
      static_assert(Streamable<T>, "a traced value needs toStrep or operator<<");
      std::ostringstream out;
      out << value;
      return *this << out.str();
    }
  }

 private:
  template <class T>
  TextStream& streamPointer(T* pointer) {
    if (!pointer) return *this << std::string_view("NULL");
    if constexpr (ValueType<std::remove_const_t<T>>) {
      return *this << Mox::toStrep(*pointer);
    } else {
      std::ostringstream out;
      if constexpr (std::is_void_v<T>) {
        out << pointer;
      } else if constexpr (Streamable<T>) {
        out << *pointer;
      } else {
        out << static_cast<const void*>(pointer);
      }
      return *this << out.str();
    }
  }

  std::string text_;
};

}  // namespace Tracelet
