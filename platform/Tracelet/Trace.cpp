#include "Tracelet/Trace.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <utility>
#include <vector>

#include "Tracelet/Text.h"

namespace Tracelet {

namespace {

// Never destroyed: handles of static storage unregister in any order at exit.
struct Registry {
  std::vector<Handle*> handles;
  std::map<std::string, int> levels;
  TextSink sink;
  bool journal = false;
};

Registry& registry() {
  static auto* registry = new Registry;
  return *registry;
}

}  // namespace

Handle::Handle(std::string name) : name_(std::move(name)), level_(level(name_)) {
  registry().handles.push_back(this);
}

Handle::~Handle() { std::erase(registry().handles, this); }

void levelIs(const std::string& name, int level) {
  registry().levels[name] = level;
  for (Handle* handle : registry().handles) {
    if (handle->name_ == name) handle->level_ = level;
  }
}

int level(const std::string& name) {
  const auto at = registry().levels.find(name);
  return at == registry().levels.end() ? kErrorsOnly : at->second;
}

void textSinkIs(TextSink sink) { registry().sink = std::move(sink); }

void journalIs(bool journal) { registry().journal = journal; }

void writeLine(std::string_view given, Priority priority) {
  const std::string line = printable(given);
  if (registry().sink) {
    const TextSink sink = registry().sink;  // which may replace itself
    sink(line);
    return;
  }
  std::string whole;
  if (registry().journal) whole = {'<', static_cast<char>(priority), '>'};
  whole += line;
  whole += '\n';
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, whole.data(), whole.size());
}

void writeTrace(const Handle& handle, const char* source, int line, const char* function,
                const TextStream& text) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::string whole = timeText(static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u +
                               static_cast<std::uint64_t>(now.tv_nsec));
  whole += ' ';
  whole += handle.name();
  whole += ' ';
  whole += source;
  whole += ':';
  whole += std::to_string(line);
  whole += ' ';
  whole += function;
  whole += ' ';
  whole += text.text();
  writeLine(whole, Priority::debug);
}

}  // namespace Tracelet
