#pragma once

// The loaded eBPF programs and their maps.
//
// Programs live as long as something holds them: this object, or what they are attached to. After this object
// is gone, attached programs run on with the maps as they were left.

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Lanix/EthAddr.h"
#include "Lanix/IpGenAddr.h"
#include "Mox/Result.h"
#include "Netlink/Route.h"

struct SoftForwardTrunk;

namespace SoftForward {

enum class Program : std::uint8_t {
  accessIngress,
  ownEgress,
  tunnelEgress,
  trapEgress,
  injectStrip,  // XDP; the others are tc programs
  injectIngress,
  fabricIngress,
  dropAll,
};

// As the kernel has it.
struct LoadedProgram {
  int descriptor;
  std::uint32_t id;
  const char* name;
};

// `own` is the bridge device as far as it sends.
enum class PortRole : std::uint8_t { access, tunnel, own };

// How many frames of a port go to the agent: so many a second on average, and at most `burst` at once.
// 0 a second: all.
struct Policer {
  std::uint32_t perSecond = 0;
  std::uint32_t burst = 0;
  friend bool operator==(const Policer&, const Policer&) = default;
};

// How a port's hosts are treated.
struct PortTerms {
  Policer policer;
  bool answers = false;  // they may be answered at the port itself
  friend bool operator==(const PortTerms&, const PortTerms&) = default;
};

// What a port of a bridge that filters VLANs is, VLAN by VLAN; or the bridge itself, as far as it sends.
struct Trunk {
  Netlink::VlanIds trapped;  // it is an access port of these
  Netlink::VlanIds tunnel;
  std::uint16_t pvid = 0;      // the VLAN of frames without a tag; 0: none
  bool own = false;            // the bridge itself
  Policer policer;             // of all VLANs together
  Netlink::VlanIds tagged{};   // their frames leave with a tag
  Netlink::VlanIds answers{};  // hosts may be answered at the port itself
  friend bool operator==(const Trunk&, const Trunk&) = default;
};

// What hosts of a VLAN that ask for the address are answered at their port; the zero MAC: nothing.
struct PlacedAnswer {
  std::uint16_t vlan = 0;
  Lanix::IpGenAddr ipAddress;  // of either family
  Lanix::EthAddr macAddress;
  // Why, which has a counter of its own: the owner is behind another switch, or on an Ethernet segment; nd of
  // an IPv6 address.
  enum class Kind : std::uint8_t { remote, multihomedDf, multihomedNonDf, nd } kind = Kind::remote;
  std::uint32_t owner = 0;  // interface index of the port that gets no such answer; 0: none
  bool router = false;      // the owner is an IPv6 router
};

// What the kernel had no place for.
struct AnswersRefused {
  std::vector<std::size_t> at;  // the positions in what was given
  Mox::Result<> why;            // the last of the reasons other than that the map is full
};

// Whom the programs answer.
struct AnswerTerms {
  // Nanoseconds for which a host that the agent was shown is answered; 0: nobody is.
  std::uint64_t refresh = 0;
  // Senders that are the switch itself; zero: there is none.
  std::array<Lanix::EthAddr, 2> own;
  friend bool operator==(const AnswerTerms&, const AnswerTerms&) = default;
};

// Where the agent's frames of a VLAN go, by interface index.
struct VlanPaths {
  std::uint32_t wayIn = 0;  // 0: none
  bool wayInTagged = false;
  // At most SOFT_FORWARD_MAX_TUNNEL_PORTS together.
  std::vector<std::uint32_t> tunnelPorts;
  std::vector<std::uint32_t> taggedTunnelPorts;
  std::uint32_t bridge = 0;
  friend bool operator==(const VlanPaths&, const VlanPaths&) = default;
};

// Frames since the programs were loaded.
struct Statistics {
  std::uint64_t trapped = 0;           // copied to the agent
  std::uint64_t trapFailed = 0;        // could not be copied, and were passed as if suppression were off
  std::uint64_t failedOpen = 0;        // not trapped because nobody was trusted to take them
  std::uint64_t policed = 0;           // refused by a port's policer, and passed as if suppression were off
  std::uint64_t tunnelDropped = 0;     // kept from a tunnel port, one for each port
  std::uint64_t injected = 0;          // of the agent, sent out of the tunnel ports
  std::uint64_t injectSendFailed = 0;  // sends that a tunnel port did not take, one for each port
  std::uint64_t replied = 0;           // of the agent, handed to a bridge
  std::uint64_t unexpected = 0;        // dropped on the pairs
  std::array<std::uint64_t, 4> answered{};  // requests, at their ports, by PlacedAnswer::Kind
  std::uint64_t ndPassed = 0;  // solicitations to a group that were not, while their VLAN has answers
  // Requests copied to the agent while their VLAN has answers: for an address without one, of a sender that
  // did not ask so lately, and what is never answered at the port.
  std::uint64_t shownNoAnswer = 0;
  std::uint64_t shownSender = 0;
  std::uint64_t shownOther = 0;
};

// Those of a port and VLAN, which had any.
struct PortStatistics {
  std::uint32_t ifIndex = 0;
  std::uint16_t vlan = 0;
  std::uint64_t trapped = 0;
  std::uint64_t policed = 0;
  std::uint64_t tunnelDropped = 0;
  std::uint64_t answered = 0;
};

class Programs {
 public:
  Programs();
  ~Programs();
  Programs(const Programs&) = delete;
  Programs& operator=(const Programs&) = delete;

  // Before everything else; nothing when they are loaded already. What libbpf has to say about a refused
  // program is part of the failure. Takes some 10 to 30 ms.
  Mox::Result<> load();
  // Who counts: a number that no other load has. 0: they are not loaded.
  std::uint64_t id() const { return id_; }

  LoadedProgram loaded(Program program) const;

  // Frames are trapped until then, in nanoseconds of CLOCK_MONOTONIC, and flooded from then on; 0, and before
  // the first call: they are flooded. One write to memory, which the programs share; nothing before they are
  // loaded.
  void trustedUntilIs(std::uint64_t nanoseconds);

  Mox::Result<> trapPeerIs(std::uint32_t ifIndex);
  // What comes from this address is never trapped; zero: there is none.
  Mox::Result<> passedAddressIs(const Lanix::EthAddr& address);
  // A policer that stays as it is keeps its tokens. `answers`: hosts may be answered at the port.
  Mox::Result<> portIs(std::uint32_t ifIndex, std::uint16_t vlan, PortRole role, const Policer& policer = {},
                       bool answers = false);
  Mox::Result<> portDel(std::uint32_t ifIndex);
  // A frame sees all of the old or all of the new. A device is a port or a trunk, not both.
  Mox::Result<> trunkIs(std::uint32_t ifIndex, const Trunk& trunk);
  Mox::Result<> trunkDel(std::uint32_t ifIndex);
  Mox::Result<> activeVlanIs(std::uint16_t vlan, bool active);
  Mox::Result<> answerTermsAre(const AnswerTerms& terms);
  // Places them, each address once. Of an address whose answer is refused nothing is placed afterwards. After
  // a failure something else may be placed of each than what is said here.
  Mox::Result<> answersAre(std::span<const PlacedAnswer> answers, AnswersRefused& refused);
  // Whether the answers of a VLAN that are placed hold; no VLAN's do at first. One write to memory.
  void answersHoldIs(std::uint16_t vlan, bool hold);
  // A frame sees the old set or the new one, nothing between.
  Mox::Result<> vlanPathsIs(std::uint16_t vlan, const VlanPaths& paths);
  Mox::Result<> vlanPathsDel(std::uint16_t vlan);

  // All zero when the counters cannot be read.
  Statistics statistics() const;
  // How many frames policers have refused; costs nothing.
  std::uint64_t policedInAll() const;
  // In no order; without those that cannot be read. A port that is gone, or no longer of the VLAN, has none.
  std::vector<PortStatistics> portStatistics() const;

 private:
  Mox::Result<> settingsPut();
  void portCountersDel(std::uint32_t ifIndex, std::uint16_t vlan);
  void trunkCountersDel(std::uint32_t ifIndex, const SoftForwardTrunk& before, const SoftForwardTrunk& now);

  struct Skeleton;
  std::unique_ptr<Skeleton> skeleton_;
  std::array<std::uint32_t, 8> ids_{};  // the kernel's, by Program
  std::uint64_t id_ = 0;
  std::uint32_t trapPeer_ = 0;
  Lanix::EthAddr passedAddress_;
  AnswerTerms answerTerms_;
};

}  // namespace SoftForward
