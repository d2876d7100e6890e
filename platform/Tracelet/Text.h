#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Tracelet {

// "2026-01-31T12:00:00.123456Z", of nanoseconds since 1970 in UTC.
std::string timeText(std::uint64_t nanoseconds);

// What a text begins with, read as UTF-8.
enum class Character {
  printable,
  control,  // U+0000 to U+001F and U+007F to U+009F: terminals obey them
  invalid,  // a byte that is in no character, in one that is cut short, or in a longer form than it needs
};
struct FirstCharacter {
  Character character;
  std::size_t size;  // in bytes, at least 1
};
// Of a text that is not empty.
FirstCharacter firstCharacter(std::string_view text);

// Text from outside as it may be shown to people: what is not printable is written as \xNN, a byte each. So
// it is one line, and a terminal obeys none of it.
void appendPrintable(std::string& to, std::string_view text);
std::string printable(std::string_view text);
// The same of each of the lines of a text, whose newlines stay.
std::string printableLines(std::string_view text);

}  // namespace Tracelet
