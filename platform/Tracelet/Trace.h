#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "Tracelet/Record.h"
#include "Tracelet/TextStream.h"

// Trace lines: text, for people; those above level 0 are off unless asked for.
//
//   Tracelet::Handle traceHandle("ArpSuppression");
//   TRACELET_TRACE(traceHandle, 8, "ArpSuppression/MessageTrapSm", *this << " vlanId=" << vlan);
//
// writes, when the level of "ArpSuppression" is 8 or more,
//
//   <UTC time> <handle> <source>:<line> <function's full signature> <text>
//
// While it is off, a trace costs one load and one predicted branch, and nothing of its expression is
// evaluated. A line is built completely before it is written: a trace inside a streamed expression makes its
// own, earlier line.
//
// Handles, levels and the sink belong to one thread, the one of the event loop.

namespace Tracelet {

// The initial level of every handle: what must not go unnoticed is traced at level 0.
inline constexpr int kErrorsOnly = 0;
// The level of a handle that writes nothing.
inline constexpr int kOff = -1;

// A name under which traces are switched on and off. Handles of one name share one level.
class Handle {
 public:
  explicit Handle(std::string name);
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle();

  const std::string& name() const { return name_; }
  bool on(int level) const { return level <= level_; }

 private:
  friend void levelIs(const std::string& name, int level);
  std::string name_;
  int level_ = kErrorsOnly;
};

// Traces of `level` and below are written for the handles of this name, those made later included.
void levelIs(const std::string& name, int level);
int level(const std::string& name);

// Where lines go, each without its newline; an empty function restores the default: standard error, one
// write(2) a line, whatever it does not take being lost.
using TextSink = std::function<void(std::string_view line)>;
void textSinkIs(TextSink sink);

// How grave a line is, as the system's journal tells them apart.
enum class Priority : char { error = '3', warning = '4', notice = '5', info = '6', debug = '7' };

// Writes one line to the sink; what in it is not printable as \xNN (Tracelet/Text.h), so that it is one line.
void writeLine(std::string_view line, Priority priority = Priority::notice);
// Whether writing to standard error waits for whoever reads it, as it does at first. A process that has better to do
// loses the lines that are not taken at once; how many is said before the first one that is taken again.
void waitsIs(bool waits);
// Whether standard error is the journal, which takes "<4>" at the beginning of a line for its priority.
void journalIs(bool journal);

// What TRACELET_TRACE makes; nothing else needs it.
void writeTrace(const Handle& handle, const char* source, int line, const char* function,
                const TextStream& text);

}  // namespace Tracelet

// `...` is a stream expression without its left end: a << " b=" << b.
#define TRACELET_TRACE(handle, level, source, ...)                                             \
  do {                                                                                         \
    if ((handle).on(level)) [[unlikely]] {                                                     \
      ::Tracelet::TextStream traceletText;                                                     \
      traceletText << __VA_ARGS__;                                                             \
      ::Tracelet::writeTrace((handle), (source), __LINE__, __PRETTY_FUNCTION__, traceletText); \
    }                                                                                          \
  } while (false)
