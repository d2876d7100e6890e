#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "ArpSuppression/ArpSuppressionAgent.h"
#include "Orb/EventLoop.h"
#include "Plugin/AgentBase.h"
#include "Statedb/Store.h"
#include "support/FakeNamespaces.h"
#include "support/FakePacketSockets.h"

namespace ArpSuppression {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using Vlan = Bridging::VlanId;

inline constexpr char kHostMac[] = "02:00:00:00:00:63";  // the owner of 10.0.0.99, where there is one

inline Lanix::EthAddr mac(const char* text) { return *Lanix::EthAddr::fromStrep(text); }
inline Lanix::IpGenAddr ip(const char* text) { return *Lanix::IpGenAddr::fromStrep(text); }
inline Lanix::IntfId intf(const char* name) { return Lanix::IntfId::fromName(name); }

// The end of a process on a broken invariant: the component and the expression, as EXPECT_DEATH sees them.
inline testing::Matcher<const std::string&> brokenInvariant(const std::string& source,
                                                            const std::string& expression) {
  return testing::AllOf(testing::HasSubstr(source + ":"),
                        testing::HasSubstr(": assertion failed: " + expression + "\n"));
}

// An ARP frame as the data plane traps it; what a test does not say is a plain request of host A on
// Ethernet1.
struct Trapped {
  std::uint32_t vlan = 10;
  std::uint32_t ifIndex = 30;
  std::uint16_t operation = 1;
  const char* senderMac = "02:00:00:00:00:0a";
  const char* senderIp = "10.0.0.10";
  const char* targetIp = "10.0.0.99";
  bool tagged = false;
  std::uint16_t tag = 10;
  std::size_t extra = 0;
  TestSupport::Frame frame() const;
};

// The agent on a switch without a kernel: fake sockets and namespaces, a clock that stands still, real shared
// memory and a real state tree, into which a test writes what other plug-ins would. VLAN 10
// (Vlan10, 10.0.0.1/24) is in the VRF red, in the namespace of that name; the ports Ethernet1 (30) and
// Ethernet2 (31), "fabric" (20), "arpsnoop" (21) and "arpinject" (22) are in the default one. EVPN over MPLS
// serves VLAN 10. Nothing is started before start().
class Rig final : private Plugin::AgentHost {
 public:
  static constexpr std::uint32_t kFabric = 20, kArpsnoop = 21, kArpinject = 22, kEthernet1 = 30,
                                 kEthernet2 = 31, kVlan10 = 7;

  // `store` keeps the published state from one rig to the next.
  // `clock` is the rig's own that stands still, unless another is given.
  explicit Rig(std::unique_ptr<Statedb::Store> store = nullptr, const Orb::Clock* clock = nullptr);
  ~Rig() override;

  // Makes the agent and runs until everything is settled.
  void start();
  // Drops the agent as the end of the process would: without a stop.
  void kill();
  // Runs turns until nothing is left to do.
  void settle();
  // The turn in which the test's writes happened and the next one; whether there was anything to do in that.
  bool turn();
  // What an operator's command to the agent answers, or why it is refused.
  std::string command(const char* name, const std::vector<Mox::String>& arguments = {});
  Orb::EventLoop& eventLoop() { return loop_; }
  const Mox::Ptr<Orb::TaskSchedulerRoot>& scheduler() const { return scheduler_; }

  template <class E>
  Mox::Ptr<E> state(const char* path) {
    return tree_->entityOf<E>(path);
  }
  template <class E>
  Mox::Ptr<E> table(const char* path) {
    return tables_->entityOf<E>(path);
  }
  Mox::Ptr<Evpn::EvpnStatus> evpn() { return state<Evpn::EvpnStatus>("evpn/status"); }
  Mox::Ptr<Ip::Status> ipStatus() { return state<Ip::Status>("ip/status"); }
  Mox::Ptr<ArpSuppressionStatus> published() { return state<ArpSuppressionStatus>("arpSuppression/status"); }

  void remoteBinding(std::uint32_t vlan, const char* address, const char* mac, bool localMultihomed = false);
  void noRemoteBinding(std::uint32_t vlan, const char* address);
  void fdb(Bridging::Fid fid, const char* mac, Bridging::EntryType type, const char* port);
  void neighbour(const char* address, const char* mac, bool isStatic = false);
  // A VLAN interface in a VRF, with its device in the VRF's namespace (the VRF's own name).
  void vlanInterface(std::uint32_t vlan, const char* vrf, std::uint32_t ifIndex,
                     const char* address = nullptr);
  void noVlanInterface(std::uint32_t vlan);
  void vrf(const char* name, std::uint32_t id, Ip::VrfState state = Ip::VrfState::active);
  void noVrf(const char* name);
  void device(const char* netNs, const char* name, std::uint32_t ifIndex);

  // The frame comes in on the trap device, and all that follows is done.
  void trap(const TestSupport::Frame& frame);
  void trap(const Trapped& trapped) { trap(trapped.frame()); }
  // What it waits for before it can be relied on.
  Mox::String awaited() {
    return state<Switch::Readiness>(Switch::kReadinessPath)->awaited("ArpSuppression");
  }
  std::vector<TestSupport::Frame> replies() { return sockets.device(kFabric).takeSent(); }
  std::vector<TestSupport::Frame> reinjected() { return sockets.device(kArpinject).takeSent(); }

  std::uint64_t counter(ArpSuppressionCounterId id);
  // What counters are about: kernel neighbours, local bindings, and the way of a request.
  enum class Of { arpInput, discovery, requests };
  // "replyRemote=1 trappedRequest=1": those that are not zero, by id; they are zero again afterwards.
  std::string takeCounters(Of of = Of::requests);
  std::vector<std::uint16_t> publishedVlans();

  Orb::TaskSchedulerRoot& tasks() { return *scheduler_; }
  Statedb::EntityManager& tree() { return *tree_; }
  Memtab::EntityManager& tables() { return *tables_; }
  const Ptr<ArpSuppressionRootSm>& rootSm() const { return agent_->rootSm(); }
  const Ptr<ArpSuppressionRoot>& root() const { return rootSm()->root(); }

  Orb::ManualClock clock;
  TestSupport::FakeNamespaces namespaces;
  TestSupport::FakeNetlinkSockets netlinkSockets;
  TestSupport::FakePacketSockets sockets;
  bool hardware = false;  // set before start(); traps and floods are on "fabric" then
  std::string errors;     // caught at dispatch

 private:
  Orb::EventLoop& loop() override { return loop_; }
  Mox::Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot() override { return scheduler_; }
  bool isPhysicalHardware() override { return hardware; }
  Mox::Ptr<Statedb::MountGroup> mountGroup(Plugin::AgentBase& agent) override;
  Mox::Ptr<Statedb::EntityManager> entityManager() override { return tree_; }
  Mox::Ptr<Memtab::EntityManager> sharedMemory() override { return tables_; }
  void createLocalEntity(const Mox::String& name, const Mox::String& type, const Mox::String& path) override;
  KernelNetInfo::Status& kni(const std::string& netNs);

  Statedb::TypeRegistry types_;
  Orb::EventLoop loop_;
  Mox::Ptr<Orb::TaskSchedulerRoot> scheduler_;
  Mox::Ptr<Statedb::EntityManager> tree_;
  Mox::Ptr<Memtab::EntityManager> tables_;
  Mox::Ptr<ArpSuppressionAgent> agent_;
  std::vector<std::uint64_t> countersBefore_;
};

}  // namespace ArpSuppression
