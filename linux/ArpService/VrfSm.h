#pragma once

#include <memory>
#include <vector>

#include "Arp/InputConfig.h"
#include "Arp/ServiceStatus.h"
#include "ArpService/Devices.h"
#include "ArpService/Job.h"
#include "ArpService/Queue.h"
#include "ArpService/Round.h"
#include "Ip/Status.h"
#include "Mox/Notifiee.h"
#include "Orb/FileDescriptor.h"
#include "Orb/WalkSm.h"
#include "Switch/ProblemReporter.h"

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
// events only put the key into the queue. Keys whose event was missed or whose request was refused, and what
// an earlier run left, are found by rounds. There is one when the VRF becomes active, when the kernel dropped
// notifications, soon after a refusal, and every quarter of the refresh time. A VLAN interface that comes
// costs work for the entries that waited for it.
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
        Ptr<Arp::VrfServiceStatus> status, Switch::ProblemReporter& problems, const Settings& settings,
        const Ptr<Orb::TaskScheduler>& scheduler);
  // Removes what the configuration gave up last: there is no later turn for that. The rest stays.
  ~VrfSm() override;

 private:
  struct Sockets;

  Orb::WalkRet walk() override;
  void walkFinishedNotification() override;
  bool step();

  void followVrf();
  Mox::Result<> open();
  void close();
  void handleConfig();
  void handleAddress(const Lanix::IpGenAddr& address);
  void handleReadable();
  void handleMessage(const Netlink::Received& message);
  void handleRound();
  void compare(const Netlink::Neighbour& actual);
  void enqueue(const Key& key);
  void probe();
  void program();
  void refuse(const std::string& what, const Mox::Failure& failure);
  void noProblem();
  void publish();

  const Arp::ArpEntryInput* wanted(const Key& key) const { return wantedFor(key, config_.get()); }
  Mox::String subject() const { return "VRF " + name_; }

  const double refreshSeconds_;
  Netlink::Kernel* kernel_;
  Mox::Notifiee<const Arp::ArpInputConfig> arpInputConfig_;
  Mox::Notifiee<const Arp::ArpInputVrfConfig> config_;
  Mox::Notifiee<const Ip::VrfStatusLocal> vrfStatus_;
  Ptr<Arp::VrfServiceStatus> status_;
  Switch::ProblemReporter& problems_;
  Mox::String name_;

  bool reopen_ = true;  // the VRF was inactive, or somewhere else, since the sockets were opened
  std::unique_ptr<Sockets> sockets_;
  Ptr<Orb::FileDescriptor> descriptor_;
  Mox::Notifiee<Orb::FileDescriptor> readable_;
  Devices devices_;
  Queue queue_;
  Round round_;
  std::vector<Netlink::Neighbour> stale_;  // to be probed
  bool refused_ = false;                   // something, in this walk
  bool openFailed_ = false;                // in this walk
  double retryDelay_ = 0;                  // of the next round; 0: nothing was refused in the last one
  Orb::Task receiveTask_;
  Orb::Task roundTask_;
};

}  // namespace ArpService
