#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "Lanix/IpGenAddr.h"
#include "Netlink/Route.h"
#include "Switch/ProblemReporter.h"

namespace ArpService {

// Which hosts of one namespace are to be asked whether they are still there, and when.
//
// The kernel never asks stale neighbours by itself. Those of a small table stay for ever, so they are asked when
// the last proof is older than the refresh time. Once the table holds gc_thresh1 neighbours, of all namespaces
// and of whatever kind, stale ones are dropped unasked after gc_stale_time without proof and use: then, and
// when it may soon be so, they are asked after half of that.
//
// Fed by the rounds, each of which tells how the table is kept and then of every neighbour. What a round found
// is asked for in small batches until the next, those first that were idle longest. A round costs what the whole
// table costs: where nothing is lost by it, the next one waits so long that rounds take a hundredth of the time.
class IdleHosts {
 public:
  struct Host {
    Netlink::IfIndex ifIndex = 0;
    Lanix::IpGenAddr address;
    double idle = 0;  // seconds
  };
  // What an operator is to do about a family's table.
  struct Advice {
    std::uint32_t threshold = 0;  // what gc_thresh1 is, and what it should be
    std::uint32_t wanted = 0;
    friend bool operator==(const Advice&, const Advice&) = default;
  };
  static constexpr std::size_t kAtOnce = 64;
  static constexpr double kMostASecond = 4096;

  void refreshSecondsIs(double seconds) { refreshSeconds_ = seconds; }
  // A routing daemon may write any number of neighbours at any time: a threshold that nobody has raised is one
  // that is reached.
  void hasFeedIs(bool hasFeed) { hasFeed_ = hasFeed; }

  void roundBegins();
  void handleTable(const Netlink::NeighbourTable& table);
  // There is one from now on, which the last round did not see: the next must not come too late for it.
  void hostIs(bool isIpv4) { families_[isIpv4 ? 0 : 1].hasHosts = true; }
  // Of a neighbour on an interface that matters.
  void handleNeighbour(const Netlink::Neighbour& neighbour);
  // Its steps took so many seconds.
  void roundEnds(double took);

  // Seconds from one round to the next.
  double period() const;
  // The next batch, after which the next one is due `delay` seconds later.
  std::vector<Host> take();
  double delay() const { return delay_; }
  bool empty() const { return hosts_.empty(); }

  // Nothing: idle hosts are safe, or it is not certain yet that they are not.
  const std::optional<Advice>& advice(bool isIpv4) const { return families_[isIpv4 ? 0 : 1].advice; }

 private:
  struct Family {
    std::uint32_t entries = 0;
    std::uint32_t threshold = UINT32_MAX;
    double staleSeconds = 0;
    std::unordered_map<Netlink::IfIndex, double> devices;  // that have another time
    bool hasHosts = false;                                 // that can be idle, since this round began
    bool crowded = false;                                  // at the end of the last round
    std::optional<Advice> advice;
  };
  bool isUnsafe(const Family& family) const;
  static void advise(Family& family);

  double refreshSeconds_ = 240;
  double roundSeconds_ = 0;  // of the last one
  bool hasFeed_ = false;
  std::array<Family, 2> families_;
  std::vector<Host> hosts_;  // to be asked, those last that were idle longest
  double delay_ = 1;
};

// Tells operators of what the IdleHosts of all namespaces advise: they share the tables.
class IdleHostProblems {
 public:
  explicit IdleHostProblems(Switch::ProblemReporter& problems) : problems_(problems) {}
  void tell(const IdleHosts& hosts);
  void gone(const IdleHosts& hosts);

 private:
  void update(bool isIpv4);

  Switch::ProblemReporter& problems_;
  std::set<const IdleHosts*> telling_;
};

}  // namespace ArpService
