#pragma once

#include <array>
#include <compare>
#include <limits>
#include <map>
#include <memory>
#include <optional>

#include "ArpSuppression/LocalBinding.h"
#include "ArpSuppression/RemoteBindingStatus.h"
#include "Bridging/Status.h"
#include "Mox/Notifiee.h"
#include "Suppression/Counter.h"
#include "Switch/Event.h"
#include "Switch/PassingProblem.h"

namespace ArpSuppression {

// Notices addresses that two claim: a host here and another switch, two hosts here that are both there, or one
// of them and the switch itself. Who wins is not decided here. Each claim of the kind is counted, and the
// address is a problem and an event for as long as both sides stand, a minute at least.
//
// It notices as well what goes back and forth: an address between two stations, or a station between two ports
// or a port and another switch, kMoves times within kMovesSeconds (RFC 7432, section 15.1), is named as a
// duplicate until it has been quiet for that long.
//
// At most kWatched addresses and stations are remembered, and kNamed of them named; of more only that there
// are more is a problem.
class ConflictWatch {
 public:
  static constexpr std::size_t kMoves = 5;
  static constexpr double kMovesSeconds = 180;
  static constexpr std::size_t kWatched = 1024;
  static constexpr std::size_t kNamed = 32;

  ConflictWatch(Orb::EventLoop& loop, Ptr<const VlanL3InfoStatus> vlanL3InfoStatus,
                Ptr<const RemoteBindingStatus> remoteBindingStatus,
                Ptr<const LocalBindingRecord> localBindingRecord,
                Ptr<const Memtab::Bridging::Status> bridgingStatus,
                Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus);

  // The binding was made by what a host sent. `before`: the station that had the address here, if one had; and
  // its port.
  void handleLocal(const LocalBinding& binding, const std::optional<VlanIdMacAddress>& before,
                   const Lanix::IntfId& portBefore);
  // What other switches say of the address has changed; its local binding, if there is one, is still there.
  void handleRemote(const VrfIpAddress& key);
  // A station with local bindings was seen on another port; the empty one is another switch.
  void handleStation(const VlanIdMacAddress& station, const Lanix::IntfId& from, const Lanix::IntfId& to);

  std::size_t watched() const { return watched_.size(); }

 private:
  // An address of a VLAN, or, without one, a station.
  struct Subject {
    Bridging::VlanId vlanId;
    Lanix::IpGenAddr ipAddress;
    Lanix::EthAddr macAddress;
    friend auto operator<=>(const Subject&, const Subject&) = default;
    Mox::String toStrep() const;
  };
  struct Watched {
    std::array<double, kMoves> moves;  // in a ring
    std::size_t next = 0;              // in it: the earliest
    Mox::String place;                 // where it went last
    std::unique_ptr<Switch::PassingProblem> conflict;
    std::unique_ptr<Switch::PassingProblem> duplicate;
  };

  void handleVlanL3Info(Bridging::VlanId vlanId);
  void handleOwnAddress(const VlanL3Info& info, const Lanix::IpGenAddr& ipAddress);

  // Who claims the address against whom, as the tables are now; "" when nobody does.
  Mox::String standing(const Subject& subject) const;
  // `mac`, in that table, is whose claim it is that makes the conflict.
  void conflict(const Subject& subject, Switch::EventTable table, const Lanix::EthAddr& mac,
                const Mox::String& text);
  void moved(const Subject& subject, const Mox::String& from, const Mox::String& to);
  bool stillThere(const VlanIdMacAddress& station) const;
  // Null when too many are watched already.
  Watched* watch(const Subject& subject);
  // One of the two problems of `watched`, which is made when it is not there; null when too many are named.
  Switch::PassingProblem* named(const Watched& watched, std::unique_ptr<Switch::PassingProblem>& problem,
                                const Mox::String& subject, std::function<bool()> lasts);
  // Forgets what is over, but not `held`.
  void sweep(const Watched* held);

  Orb::EventLoop& loop_;
  Mox::Notifiee<const VlanL3InfoStatus> vlanL3InfoStatus_;
  std::map<Bridging::VlanId, Mox::Notifiee<const VlanL3Info>> ownAddresses_;
  Ptr<const RemoteBindingStatus> remoteBindingStatus_;
  Ptr<const LocalBindingRecord> localBindingRecord_;
  Ptr<const Memtab::Bridging::Status> bridgingStatus_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  Switch::PassingProblem more_;
  std::map<Subject, Watched> watched_;
  std::size_t named_ = 0;
  double sweptAt_ = -std::numeric_limits<double>::infinity();
};

}  // namespace ArpSuppression
