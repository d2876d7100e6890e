#include "KernelState/FdbReading.h"

#include <algorithm>

namespace KernelState {
namespace {

// So many more entries than there is room for, or so many of a tunnel port, and it is not read to its end.
constexpr std::size_t kTooMany = 4096;
constexpr double kFirstDelay = 1;  // seconds
constexpr double kLastDelay = 60;
constexpr unsigned kLevel = 4;

}  // namespace

FdbReading::FdbReading(Ptr<const NamespaceState> state, PortRoom& room,
                       const Ptr<Orb::TaskScheduler>& scheduler, std::function<void()> read)
    : state_(std::move(state)),
      room_(room),
      read_(std::move(read)),
      delay_(kFirstDelay),
      task_(scheduler, "KernelState ports with room", kLevel, [this] {
        if (!room_.open().empty()) read_();
      }) {}

void FdbReading::begin(bool everything) {
  everything_ = everything;
  asked_ = !everything;
  ports_ = everything ? std::vector<IfIndex>() : room_.open();
  looked_ = {ports_.begin(), ports_.end()};
  refused_.clear();
  heard_.clear();
  cut_.clear();
}

std::optional<Netlink::Message> FdbReading::next() {
  if (!std::exchange(asked_, true)) return Netlink::dumpRequest(Netlink::Table::macs);
  if (ports_.empty()) return std::nullopt;
  const IfIndex port = ports_.back();
  ports_.pop_back();
  return Netlink::macDump(port);
}

void FdbReading::refuse(IfIndex port) { ++refused_[port]; }

bool FdbReading::enough() {
  const auto over = [this](const std::map<IfIndex, std::size_t>& entries, std::size_t most) {
    const auto at = std::ranges::find_if(
        entries, [&](const auto& port) { return port.second > most && !cut_.contains(port.first); });
    return at == entries.end() ? IfIndex{0} : at->first;
  };
  IfIndex port = over(refused_, everything_ ? kTooMany : 0);
  if (port == 0) port = over(heard_, kTooMany);
  if (port == 0) return false;
  const bool first = everything_ && cut_.empty();
  cut_.insert(port);
  if (first) {
    for (const auto& [other, link] : state_->linkCollection())
      if (link.bridge != 0 && other != port) ports_.push_back(other);
  }
  return true;
}

void FdbReading::end() {
  bool left = false;
  for (const IfIndex port : room_.full()) {
    if (!refused_.contains(port) && (everything_ || looked_.contains(port))) {
      room_.accept(port);
    } else {
      left = true;
    }
  }
  delay_ = left ? std::min(delay_ * 2, kLastDelay) : kFirstDelay;
}

}  // namespace KernelState
