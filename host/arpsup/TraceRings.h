#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Mox/Result.h"
#include "Tracelet/Reader.h"
#include "host/arpsup/Commands.h"

// The trace rings of the agent-host and of those before it, as the commands that read them share them.

namespace Host {

// The parts of a line that Tracelet::Reader makes.
struct TraceLine {
  std::string_view time;
  int level = 0;
  std::string_view source;
  std::string_view number;  // in the source
  std::string_view text;
};
TraceLine partsOf(std::string_view line);

// Whether `word` stands in the text as a whole: 10.0.0.1 is not in 10.0.0.10.
bool hasWord(std::string_view text, std::string_view word);

// "10m" (seconds, minutes, hours, days ago), "09:30[:15]" (today) and "2026-01-31[T09:30[:15]]", all in UTC,
// as the times of lines, so that texts compare. "" is the beginning of time.
Mox::Result<std::string> timeSince(const std::string& since);

struct TraceRing {
  std::string file;
  std::unique_ptr<Tracelet::Reader> reader;
  bool latest = false;       // of the process that has the run directory, or had it last
  std::int64_t changed = 0;  // in nanoseconds; of a file in memory the start of its writer
};

// The rings of a directory, those of the newest process first.
class TraceRings {
 public:
  explicit TraceRings(const CommonOptions& options);

  // Takes in what came since the last look; what cannot be read is reported once. Refused when the directory
  // cannot be read.
  Mox::Result<> look();
  // The first look, and the exit status when there is nothing to read then, which has been told.
  int open();

  std::vector<TraceRing> rings;

 private:
  void take(const std::string& name);

  const std::string directory_;
  const std::string lockFile_;
  std::vector<std::string> seen_;
  std::size_t denied_ = 0;
  std::size_t told_ = 0;  // of those
};

// Looks again and again, `print` writing what is new, until that is false or the directory has gone. Returns
// the exit status.
int followRings(TraceRings& rings, const std::function<bool()>& print);

}  // namespace Host
