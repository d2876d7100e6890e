#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <tuple>

#include "Bridging/VlanId.h"
#include "Lanix/IpGenAddr.h"
#include "Statedb/Json.h"
#include "Tracelet/Reader.h"
#include "host/arpsup/Commands.h"
#include "host/arpsup/Output.h"

namespace Host {

namespace {

using nlohmann::ordered_json;

constexpr std::string_view kSuffix = ".tl";
constexpr int kFollowMs = 200;

// The parts of a line that Tracelet::Reader makes.
struct Line {
  std::string_view time;
  int level = 0;
  std::string_view source;
  std::string_view number;  // in the source
  std::string_view text;
};

std::string_view untilBlank(std::string_view& rest) {
  const std::size_t end = std::min(rest.find(' '), rest.size());
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return part;
}

Line parts(std::string_view line) {
  Line result;
  result.time = untilBlank(line);
  const std::string_view level = untilBlank(line);
  result.level = level.size() == 1 ? level.front() - '0' : 0;
  result.source = untilBlank(line);
  const std::size_t colon = result.source.rfind(':');
  if (colon != std::string_view::npos) {
    result.number = result.source.substr(colon + 1);
    result.source = result.source.substr(0, colon);
  }
  result.text = line;
  return result;
}

// Whether `word` stands in the text as a whole: 10.0.0.1 is not in 10.0.0.10.
bool hasWord(std::string_view text, std::string_view word) {
  const auto inWord = [](char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) || c == '.' || c == ':';
  };
  for (std::size_t at = text.find(word); at != std::string_view::npos; at = text.find(word, at + 1)) {
    const std::size_t end = at + word.size();
    if ((at == 0 || !inWord(text[at - 1])) && (end == text.size() || !inWord(text[end]))) return true;
  }
  return false;
}

bool wanted(const TraceOptions& options, const Line& line) {
  if (line.level > options.level) return false;
  if (!options.vlan.empty() && !hasWord(line.text, "vlanId=" + options.vlan) &&
      !hasWord(line.text, "<" + options.vlan + ";")) {
    return false;
  }
  if (!options.ip.empty() && !hasWord(line.text, options.ip)) return false;
  return std::all_of(options.texts.begin(), options.texts.end(), [&](const std::string& text) {
    return line.text.find(text) != std::string_view::npos || line.source.find(text) != std::string_view::npos;
  });
}

struct Ring {
  std::string file;
  std::unique_ptr<Tracelet::Reader> reader;
  bool latest = false;       // of the process that has the run directory, or had it last
  std::int64_t changed = 0;  // in nanoseconds; of a file in memory the start of its writer
};

// The rings of a directory, those of the newest process first.
class Rings {
 public:
  Rings(std::string directory, const std::string& runDirectory)
      : directory_(std::move(directory)), lockFile_(runDirectory + "/lock") {}

  // Takes in what came since the last look; what cannot be read is reported once. Refused when the directory
  // cannot be read.
  Mox::Result<> look() {
    DIR* const listing = opendir(directory_.c_str());
    if (!listing) {
      const int number = errno;
      return Mox::Failure{
          directory_ + ": " + std::strerror(number) +
              (number == EACCES ? "; run it as root"
                                : "; name the run directory of the agent-host with --run-dir"),
          number};
    }
    while (const dirent* entry = readdir(listing)) {
      const std::string name = entry->d_name;
      if (name.ends_with(kSuffix) && std::find(seen_.begin(), seen_.end(), name) == seen_.end()) take(name);
    }
    closedir(listing);
    if (denied_ > told_) {
      told_ = denied_;
      fail(kRefused, directory_ + ": " + std::to_string(denied_) +
                         " trace rings cannot be read: permission denied; run it as root");
    }
    std::sort(rings.begin(), rings.end(), [](const Ring& a, const Ring& b) {
      return std::tuple(b.latest, b.changed, b.reader->pid()) <
             std::tuple(a.latest, a.changed, a.reader->pid());
    });
    return {};
  }

  // Whether there are any that may not be read; that has been told.
  bool denied() const { return denied_ != 0; }

  std::vector<Ring> rings;

 private:
  void take(const std::string& name) {
    seen_.push_back(name);
    Ring ring;
    ring.file = directory_ + "/" + name;
    struct stat status {};
    if (stat(ring.file.c_str(), &status) == 0)
      ring.changed = std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
    ring.reader = std::make_unique<Tracelet::Reader>(ring.file);
    if (ring.reader->readable()) {
      std::uint32_t owner = 0;
      std::ifstream(lockFile_) >> owner;
      ring.latest = owner == ring.reader->pid();
      rings.push_back(std::move(ring));
    } else {
      if (ring.reader->readable().number() == EACCES) {
        ++denied_;  // all of them are told of in one line
      } else {
        fail(kRefused, ring.reader->readable().error() + "; it is left out");
      }
    }
  }

  const std::string directory_;
  const std::string lockFile_;
  std::vector<std::string> seen_;
  std::size_t denied_ = 0;
  std::size_t told_ = 0;  // of those
};

class Printer {
 public:
  Printer(const CommonOptions& options, const TraceOptions& trace) : options_(options), trace_(trace) {}

  // What these rings of one process have by now, in the order of time; false when nobody reads it.
  bool printProcess(std::vector<Ring>::iterator first, std::vector<Ring>::iterator last) {
    std::vector<std::string> lines;
    for (auto ring = first; ring != last; ++ring) {
      while (std::optional<std::string> line = ring->reader->next()) lines.push_back(std::move(*line));
    }
    if (last - first > 1) {
      std::stable_sort(lines.begin(), lines.end(), [](const std::string& a, const std::string& b) {
        return parts(a).time < parts(b).time;
      });
    }
    std::string text;
    for (const std::string& line : lines) {
      const Line part = parts(line);
      if (!wanted(trace_, part)) continue;
      ++count;
      text += options_.json ? jsonLine(part, first->reader->pid()) : line + "\n";
    }
    return text.empty() || print(text);
  }

  std::size_t count = 0;

 private:
  static std::string jsonLine(const Line& line, std::uint32_t pid) {
    return textOf({{"time", std::string(line.time)},
                   {"pid", pid},
                   {"level", line.level},
                   {"source", std::string(line.source)},
                   {"line", std::atoi(std::string(line.number).c_str())},
                   {"text", std::string(line.text)}}) +
           "\n";
  }

  const CommonOptions& options_;
  const TraceOptions& trace_;
};

std::vector<Ring>::iterator endOfProcess(std::vector<Ring>& rings, std::vector<Ring>::iterator first) {
  return std::find_if(first, rings.end(),
                      [&](const Ring& ring) { return ring.reader->pid() != first->reader->pid(); });
}

int follow(Rings& rings, Printer& printer) {
  Mox::Result<> looked;
  for (; looked; looked = rings.look()) {
    auto first = rings.rings.begin();
    while (first != rings.rings.end()) {
      const auto last = endOfProcess(rings.rings, first);
      if (!printer.printProcess(first, last)) return kRefused;
      first = last;
    }
    poll(nullptr, 0, kFollowMs);
  }
  return fail(looked.failure());
}

}  // namespace

int showTrace(const CommonOptions& options, const TraceOptions& trace) {
  if (!trace.vlan.empty() && !Bridging::VlanId::fromStrep(trace.vlan))
    return fail(kUsage, "--vlan " + Statedb::describe(trace.vlan) + " is not " + Bridging::VlanId::allowed());
  TraceOptions given = trace;
  if (!trace.ip.empty()) {
    const auto ip = Lanix::IpGenAddr::fromStrep(trace.ip);
    if (!ip) return fail(kUsage, "--ip " + Statedb::describe(trace.ip) + " is not an IPv4 or IPv6 address");
    given.ip = ip->toStrep();  // as it stands in the lines
  }
  const char* const set = std::getenv("TRACELETDIR");
  const std::string directory = set ? set : options.runDirectory;
  Rings rings(directory, options.runDirectory);
  if (const auto looked = rings.look(); !looked) return fail(looked.failure());
  if (rings.rings.empty() && rings.denied()) return kRefused;
  if (rings.rings.empty())
    return fail(kRefused, directory +
                              ": no trace ring is there that can be read; has an agent-host with the "
                              "plug-in ArpSuppression run there?");
  if (!rings.rings.front().latest)
    fail(kDone, "the last agent-host here has no trace ring; what follows is of an earlier one");
  Printer printer(options, given);
  if (trace.follow) {
    endsQuietly();
    rings.rings.erase(endOfProcess(rings.rings, rings.rings.begin()), rings.rings.end());
    return follow(rings, printer);
  }
  for (auto first = rings.rings.begin(); first != rings.rings.end();) {
    const auto last = endOfProcess(rings.rings, first);
    const std::uint32_t pid = first->reader->pid();
    const bool runs = first->latest && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
    const std::string heading =
        "== agent-host, process " + std::to_string(pid) + (runs ? ", running" : ", ended") + "\n";
    if (trace.all && !options.json && !print(heading)) return kRefused;
    if (!printer.printProcess(first, last)) return kRefused;
    first = trace.all ? last : rings.rings.end();
  }
  if (printer.count == 0)
    return fail(kRefused, "no trace record is like that; `arpsup trace` without options shows all");
  return kDone;
}

}  // namespace Host
