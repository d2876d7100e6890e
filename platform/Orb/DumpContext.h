#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Mox/Ptr.h"

namespace Orb {

// Writes a state dump to a descriptor, one object a line, children indented below their parent.
//
// Every dumpable class has `void dumpState(DumpContext&, int indent) const`, which prints its header line,
// its own attributes as "name=value" lines with the same indent, and its children with an indent larger by 2.
// An object that was dumped before in this context is not dumped again: a line refers to the line of its
// first dump (counted from 1).
//
// The text goes out in large pieces, the last one with the destructor. Once the descriptor refuses some (a
// pipe that is full and does not block, a reader that has gone) the rest is lost. Without a descriptor (-1)
// the text is kept.
class DumpContext {
 public:
  explicit DumpContext(int descriptor) : descriptor_(descriptor) {}
  DumpContext(const DumpContext&) = delete;
  DumpContext& operator=(const DumpContext&) = delete;
  ~DumpContext();

  // `text` without the newline.
  void line(int indent, std::string_view text);
  template <class Value>
  void attribute(int indent, const char* name, const Value& value) {
    line(indent, std::string(name) + "=" + asText(value));
  }

  // One child, `typeName` being what a reference to it calls it.
  template <class T>
  void child(int indent, const T* object, const char* typeName) {
    if (!object) {
      line(indent, "NULL");
    } else if (const std::uint32_t before = dumpedAt(object)) {
      line(indent, std::string(typeName) + " dumped at line " + std::to_string(before));
    } else {
      object->dumpState(*this, indent);
    }
  }
  template <class T>
  void child(int indent, const Mox::Ptr<T>& object, const char* typeName) {
    child(indent, static_cast<const T*>(object.get()), typeName);
  }

  // Text of another facility, made of whole lines.
  void raw(int indent, std::string_view text);

  // What was not written yet.
  const std::string& text() const { return text_; }

 private:
  static std::string asText(bool value) { return value ? "true" : "false"; }
  static std::string asText(const std::string& value) { return value; }
  static std::string asText(const char* value) { return value; }
  template <class Number>
  static std::string asText(const Number& value) {
    return std::to_string(value);
  }
  void flush();
  // The line of the first dump, or 0 and the object is marked as dumped at the next line.
  std::uint32_t dumpedAt(const void* object);

  int descriptor_;
  std::string text_;
  std::uint32_t lines_ = 0;
  std::unordered_map<const void*, std::uint32_t> dumped_;
};

}  // namespace Orb
