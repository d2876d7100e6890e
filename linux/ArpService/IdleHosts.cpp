#include "ArpService/IdleHosts.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "ArpService/Neighbour.h"

namespace ArpService {
namespace {

constexpr double kLongestDelay = 1;
// A threshold is near from three quarters on, and below this nobody has raised it: the kernel's own is 128.
constexpr std::uint64_t kNear = 3, kFull = 4;
constexpr std::uint32_t kRaised = 1024;
// In one gc_stale_time there are so many rounds, and a host is asked in the one in which it has been idle for
// half of it or more: before three quarters have passed.
constexpr double kRounds = 4;
constexpr double kShareOfRounds = 0.01;
constexpr std::uint32_t kHighestWanted = 1U << 30;

}  // namespace

void IdleHosts::roundBegins() {
  for (Family& family : families_) {
    family.devices.clear();
    family.hasHosts = false;
  }
  hosts_.clear();
}

void IdleHosts::handleTable(const Netlink::NeighbourTable& table) {
  Family& family = families_[table.isIpv4 ? 0 : 1];
  if (table.ifIndex != 0) {
    family.devices[table.ifIndex] = table.gcStaleSeconds;
    return;
  }
  family.entries = table.entries;
  family.threshold = table.gcThreshold1;
  family.staleSeconds = table.gcStaleSeconds;
}

bool IdleHosts::isUnsafe(const Family& family) const {
  return family.entries * kFull >= family.threshold * kNear || (hasFeed_ && family.threshold < kRaised);
}

void IdleHosts::handleNeighbour(const Netlink::Neighbour& neighbour) {
  if (!neighbour.isResolved() || neighbour.isForeign()) return;
  Family& family = families_[neighbour.address.isIpv4() ? 0 : 1];
  family.hasHosts = true;
  if (!isStale(neighbour)) return;
  const auto device = family.devices.find(neighbour.ifIndex);
  const double stale = device == family.devices.end() ? family.staleSeconds : device->second;
  const double idle = std::min(neighbour.confirmedAgo, neighbour.usedAgo);
  if (neighbour.confirmedAgo >= refreshSeconds_ || (isUnsafe(family) && idle >= stale / 2))
    hosts_.push_back({neighbour.ifIndex, neighbour.address, idle});
}

void IdleHosts::roundEnds(double took) {
  roundSeconds_ = took;
  for (Family& family : families_) advise(family);
  std::ranges::sort(hosts_, {}, &Host::idle);
  const double batches = static_cast<double>(hosts_.size()) / kAtOnce;
  delay_ = std::clamp(period() / std::max(batches, 1.0), kAtOnce / kMostASecond, kLongestDelay);
}

// Tables that are full for a moment are nobody's concern.
void IdleHosts::advise(Family& family) {
  const bool wasCrowded =
      std::exchange(family.crowded, family.hasHosts && family.entries >= family.threshold);
  const bool lasts = family.advice && family.hasHosts && family.entries * kFull >= family.threshold * kNear;
  if (!lasts && !(wasCrowded && family.crowded)) return family.advice.reset();
  const std::uint32_t wanted = std::bit_ceil(std::min(family.entries, kHighestWanted / 2) * 2);
  family.advice = {family.threshold, std::max(wanted, family.advice ? family.advice->wanted : 0U)};
}

double IdleHosts::period() const {
  double seconds = std::max(refreshSeconds_ / kRounds, roundSeconds_ / kShareOfRounds);
  for (const Family& family : families_) {
    if (!isUnsafe(family) || !family.hasHosts) continue;
    seconds = std::min(seconds, family.staleSeconds / kRounds);
    for (const auto& [ifIndex, stale] : family.devices) seconds = std::min(seconds, stale / kRounds);
  }
  return seconds;
}

std::vector<IdleHosts::Host> IdleHosts::take() {
  const auto count = static_cast<std::ptrdiff_t>(std::min(hosts_.size(), kAtOnce));
  std::vector<Host> batch(hosts_.end() - count, hosts_.end());
  hosts_.erase(hosts_.end() - count, hosts_.end());
  return batch;
}

void IdleHostProblems::tell(const IdleHosts& hosts) {
  telling_.insert(&hosts);
  for (const bool isIpv4 : {true, false}) update(isIpv4);
}

void IdleHostProblems::gone(const IdleHosts& hosts) {
  telling_.erase(&hosts);
  for (const bool isIpv4 : {true, false}) update(isIpv4);
}

void IdleHostProblems::update(bool isIpv4) {
  std::optional<IdleHosts::Advice> advice;
  for (const IdleHosts* hosts : telling_) {
    const auto& own = hosts->advice(isIpv4);
    if (own && (!advice || own->wanted > advice->wanted)) advice = own;
  }
  const std::string subject = isIpv4 ? "idle IPv4 hosts" : "idle IPv6 hosts";
  if (!advice) return problems_.problemDel(subject);
  const std::string sysctl = std::string("net.") + (isIpv4 ? "ipv4" : "ipv6") + ".neigh.default.gc_thresh1";
  problems_.problemIs(subject,
                      "the kernel keeps more neighbours than " + sysctl + " allows, " +
                          std::to_string(advice->threshold) +
                          ", and drops idle ones: they are asked more often, so that it does not",
                      "sysctl -w " + sysctl + "=" + std::to_string(advice->wanted),
                      Switch::ProblemReporter::Left::some, Switch::Origin::perhapsStorm);
}

}  // namespace ArpService
