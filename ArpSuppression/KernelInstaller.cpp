#include "ArpSuppression/KernelInstaller.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>
#include <vector>

#include "Arp/InputConfig.h"
#include "Lanix/Neighbour.h"

namespace ArpSuppression {

KernelInstaller::KernelInstaller(Orb::EventLoop& loop, Outcome outcome)
    : loop_(loop), outcome_(std::move(outcome)), endOfTurn_(loop.endOfTurn([this] { send(); })) {}

void KernelInstaller::add(Request request) {
  const VrfInfo& vrf = *request.key.vrfInfo;
  pending_.push_back({std::move(request), vrf.netNs(), vrf.netlinkSocket()});
}

void KernelInstaller::send() {
  if (pending_.empty()) return;
  const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(std::min(pending_.size(), kMostATurn));
  std::vector<Pending> due(std::make_move_iterator(pending_.begin()), std::make_move_iterator(end));
  pending_.erase(pending_.begin(), end);
  if (!pending_.empty()) loop_.post([] {});  // there is a next turn

  const auto vrfOf = [](const Pending& pending) { return pending.request.key.vrfInfo.get(); };
  std::stable_sort(due.begin(), due.end(),
                   [&](const Pending& a, const Pending& b) { return std::less<>()(vrfOf(a), vrfOf(b)); });
  for (std::size_t next = 0; next < due.size();) {
    const std::size_t first = next;
    const VrfInfo& vrf = *vrfOf(due[first]);
    const Lanix::NamespaceName netNs = due[first].netNs;
    const std::uint32_t socket = due[first].socket;
    const bool there = vrf.netNs() == netNs && vrf.netlinkSocket() == socket;
    Lanix::NetlinkBatch batch(there ? socket : 0);
    for (; next < due.size() && !batch.full() && vrfOf(due[next]) == &vrf && due[next].netNs == netNs &&
           due[next].socket == socket;
         ++next) {
      const auto& [key, station, ifIndex, dynamicOrPermanent, existing] = due[next].request;
      if (key.ipAddress.isIpv4()) {
        Arp::ipNeighAdd(batch, ifIndex, key.ipAddress.ipv4(), station.macAddress, Arp::kNudReachable,
                        Arp::kSourceArpSuppression);
      } else {
        Arp::ip6NeighAdd(batch, ifIndex, key.ipAddress.ipv6(), station.macAddress, Arp::kNudReachable,
                         Arp::kSourceArpSuppression);
      }
    }
    const std::vector<Mox::Result<>> results = batch.send();
    for (std::size_t i = 0; i < results.size(); ++i) outcome_(due[first + i].request, results[i]);
  }
}

}  // namespace ArpSuppression
