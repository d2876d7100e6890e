#include "Tracelet/Trace.h"

#include <limits.h>
#include <poll.h>
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
  bool waits = true;
  std::size_t lost = 0;  // lines that standard error did not take
};

Registry& registry() {
  static auto* registry = new Registry;
  return *registry;
}

// Whether all of it was taken. What is writable takes a piece of that size without waiting (pipe(7)).
bool write(std::string_view text) {
  while (!text.empty()) {
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    if (poll(&standardError, 1, registry().waits ? -1 : 0) == 0) return false;
    const ssize_t written = ::write(STDERR_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written < 0) return true;  // nobody is there to read it
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
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

void waitsIs(bool waits) { registry().waits = waits; }

void journalIs(bool journal) { registry().journal = journal; }

void writeLine(std::string_view given, Priority priority) {
  const std::string line = printable(given);
  if (registry().sink) {
    const TextSink sink = registry().sink;  // which may replace itself
    sink(line);
    return;
  }
  const auto whole = [](std::string_view text, Priority of) {
    std::string result;
    if (registry().journal) result = {'<', static_cast<char>(of), '>'};
    return result.append(text) += '\n';
  };
  std::size_t& lost = registry().lost;
  if (lost != 0 &&
      write(whole("log: " + std::to_string(lost) + " lines were lost: who reads them was too slow",
                  Priority::warning)))
    lost = 0;
  if (lost != 0 || !write(whole(line, priority))) ++lost;
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
