#include "ArpSuppression/ConflictWatch.h"

#include <algorithm>
#include <utility>

#include "ArpSuppression/Problems.h"

namespace ArpSuppression {

namespace {

constexpr double kNever = -std::numeric_limits<double>::infinity();
constexpr double kSweepSeconds = 1;
constexpr char kAnotherSwitch[] = "another switch";

Mox::String placeOf(const Lanix::IntfId& port) { return port ? port.toStrep() : kAnotherSwitch; }

// "02:00:00:00:00:0a on Ethernet1"
Mox::String hostOn(const Lanix::EthAddr& mac, const Lanix::IntfId& port) {
  return mac.toStrep() + (port ? " on " + port.toStrep() : Mox::String());
}

bool hasMac(const RemoteIpToMac& remote, const Lanix::EthAddr& mac) {
  return std::ranges::any_of(remote.vlanIdMacAddressCollection(),
                             [&](const auto& station) { return station.key.macAddress == mac; });
}

}  // namespace

Mox::String ConflictWatch::Subject::toStrep() const {
  return (ipAddress ? "address " + ipAddress.toStrep() : "station " + macAddress.toStrep()) + " on VLAN " +
         vlanId.toStrep();
}

ConflictWatch::ConflictWatch(Orb::EventLoop& loop, Ptr<const VlanL3InfoStatus> vlanL3InfoStatus,
                             Ptr<const RemoteBindingStatus> remoteBindingStatus,
                             Ptr<const LocalBindingRecord> localBindingRecord,
                             Ptr<const Memtab::Bridging::Status> bridgingStatus,
                             Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus)
    : loop_(loop),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      remoteBindingStatus_(std::move(remoteBindingStatus)),
      localBindingRecord_(std::move(localBindingRecord)),
      bridgingStatus_(std::move(bridgingStatus)),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)),
      more_(problems(), loop, "address conflicts") {
  vlanL3InfoStatus_.on(VlanL3InfoStatus::vlanL3InfoChanged,
                       [this](Bridging::VlanId vlanId) { handleVlanL3Info(vlanId); });
  for (const auto& [vlanId, info] : vlanL3InfoStatus_->vlanL3InfoCollection()) handleVlanL3Info(vlanId);
}

// --- What happens ------------------------------------------------------------------------------------------

void ConflictWatch::handleVlanL3Info(Bridging::VlanId vlanId) {
  ownAddresses_.erase(vlanId);
  const Ptr<const VlanL3Info> info = vlanL3InfoStatus_->vlanL3Info(vlanId);
  if (!info) return;
  ownAddresses_.try_emplace(vlanId, info)
      .first->second.on(
          VlanL3Info::ipAddressChanged,
          [this, vlan = info.get()](const Lanix::IpGenAddr& address) { handleOwnAddress(*vlan, address); });
  for (const auto& [address, in] : info->ipAddressCollection()) handleOwnAddress(*info, address);
}

void ConflictWatch::handleOwnAddress(const VlanL3Info& info, const Lanix::IpGenAddr& ipAddress) {
  if (!info.ipAddressHas(ipAddress)) return;
  const Subject subject{info.vlanId(), ipAddress, {}};
  const VrfIpAddress key = VrfIpAddress::fromVlanL3Info(info, ipAddress);
  if (const Ptr<RemoteIpToMac> remote = remoteBindingStatus_->ipToMac(key)) {
    conflict(subject, Switch::EventTable::remote, remote->firstVlanIdMacAddress().macAddress,
             standing(subject));
  } else if (const Ptr<LocalBinding> local = localBindingRecord_->binding(key)) {
    conflict(subject, Switch::EventTable::local, local->vlanIdMacAddress().macAddress, standing(subject));
  }
}

void ConflictWatch::handleLocal(const LocalBinding& binding, const std::optional<VlanIdMacAddress>& before,
                                const Lanix::IntfId& portBefore) {
  const VrfIpAddress& key = binding.vrfIpAddress();
  const VlanIdMacAddress& station = binding.vlanIdMacAddress();
  const Subject subject{station.vlanId, key.ipAddress, {}};
  const Lanix::IntfId port = localBindingRecord_->portOf(station);
  Mox::String text = standing(subject);
  if (before) {
    const Mox::String host = hostOn(before->macAddress, portBefore);
    if (before->macAddress != station.macAddress) {
      if (text.empty() && stillThere(*before))
        text = hostOn(station.macAddress, port) + " claims it, and " + host + " had it and is still there";
      moved(subject, host, hostOn(station.macAddress, port));
    }
  } else if (const Ptr<RemoteIpToMac> remote = remoteBindingStatus_->ipToMac(key)) {
    const Lanix::EthAddr& mac = remote->firstVlanIdMacAddress().macAddress;
    if (hasMac(*remote, station.macAddress)) {
      if (!remote->isFirstVlanIdMacAddressLocalMultihomed()) handleStation(station, {}, port);
    } else {
      moved(subject, mac.toStrep() + " on " + kAnotherSwitch, hostOn(station.macAddress, port));
    }
  } else if (watched_.contains({station.vlanId, {}, station.macAddress})) {
    handleStation(station, {}, port);  // it may be back before, or after, the other switch lets go
  }
  if (!text.empty()) conflict(subject, Switch::EventTable::local, station.macAddress, text);
}

void ConflictWatch::handleRemote(const VrfIpAddress& key) {
  const Ptr<RemoteIpToMac> remote = remoteBindingStatus_->ipToMac(key);
  if (!remote) return;
  const VlanIdMacAddress& there = remote->firstVlanIdMacAddress();
  const Subject subject{there.vlanId, key.ipAddress, {}};
  const Ptr<LocalBinding> local = localBindingRecord_->binding(key);
  const Ptr<VlanL3Info> info = vlanL3InfoStatus_->vlanL3Info(there.vlanId);
  bool contradicts = info && info->ipAddressHas(key.ipAddress);
  if (local) {
    const VlanIdMacAddress station = local->vlanIdMacAddress();
    const Lanix::IntfId port = localBindingRecord_->portOf(station);
    if (hasMac(*remote, station.macAddress)) {
      if (!remote->isFirstVlanIdMacAddressLocalMultihomed()) handleStation(station, port, {});
    } else {
      contradicts = contradicts || stillThere(station);
      moved(subject, hostOn(station.macAddress, port), there.macAddress.toStrep() + " on " + kAnotherSwitch);
    }
  }
  if (contradicts) conflict(subject, Switch::EventTable::remote, there.macAddress, standing(subject));
}

void ConflictWatch::handleStation(const VlanIdMacAddress& station, const Lanix::IntfId& from,
                                  const Lanix::IntfId& to) {
  moved({station.vlanId, {}, station.macAddress}, placeOf(from), placeOf(to));
}

// --- What is made of it ------------------------------------------------------------------------------------

Mox::String ConflictWatch::standing(const Subject& subject) const {
  const Ptr<VlanL3Info> info = vlanL3InfoStatus_->vlanL3Info(subject.vlanId);
  if (!info || !subject.ipAddress) return {};
  const VrfIpAddress key = VrfIpAddress::fromVlanL3Info(*info, subject.ipAddress);
  const bool own = info->ipAddressHas(subject.ipAddress);
  const Ptr<LocalBinding> local = localBindingRecord_->binding(key);
  const Ptr<RemoteIpToMac> remote = remoteBindingStatus_->ipToMac(key);
  const auto here = [&] {
    const VlanIdMacAddress& station = local->vlanIdMacAddress();
    return hostOn(station.macAddress, localBindingRecord_->portOf(station));
  };
  const auto there = [&] {
    return "another switch advertises it with " + remote->firstVlanIdMacAddress().macAddress.toStrep();
  };
  if (own && remote) return "this switch has it itself, and " + there();
  if (own && local) return "this switch has it itself, and " + here() + " claims it";
  if (!local || !remote || hasMac(*remote, local->vlanIdMacAddress().macAddress)) return {};
  return here() + " claims it, and " + there();
}

bool ConflictWatch::stillThere(const VlanIdMacAddress& station) const {
  return bridgingStatus_->fdb({station.vlanId.value(), station.macAddress}).isLocal();
}

void ConflictWatch::conflict(const Subject& subject, Switch::EventTable table, const Lanix::EthAddr& mac,
                             const Mox::String& text) {
  arpSuppressionCounterStatus_->increment(ArpSuppressionCounterId::addressConflict);
  const auto event = [subject, table, mac](Switch::EventKind kind, const Mox::String& what) {
    Switch::bindingEvent(
        kind, {.table = table, .vlanId = subject.vlanId, .ip = subject.ipAddress, .mac = mac, .text = what});
  };
  const auto lasts = [this, subject, event] {
    const bool stands = !standing(subject).empty();
    if (!stands) event(Switch::EventKind::conflictOver, "");
    return stands;
  };
  Watched* const watched = watch(subject);
  Switch::PassingProblem* const problem =
      watched ? named(*watched, watched->conflict, subject.toStrep(), lasts) : nullptr;
  if (!problem) {
    return more_.happened("more addresses are claimed by two than are named",
                          "see the counter addressConflict; find out who claims that many addresses");
  }
  if (!problem->on()) event(Switch::EventKind::conflict, text);
  problem->happened(text, "find out who has the address by right, and give the other one another");
}

void ConflictWatch::moved(const Subject& subject, const Mox::String& from, const Mox::String& to) {
  Watched* const watched = watch(subject);
  if (!watched || watched->place == to) return;
  watched->place = to;
  watched->moves[watched->next] = loop_.now();
  watched->next = (watched->next + 1) % kMoves;
  if (watched->moves[watched->next] < loop_.now() - kMovesSeconds) return;
  const Mox::String moves = "moves of " + subject.toStrep();
  Switch::PassingProblem* const problem = named(*watched, watched->duplicate, moves, [this, watched] {
    return std::ranges::max(watched->moves) > loop_.now() - kMovesSeconds;
  });
  if (!problem) return;
  problem->happened([&] {
    if (problem->on()) return;  // one line, however many places there are
    problems().problemIs(moves,
                         "it goes back and forth between " + from + " and " + to +
                             ": there are two of them, or there is a loop",
                         "find out where it belongs, and take it away from the other place");
  });
}

// --- Memory ------------------------------------------------------------------------------------------------

ConflictWatch::Watched* ConflictWatch::watch(const Subject& subject) {
  if (const auto found = watched_.find(subject); found != watched_.end()) return &found->second;
  if (watched_.size() >= kWatched) sweep(nullptr);
  if (watched_.size() >= kWatched) return nullptr;
  Watched& watched = watched_[subject];
  watched.moves.fill(kNever);
  return &watched;
}

Switch::PassingProblem* ConflictWatch::named(const Watched& watched,
                                             std::unique_ptr<Switch::PassingProblem>& problem,
                                             const Mox::String& subject, std::function<bool()> lasts) {
  if (problem) return problem.get();
  if (named_ >= kNamed) sweep(&watched);
  if (named_ >= kNamed) return nullptr;
  ++named_;
  problem = std::make_unique<Switch::PassingProblem>(problems(), loop_, subject, std::move(lasts));
  return problem.get();
}

void ConflictWatch::sweep(const Watched* held) {
  if (loop_.now() < sweptAt_ + kSweepSeconds) return;
  sweptAt_ = loop_.now();
  const auto over = [this](std::unique_ptr<Switch::PassingProblem>& problem) {
    if (!problem || problem->on()) return;
    problem.reset();
    --named_;
  };
  for (auto at = watched_.begin(); at != watched_.end();) {
    Watched& watched = at->second;
    over(watched.conflict);
    over(watched.duplicate);
    const bool moved = std::ranges::max(watched.moves) > loop_.now() - kMovesSeconds;
    const bool stays = moved || watched.conflict || watched.duplicate || &watched == held;
    at = stays ? std::next(at) : watched_.erase(at);
  }
}

}  // namespace ArpSuppression
