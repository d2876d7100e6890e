#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "Arp/InputConfig.h"
#include "Arp/ServiceStatus.h"
#include "ArpService/Job.h"
#include "Ip/Status.h"
#include "Mox/Notifiee.h"
#include "Orb/FileDescriptor.h"
#include "Orb/WalkSm.h"

namespace ArpService {

using Mox::Ptr;

// Keeps the kernel's neighbours on the VLAN interfaces of one VRF in step with the configuration:
//
//   - an entry is a permanent neighbour, or a reachable one when it is dynamic, marked as this system's;
//   - permanent ones of this system that the configuration does not hold go; dynamic ones are left to the
//     kernel's ageing once they were given to it, and nobody else's are touched;
//   - one that is right already is not written again, so that who watches the kernel sees nothing;
//   - stale neighbours, whoever has them, are probed after a while, and go if nobody answers.
//
// What is to be done with a key follows from the configuration and the kernel as they are when it is done;
// events only say which key to look at. Keys whose event was missed or whose request was refused, and what an
// earlier run left, are found by rounds: the kernel's table is read and compared. There is one when the VRF
// becomes active, when a VLAN interface comes, when the kernel dropped notifications, soon after a refusal,
// and every quarter of the refresh time.
//
// Works in slices of one batch of requests or one datagram of a dump. The sockets are open while the VRF is
// active, since they keep its namespace alive.
class VrfSm final : public Orb::WalkSmBase {
 public:
  struct Settings {
    double refreshSeconds = 240;  // since the last proof of a neighbour's address
    Netlink::Kernel* kernel = nullptr;
  };
  VrfSm(Ptr<const Arp::ArpInputConfig> arpInputConfig, Ptr<const Ip::VrfStatusLocal> vrfStatus,
        Ptr<Arp::VrfServiceStatus> status, const Settings& settings,
        const Ptr<Orb::TaskScheduler>& scheduler);
  // Removes what the configuration gave up last: there is no later turn for that. The rest stays.
  ~VrfSm() override;

 private:
  struct Key {
    Lanix::IpGenAddr address;
    Lanix::IntfId intf;
    friend auto operator<=>(const Key&, const Key&) = default;
  };
  // A key that the configuration holds, or did until now.
  struct Record {
    bool queued = false;
    bool settled = false;     // nothing was left to be done for it; see isSettled
    bool dynamic = false;     // as it was settled
    std::uint32_t round = 0;  // in which it was last dealt with
  };
  // Scanned like a collection of the configuration.
  struct Entries : std::map<Key, Record> {
    static const Key& keyOf(const value_type& entry) { return entry.first; }
    static const Record& valueOf(const value_type& entry) { return entry.second; }
    const_iterator lowerBound(const Key& key) const { return lower_bound(key); }
  };
  struct Sockets;
  enum class Stage : std::uint8_t { idle, devices, neighbours, ipv4, ipv6, entries };

  Orb::WalkRet walk() override;
  void walkFinishedNotification() override;
  bool step();

  void followVrf();
  bool open();
  void close();
  void handleConfig();
  void handleAddress(const Lanix::IpGenAddr& address);
  void handleReadable();
  void handleMessage(const Netlink::Received& message);
  void handleDevice(const Netlink::Received& message);

  void roundStart();
  void scanStart();
  void roundEnd();
  void dumpStart(const Netlink::Message& request);
  void dumpStep(const std::function<void(const Netlink::Received&)>& handler, Stage next);
  void devicesDone();
  void compare(const Neighbour& actual);
  void compareStep();
  template <class Collection, class K, class Queue>
  void scan(const Collection& collection, std::optional<K>& bookmark, Stage next, Queue queue);
  void probe();

  const Arp::ArpEntryInput* wanted(const Key& key) const;
  // And that since the sockets were opened.
  bool isSettled(const Record& record) const { return record.settled && record.round >= firstRound_; }
  void enqueue(const Key& key, bool unlessSettled = false);
  void program();
  void settle(const Key& key, const Arp::ArpEntryInput* want);
  void refuse(const std::string& what, const Mox::Failure& failure);
  void publish();

  const double refreshSeconds_;
  Netlink::Kernel* kernel_;
  Mox::Notifiee<const Arp::ArpInputConfig> arpInputConfig_;
  Mox::Notifiee<const Arp::ArpInputVrfConfig> config_;
  Mox::Notifiee<const Ip::VrfStatusLocal> vrfStatus_;
  Ptr<Arp::VrfServiceStatus> status_;
  Mox::String name_;

  bool reopen_ = false;  // the VRF was inactive, or somewhere else, since the sockets were opened
  std::unique_ptr<Sockets> sockets_;
  Ptr<Orb::FileDescriptor> descriptor_;
  Mox::Notifiee<Orb::FileDescriptor> readable_;
  std::map<Lanix::IntfId, IfIndex> devices_;
  std::unordered_map<IfIndex, Lanix::IntfId> intfs_;

  Entries entries_;
  std::size_t settled_ = 0;
  std::deque<Key> queue_;
  std::vector<Neighbour> stale_;  // to be probed

  Stage stage_ = Stage::idle;
  bool started_ = false;  // the kernel's table was read since the sockets were opened
  bool rescan_ = false;   // the configuration came or went as a whole: it is to be read, or is being read
  bool rescanning_ = false;
  bool refused_ = false;  // something, in this walk
  bool roundDone_ = false;
  double retryDelay_ = 0;
  std::uint32_t round_ = 0;
  std::uint32_t firstRound_ = 1;  // since the sockets were opened
  std::set<IfIndex> seenDevices_;
  std::optional<Lanix::IpAddr> ipv4Bookmark_;
  std::optional<Arp::NeighborEntryKey> ipv6Bookmark_;
  std::optional<Key> entriesBookmark_;
  Orb::Task receiveTask_;
  Orb::Task roundTask_;
};

}  // namespace ArpService
