#pragma once

#include <string>
#include <string_view>

namespace Host {

// Lays out JSON text for people while it comes in pieces: one member or element a line, indented by 2; the
// innermost objects and lists stay on one line when they are short, so that an entry of a table is one line.
// The text is taken to be right and without spaces of its own.
class PrettyJson {
 public:
  // What can be written by now.
  std::string next(std::string_view piece);

 private:
  static constexpr std::size_t kShort = 80;

  // Tells what stands outside of strings.
  class Scan {
   public:
    bool structural(char c);

   private:
    bool inString_ = false;
    bool escaped_ = false;
  };

  void put(char c, std::string& text);
  void putAll(std::string& text);
  void putOnOneLine(std::string& text);

  Scan arriving_;
  std::string held_;  // from an opening bracket on, while it may still stay on one line
  Scan leaving_;
  std::size_t depth_ = 0;
  bool opened_ = false;  // the last character that left was an opening bracket
};

}  // namespace Host
