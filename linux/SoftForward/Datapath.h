#pragma once

// Software forwarding of ARP for a switch whose VLANs are Linux bridges.
//
//   access port --ingress--> copy behind the trap header -> "arpsnoop" -> agent
//        |                                                                 |
//     bridge <- way in <- tag off <- "fabric" <- reply  <------------------+
//        |                                                                 |
//   tunnel port (drops what was copied)   <- header off <- "arpinject" <- flood
//
// The agent opens the outer ends ("arpsnoop", "arpinject", "fabric") with packet sockets; the inner ends (the
// name and "-sw") carry the programs. Each VLAN has a pair "fabin<VLAN>" and "fabin<VLAN>-br", the latter a
// port of its bridge; VLANs of one bridge, which filters them, share a pair and their ports (Trunks.h). All
// of it is in the network namespace of the thread that made the Datapath, with ARP and IPv6 off.
//
// What is trapped: a complete broadcast Ethernet/IPv4 ARP request or reply of at most 9216 bytes that an
// access port receives while the frame's VLAN is active: the port's own for one without a tag or with a
// priority's, on a bridge that filters VLANs the tag's as well. It is copied, without the tag, to the agent
// and goes on into the bridge, marked, so that hosts of this switch hear it. Likewise what the bridge device
// sends, if asked for. All else passes untouched, and so does a frame whose copy fails. What comes out of the
// overlay is never trapped.
//
// A VLAN is trapped only while the way to the agent and back stands: the three pairs, its way in, which its
// bridge forwards from, and the programs on all of its tunnel ports that exist. Otherwise its frames are
// flooded as if there were no agent.
//
// What is wanted is said with the ...Is methods, which do nothing else. step() does the work in small pieces:
// it follows the kernel's notifications, looks at what has changed, one VLAN at a time, and writes the
// difference. Nothing that is so already is written, so that at rest there is nothing to do and nothing to be
// notified of. No method waits but for netlink requests, each of which the kernel answers from within.

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Netlink/Socket.h"
#include "SoftForward/Filters.h"
#include "SoftForward/LinkTable.h"
#include "SoftForward/Pairs.h"
#include "SoftForward/Programs.h"
#include "SoftForward/Standing.h"
#include "SoftForward/Trunks.h"
#include "Switch/VlanInterfaces.h"

namespace SoftForward {

// A VLAN by kernel names. Every port of the bridge that is no tunnel port of any VLAN is an access port; on a
// bridge that filters VLANs, every port that carries the VLAN and is no tunnel port of it.
struct VlanWanted {
  std::string bridge;
  std::vector<std::string> tunnelPorts;  // at most 32
  friend bool operator==(const VlanWanted&, const VlanWanted&) = default;
};

class Datapath {
 public:
  // Stands for the devices that all VLANs share where a VLAN is asked for.
  static constexpr std::uint16_t kShared = 0;
  // Called after each look at a VLAN, or at what is shared.
  using Looked = std::function<void(std::uint16_t vlan, const Standing&)>;

  // `programs` may be loaded already, which takes its time; they outlive the Datapath.
  Datapath(Programs& programs, Looked looked);
  // Without close() everything stays attached, as after a crash: the next Datapath takes it over.
  ~Datapath() = default;
  Datapath(const Datapath&) = delete;
  Datapath& operator=(const Datapath&) = delete;

  // Loads the programs and follows the kernel from now on. May be tried again. Nothing but what says what is
  // wanted may be called before it succeeded.
  Mox::Result<> open();
  int descriptor() const { return notifications_.fd(); }  // readable: step() has work
  // Readable: a port of a bridge has got or lost a VLAN. followVlans() has its frames taken for what they are
  // now, one port at a time, and returns whether there may be more of them; the rest is left to step().
  int vlanDescriptor() const { return trunks_.descriptor(); }
  bool followVlans();

  void vlanIs(std::uint16_t vlan, VlanWanted wanted);  // 1 to 4094
  void vlanDel(std::uint16_t vlan);
  // Whether frames of the VLAN are to be trapped. Independent of vlanIs() and of the order of the two.
  void activeVlanIs(std::uint16_t vlan, bool active);
  // What the bridge devices themselves send is trapped like what an access port receives.
  void ownTrappedIs(bool trapped);
  // Frames from this address are trapped nowhere: that of the switch itself, when nobody would act on what it
  // asks. Zero: there is none.
  void passedAddressIs(const Lanix::EthAddr& address);
  // Frames to this address are for the VLANs' interfaces. Zero: there is none.
  void sharedAddressIs(const Lanix::EthAddr& address);

  // How an access port is treated, by its name; asked again for all ports. Before the first call, and for
  // what the switch itself asks: all goes to the agent.
  using TermsOf = std::function<PortTerms(const std::string& device)>;
  void portTermsAre(TermsOf termsOf);
  // Whom the programs answer.
  void answerTermsAre(const AnswerTerms& terms);
  // Called when a device comes, goes, or has another name or index.
  using DeviceChanged = std::function<void(const std::string& device)>;
  void deviceChangedIs(DeviceChanged deviceChanged) { deviceChanged_ = std::move(deviceChanged); }

  // The VLAN's interface is not its bridge but in another namespace; or it is its bridge. Independent of
  // vlanIs().
  void interfaceIs(std::uint16_t vlan, Switch::VlanInterface interface);

  // The next piece of work; whether there may be more. The first ones read what is there; the last ones
  // remove what earlier runs left and nobody wants: programs on ports of no VLAN, ways into bridges of none.
  bool step();
  // Whether something was refused or is on its way, and should be looked at again in a while by againIs().
  bool againWanted() const { return !again_.empty() || trunks_.againWanted(); }
  void againIs();

  // Nothing is trapped any more, and everything of ours is removed.
  Mox::Result<> close();
  // Removes what this run and any earlier one made: the pairs, what bridges were made to take, programs and
  // qdiscs. `removed` is told what. All of it in one go; open() need not have been called.
  using Removed = std::function<void(const std::string& what)>;
  Mox::Result<> removeAll(const Removed& removed);

  Statistics statistics() const { return programs_.statistics(); }
  // A port that has programs of ours, in one of its VLANs; the bridge itself with PortRole::own.
  struct PortState {
    std::string device;
    std::uint16_t vlan;
    PortRole role;
    PortStatistics frames;
  };
  std::vector<PortState> portStates() const;  // asks the kernel for the counts
  struct PairState {
    std::string device;  // the end that the agent opens, or that frames are sent to
    bool passes;
  };
  std::vector<PairState> pairStates() const;
  // Whether all that the kernel told was heard, or everything was read since.
  bool reconciled() const { return reading_ == Reading::done; }
  // 0 when there is none of that name.
  Netlink::IfIndex deviceIndex(const std::string& name) const;
  // "" when there is none (any more).
  std::string deviceName(Netlink::IfIndex ifIndex) const;

 private:
  struct Port {
    std::uint16_t vlan;
    PortRole role;
    PortTerms terms;
  };
  using Ports = std::map<Netlink::IfIndex, PortRole>;
  struct Vlan {
    VlanWanted wanted;
    bool configured = false;
    bool active = false;
    bool lapsed = false;   // its paths were left a while for what was trapped before it was taken out
    bool trapped = false;  // in the programs' map
    VlanPaths paths;
    std::set<Netlink::IfIndex> ports;
    Switch::VlanInterface interface;
    Netlink::IfIndex taking = 0;  // takes frames to the shared address since this run
  };
  struct Peer;

  // Following the kernel.
  void linkChanged(const Netlink::Link& link, LinkTable::Change change);
  void handleMessage(const Netlink::Received& message);
  void ownedChanged(const Netlink::Link& link);
  void namedChanged(const std::string& device);
  bool receive();
  void read();
  bool readSlice();
  bool readingFailed(const Mox::Result<>& why);
  void look(std::uint16_t vlan);
  void allVlansDirty();
  void configurationChanged(const std::string& device);
  Netlink::VlanIds vlansNaming(const std::string& device, bool asBridge) const;
  void findStale();
  bool hasPort(Netlink::IfIndex ifIndex) const {
    return ports_.contains(ifIndex) || trunks_.hasPort(ifIndex);
  }
  Mox::Result<> staleDel(Netlink::IfIndex ifIndex);

  // What is shared.
  Standing lookShared();
  Mox::Result<bool> peerIs(const Peer& peer);

  // One VLAN.
  Standing lookVlan(std::uint16_t id, Vlan& vlan);
  void lookTrunk(std::uint16_t id, Vlan& vlan, const Netlink::Link& bridge, Standing& standing);
  void suppressedTwice(const Vlan& vlan, const Netlink::Link& bridge, Standing& standing) const;
  void lookPlain(std::uint16_t id, Vlan& vlan, const Netlink::Link& bridge, Standing& standing);
  std::string whyNotServed(std::uint16_t id, const Vlan& vlan, std::string& advice) const;
  bool isTunnelPort(const std::string& device) const;
  Ports portsOf(std::uint16_t id, const Vlan& vlan, const Netlink::Link& bridge, Standing& standing) const;
  void portsAre(std::uint16_t id, Vlan& vlan, const Ports& ports, Standing& standing);
  void wayInIs(std::uint16_t id, const Netlink::Link& bridge, Netlink::IfIndex& wayIn, Standing& standing);
  void sharedAddressIn(std::uint16_t id, Vlan& vlan, const Netlink::Link& bridge, Standing& standing);
  const Netlink::Link& interfaceIn(const Vlan& vlan, const Netlink::Link& bridge) const;
  Mox::Result<> takenBack(const Pairs::Taken& taken);
  void withdraw(std::uint16_t id, Vlan& vlan, Standing& standing);
  Mox::Result<> trappedIs(std::uint16_t id, Vlan& vlan, bool trapped);
  Mox::Result<> pathsAre(std::uint16_t id, Vlan& vlan, VlanPaths paths);
  Mox::Result<> portIs(const Netlink::Link& link, std::uint16_t id, PortRole role);
  Mox::Result<> portDel(Netlink::IfIndex ifIndex);

  enum class Reading : std::uint8_t { links, qdiscs, done };

  Looked looked_;
  Netlink::Socket requests_;
  Netlink::Socket dumps_;
  Netlink::Socket notifications_;
  LinkTable links_;
  Filters filters_;
  Pairs pairs_;
  Programs& programs_;
  Trunks trunks_;

  std::map<std::uint16_t, Vlan> vlans_;
  std::map<std::string, std::set<std::uint16_t>> names_;  // VLANs by their bridges' and tunnel ports' names
  std::map<Netlink::IfIndex, Port> ports_;                // in the programs' map
  bool ownTrapped_ = false;
  TermsOf termsOf_ = [](const std::string&) { return PortTerms(); };
  DeviceChanged deviceChanged_ = [](const std::string&) {};
  Lanix::EthAddr sharedAddress_;

  Reading reading_ = Reading::links;
  bool dumping_ = false;
  bool readingFailed_ = false;
  int readingTries_ = 0;
  std::set<std::uint16_t> dirty_;
  std::set<std::uint16_t> again_;
  bool staleFound_ = false;
  std::vector<Netlink::IfIndex> stale_;
  Standing shared_;  // as last found
  Lanix::EthAddr passedAddress_;
  AnswerTerms answerTerms_;
};

}  // namespace SoftForward
