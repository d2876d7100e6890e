#pragma once

#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Arp/Confirmation.h"
#include "Arp/ServiceStatus.h"
#include "ArpService/Devices.h"
#include "ArpService/Feed.h"
#include "ArpService/IdleHosts.h"
#include "ArpService/Job.h"
#include "ArpService/Round.h"
#include "ArpService/Vrf.h"
#include "Ip/Status.h"
#include "Mox/Notifiee.h"
#include "Orb/FileDescriptor.h"
#include "Orb/WalkSm.h"
#include "Switch/ProblemReporter.h"

namespace ArpService {

// The VRFs of one network namespace.
struct Places {
  // The one that has what is below no other's device. The sockets are open while it is active.
  Ptr<const Ip::VrfStatusLocal> own;
  std::map<Mox::String, Mox::String> devices;  // VRF devices, and their VRFs
  std::set<Mox::String> vrfs;                  // all of them
  Feed feed;                                   // of these
  friend bool operator==(const Places&, const Places&) = default;
};

// Keeps the kernel's neighbours on the VLAN interfaces of one network namespace in step with the
// configuration of the VRFs that these are in. On an interface below a VRF device that is no VRF's nothing is
// looked at. In a VRF:
//
//   - an entry is a permanent neighbour, or a reachable one when it is dynamic, marked as this system's;
//   - permanent ones of this system that the configuration does not hold go; dynamic ones are left to the
//     kernel's ageing once they were given to it, and nobody else's are touched;
//   - one that is right already is not written again, so that who watches the kernel sees nothing;
//   - stale neighbours, whoever has them, are probed after a while, and go if nobody answers (IdleHosts.h);
//   - an address that is to be confirmed is asked for, and it is told when nobody answers.
//
// On a feed device a routing daemon writes the hosts of other switches, and tells these of all others that it
// finds there. So nothing is written there for a host of another switch that is not the operator's own; that
// follows from the configuration alone, whatever comes first. What is of a local host is never permanent there:
// it goes with the host.
//
// An interface that is put below a VRF device, or taken out from there, loses all its neighbours to the
// kernel: those of the VRF that it left wait for it to come back.
//
// What is to be done with a key follows from the configuration and the kernel as they are when it is done;
// events only put the key into the queue. Keys whose event was missed or whose request was refused, and what
// an earlier run left, are found by rounds. There is one when the namespace's VRF becomes active, when the
// kernel dropped notifications, soon after a refusal, and every quarter of the refresh time, or later when the table is very large (IdleHosts.h). A VLAN interface
// that comes costs work for the entries that waited for it.
//
// Works in slices of one batch of requests or one datagram of a dump. The sockets keep the namespace alive.
class NamespaceSm final : public Orb::WalkSmBase {
 public:
  struct Settings {
    Netlink::Kernel* kernel = nullptr;
  };
  NamespaceSm(const Lanix::NamespaceName& name, Ptr<const Arp::ArpInputConfig> arpInputConfig,
              Ptr<Arp::ServiceStatus> status, Ptr<Arp::Confirmation> confirmation,
              Switch::ProblemReporter& problems, IdleHostProblems& idleHostProblems, const Settings& settings,
              const Ptr<Orb::TaskScheduler>& scheduler);
  // Removes what the configuration gave up last: there is no later turn for that. The rest stays.
  ~NamespaceSm() override;

  void placesAre(Places places);
  // When a stale neighbour is probed: since the last proof of its address.
  void refreshSecondsIs(double seconds);
  // See IdleHosts: in whichever namespace.
  void hasFeedIs(bool hasFeed) { idleHosts_.hasFeedIs(hasFeed); }

 private:
  struct Sockets {
    explicit Sockets(Netlink::Kernel* kernel);
    Netlink::Socket notifications;
    Netlink::Socket requests;
    Netlink::Socket dumps;
  };

  Orb::WalkRet walk() override;
  void walkFinishedNotification() override;
  bool step();

  void follow();
  Mox::Result<> open();
  void close();
  void vrfIs(const Mox::String& name);
  void handleConfig(Vrf& vrf);
  void handleAddress(Vrf& vrf, const Lanix::IpGenAddr& address);
  void handleInterface(const Lanix::IntfId& intf);
  void handleReadable();
  void handleMessage(const Netlink::Received& message);
  void handleRound();
  void compare(const Netlink::Neighbour& actual);
  void enqueue(Vrf& vrf, const Key& key);
  void lookForFeedDevices();
  Wish wish(const Arp::ArpEntryInput* entry, const Key& key, IfIndex ifIndex) const;
  void handleAsked(const Key& key, const Job& job);
  void askAnew(const Lanix::IpGenAddr& address);
  void handleDone(Vrf& vrf, const Key& key, const Job& job);
  bool unparkStep();
  bool queuesEmpty() const;
  void probe();
  void program();
  double& fullUntil(const Key& key) { return key.address.isIpv4() ? full4_ : full6_; }
  // All of them, or one VRF's; what concerns all is reported as the namespace's own VRF's.
  void refuse(const std::string& what, const Mox::Failure& failure);
  void refuse(Vrf& vrf, const std::string& what, const Mox::Failure& failure);
  void noProblem(Vrf& vrf);
  void publish();

  // The VRF of what is below a VRF device of that name ("": of none); null: no VRF that is known.
  Vrf* vrfBelow(const Mox::String& device) const;
  Vrf* vrfOf(IfIndex ifIndex) const { return vrfBelow(devices_.vrfDevice(ifIndex)); }
  static Mox::String subject(const Vrf& vrf) { return "VRF " + vrf.name; }

  Netlink::Kernel* kernel_;
  Mox::Notifiee<const Arp::ArpInputConfig> arpInputConfig_;
  Ptr<Arp::ServiceStatus> status_;
  Ptr<Arp::Confirmation> confirmation_;
  Switch::ProblemReporter& problems_;
  IdleHostProblems& idleHostProblems_;
  const Lanix::NamespaceName name_;
  Places places_;
  Mox::Notifiee<const Ip::VrfStatusLocal> own_;
  Vrfs vrfs_;

  bool reopen_ = true;  // the namespace's VRF was inactive, or another, since the sockets were opened
  std::unique_ptr<Sockets> sockets_;
  Ptr<Orb::FileDescriptor> descriptor_;
  Mox::Notifiee<Orb::FileDescriptor> readable_;
  Devices devices_;
  Round round_;
  double roundSeconds_ = 0;  // that its steps took
  IdleHosts idleHosts_;
  // The kernel was had ask for them, and had no answer that is known; false: since they were configured anew.
  std::map<Key, bool> asked_;
  bool refused_ = false;     // something of any VRF, in this walk
  bool openFailed_ = false;  // in this walk
  // Until then the kernel, which had no room for neighbours that it ages, is asked for no more of that family:
  // each refusal costs it a pass over its table.
  double full4_ = 0;
  double full6_ = 0;
  double retryDelay_ = 0;  // of the next round; 0: nothing was refused in the last one
  Orb::Task receiveTask_;
  Orb::Task roundTask_;
  Orb::Task probeTask_;
};

}  // namespace ArpService
