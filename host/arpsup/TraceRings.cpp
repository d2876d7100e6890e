#include "host/arpsup/TraceRings.h"

#include <dirent.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <tuple>

#include "Statedb/Json.h"
#include "Tracelet/Text.h"
#include "host/arpsup/Output.h"

namespace Host {

namespace {

constexpr std::string_view kSuffix = ".tl";
constexpr int kFollowMs = 200;

std::string_view untilBlank(std::string_view& rest) {
  const std::size_t end = std::min(rest.find(' '), rest.size());
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return part;
}

// As `strptime` reads it to the end, in UTC.
std::optional<std::time_t> timeOf(const std::string& text, const char* format, std::tm broken) {
  const char* const end = strptime(text.c_str(), format, &broken);
  if (!end || *end != '\0') return std::nullopt;
  return timegm(&broken);
}

std::optional<std::time_t> secondsAgo(const std::string& text) {
  constexpr std::string_view kUnits = "smhd";
  constexpr std::time_t kSeconds[] = {1, 60, 3600, 86400};
  const std::size_t unit = text.empty() ? std::string_view::npos : kUnits.find(text.back());
  const std::size_t digits = text.size() - 1;
  if (unit == std::string_view::npos || digits == 0 || digits > 6 ||
      text.find_first_not_of("0123456789") != digits)
    return std::nullopt;
  return std::stol(text) * kSeconds[unit];
}

}  // namespace

TraceLine partsOf(std::string_view line) {
  TraceLine result;
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

Mox::Result<std::string> timeSince(const std::string& since) {
  if (since.empty()) return since;
  const std::time_t now = std::time(nullptr);
  std::tm today{};
  gmtime_r(&now, &today);
  today.tm_sec = 0;
  std::tm midnight = today;
  midnight.tm_hour = midnight.tm_min = 0;
  std::optional<std::time_t> at;
  if (const auto ago = secondsAgo(since)) at = now - *ago;
  std::string given = since;
  if (given.ends_with('Z')) given.pop_back();
  for (const char* format : {"%H:%M:%S", "%H:%M", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
                             "%Y-%m-%d %H:%M", "%Y-%m-%d"})
    if (!at) at = timeOf(given, format, midnight);
  if (!at || *at < 0)
    return Mox::Failure{
        "--since " + Statedb::describe(since) +
        " is not a time: 10m, 2h or 1d ago, 09:30 today, or like 2026-01-31T09:30:00, in UTC"};
  return Tracelet::timeText(static_cast<std::uint64_t>(*at) * 1'000'000'000u);
}

// --- The rings ---------------------------------------------------------------------------------------------

TraceRings::TraceRings(const CommonOptions& options)
    : directory_(std::getenv("TRACELETDIR") ? std::getenv("TRACELETDIR") : options.runDirectory),
      lockFile_(options.runDirectory + "/lock") {}

Mox::Result<> TraceRings::look() {
  DIR* const listing = opendir(directory_.c_str());
  if (!listing) {
    const int number = errno;
    return Mox::Failure{directory_ + ": " + std::strerror(number) +
                            (number == EACCES ? "; run it as root, or as a member of the group arpsup"
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
                       " trace rings cannot be read: permission denied; run it as root, or as a member of "
                       "the group arpsup");
  }
  std::sort(rings.begin(), rings.end(), [](const TraceRing& a, const TraceRing& b) {
    return std::tuple(b.latest, b.changed, b.reader->pid()) <
           std::tuple(a.latest, a.changed, a.reader->pid());
  });
  return {};
}

int TraceRings::open() {
  if (const auto looked = look(); !looked) return fail(looked.failure());
  if (!rings.empty()) return kDone;
  if (denied_ != 0) return kRefused;
  return fail(kRefused, directory_ +
                            ": no trace ring is there that can be read; has an agent-host with the plug-in "
                            "ArpSuppression run there?");
}

void TraceRings::take(const std::string& name) {
  seen_.push_back(name);
  TraceRing ring;
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

int followRings(TraceRings& rings, const std::function<bool()>& print) {
  endsQuietly();
  Mox::Result<> looked;
  for (; looked; looked = rings.look()) {
    if (!print()) return kRefused;
    poll(nullptr, 0, kFollowMs);
  }
  return fail(looked.failure());
}

}  // namespace Host
