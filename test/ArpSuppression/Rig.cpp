#include "Rig.h"

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "Lanix/Wire.h"
#include "Suppression/BindingOrigin.h"
#include "Switch/Config.h"
#include "Switch/Forwarding.h"
#include "Switch/Problems.h"
#include "Tracelet/Tracelet.h"
#include "support/StateTypes.h"

namespace ArpSuppression {

namespace {

// Tables of this test program. A death test's child is another process with the same names; what it leaves is
// removed by the next rig of the same name, or at the end.
struct Prefixes {
  const std::string mine = "arp-suppression-test-" + std::to_string(getpid()) + "-";
  const pid_t owner = getpid();
  int count = 0;
  ~Prefixes() {
    if (getpid() != owner) return;
    std::error_code ignored;
    for (const auto& file : std::filesystem::directory_iterator("/dev/shm", ignored)) {
      if (file.path().filename().string().starts_with(mine)) std::filesystem::remove(file.path(), ignored);
    }
  }
} prefixes;

std::string uniquePrefix() {
  const std::string prefix = prefixes.mine + std::to_string(prefixes.count++);
  Memtab::Directory(prefix).removeAll();
  return prefix;
}

// Takes the trace files of the agents, and goes with the process.
class TraceDirectory {
 public:
  TraceDirectory() {
    char name[] = "/tmp/arp-suppression-test-XXXXXX";
    path_ = mkdtemp(name);
    Tracelet::directoryIs(path_);
  }
  ~TraceDirectory() { std::filesystem::remove_all(path_); }

 private:
  std::string path_;
};

template <class T>
void append(TestSupport::Frame& frame, const T& value) {
  const auto* bytes = reinterpret_cast<const std::byte*>(&value);
  frame.insert(frame.end(), bytes, bytes + sizeof value);
}

}  // namespace

TestSupport::Frame Trapped::frame() const {
  TestSupport::Frame frame;
  Lanix::TrapHeader header;
  header.destination = Lanix::EthAddr::broadcast();
  header.source = mac(senderMac);
  header.vlanId = vlan;
  header.ifIndex = ifIndex;
  append(frame, header);
  if (tagged) {
    append(frame, Lanix::Be16(0x8100));
    append(frame, Lanix::Be16(tag));
  }
  append(frame, Lanix::Be16(0x0806));
  Lanix::ArpIp4 arp;
  arp.operation = operation;
  arp.senderMac = mac(senderMac);
  arp.senderIp = ip(senderIp).ipv4();
  arp.targetIp = ip(targetIp).ipv4();
  append(frame, arp);
  frame.resize(frame.size() + extra);
  return frame;
}

Rig::Rig(std::unique_ptr<Statedb::Store> store, const Orb::Clock* given)
    : loop_(given ? *given : clock), scheduler_(Mox::make<Orb::TaskSchedulerRoot>(loop_)) {
  static const TraceDirectory traceDirectory;
  loop_.errorHandlerIs(
      [this](const char* where, const char* what) { errors += std::string(where) + ": " + what + "\n"; });
  namespaces.has("red");
  namespaces.has("blue");
  netlinkSockets.namespacesAre(namespaces);
  TestSupport::registerStateTypes(types_);
  tree_ = Mox::make<Statedb::EntityManager>(
      types_, [this](auto call) { loop_.post(std::move(call)); }, std::move(store));
  tree_->persist("arpSuppression/status");
  for (const auto& [path, type] : std::initializer_list<std::pair<const char*, const char*>>{
           {"ip/status", "Ip::Status"},
           {"bridging/config", "Bridging::Config"},
           {"evpn/status", "Evpn::EvpnStatus"},
           {"evpn/mplsConfig", "Evpn::MplsConfig"},
           {"routing/fhrp/vrMacStatus", "Routing::Fhrp::VirtualRouterMacStatus"},
           {"routing/l2vpn/config", "Routing::L2Vpn::Config"},
           {"ip/vrf/status/local", "Ip::AllVrfStatusLocal"},
           {"arp/input/config/arpSuppression", "Arp::ArpInputConfig"},
           {"interface/status/all", "Interface::AllIntfStatusDir"},
           {Arp::kConfirmationPath, Arp::kConfirmationType},
           {kBindingOriginPath, kBindingOriginType},
           {kLimitsPath, kLimitsType},
           {kNeverAnswerPath, kNeverAnswerType},
           {kDataPlaneAnswersPath, kDataPlaneAnswersType},
           {Switch::kConfigPath, Switch::kConfigType},
           {Switch::kForwardingPath, Switch::kForwardingType},
           {Switch::kProblemsPath, Switch::kProblemsType}}) {
    EXPECT_TRUE(tree_->entityIs(path, type));
  }
  tables_ =
      Mox::make<Memtab::EntityManager>(loop_, scheduler_->scheduler(), Memtab::Directory(uniquePrefix()));
  TestSupport::registerTableTypes(*tables_);
  for (const auto& [path, type] : std::initializer_list<std::pair<const char*, const char*>>{
           {"vrf/vrfIdMapStatus", "Vrf::VrfIdMap::Status"},
           {"arp/status", "Arp::Table::Status"},
           {"bridging/status", "Memtab::Bridging::Status"},
           {"arpSuppression/remoteBindingConfig/evpn", "ArpSuppression::RemoteBindingConfig"}}) {
    const Memtab::Mounted mounted = tables_->mount(path, type, Memtab::MountDescriptor::writer());
    if (!mounted) throw Mox::Error(mounted.error());
  }
  state<Bridging::Config>("bridging/config")->bridgeMacAddrIs(mac("02:00:00:00:be:ef"));
  evpn()->mplsConfiguredIs(true);
  evpn()->vlanToDot1qIs(Vlan(10), 10);
  table<Vrf::VrfIdMap::Status>("vrf/vrfIdMapStatus")
      ->vrfIdToNameIs(0, Vrf::VrfIdMap::FixedVrfName("default"));
  device("default", "fabric", kFabric);
  device("default", "arpsnoop", kArpsnoop);
  device("default", "arpinject", kArpinject);
  device("default", "Ethernet1", kEthernet1);
  device("default", "Ethernet2", kEthernet2);
  auto interfaces = state<Interface::AllIntfStatusDir>("interface/status/all");
  interfaces->intfStatusIs(intf("Ethernet1"));
  interfaces->intfStatusIs(intf("Ethernet2"));
  vrf("red", 5);
  vlanInterface(10, "red", kVlan10, "10.0.0.1/24");
}

Rig::~Rig() {
  kill();
  const Memtab::Directory directory = tables_->directory();
  tables_ = nullptr;
  directory.removeAll();
}

Mox::Ptr<Statedb::MountGroup> Rig::mountGroup(Plugin::AgentBase& agent) {
  return tree_->mountGroup(
      [this, &agent](Statedb::MountStatus status) { agent.doMountsComplete(status, tree_); });
}

void Rig::createLocalEntity(const Mox::String&, const Mox::String& type, const Mox::String& path) {
  EXPECT_TRUE(tree_->entityIs(path, type));
}

void Rig::start() {
  agent_ = Mox::make<ArpSuppressionAgent>("ArpSuppression");
  agent_->hostIs(*this);
  agent_->doInit();
  settle();
}

void Rig::kill() { agent_ = nullptr; }

bool Rig::turn() {
  loop_.post([] {});  // the turn in which another plug-in wrote what the test wrote
  loop_.step(0);
  return loop_.step(0);
}

void Rig::settle() {
  turn();
  for (int turns = 0; loop_.step(0) && turns < 100000; ++turns) {
  }
}

std::string Rig::command(const char* name, const std::vector<Mox::String>& arguments) {
  const auto callback = agent_->agentCommand("", name);
  if (!callback) return {};
  if (const auto checked = callback->check(arguments); !checked) return checked.error();
  const int file = memfd_create("answer", MFD_CLOEXEC);
  callback->handleCommand(file, arguments);
  std::string answer(static_cast<std::size_t>(lseek(file, 0, SEEK_CUR)), '\0');
  const ssize_t size = pread(file, answer.data(), answer.size(), 0);
  close(file);
  return size == static_cast<ssize_t>(answer.size()) ? answer : std::string();
}

KernelNetInfo::Status& Rig::kni(const std::string& netNs) {
  const std::string path = "kni/ns/" + netNs + "/status";
  EXPECT_TRUE(tree_->entityIs(path, "KernelNetInfo::Status"));
  return *tree_->entityOf<KernelNetInfo::Status>(path);
}

void Rig::device(const char* netNs, const char* name, std::uint32_t ifIndex) {
  if (ifIndex == 0) {
    kni(netNs).interfaceDel(name);
  } else {
    kni(netNs).interfaceIs(name, {ifIndex});
  }
}

void Rig::vrf(const char* name, std::uint32_t id, Ip::VrfState vrfState) {
  kni(name);
  auto status = state<Ip::AllVrfStatusLocal>("ip/vrf/status/local")->vrfIs(name);
  status->networkNamespaceIs(name);
  status->stateIs(vrfState);
  if (id != 0)
    table<Vrf::VrfIdMap::Status>("vrf/vrfIdMapStatus")->vrfIdToNameIs(id, Vrf::VrfIdMap::FixedVrfName(name));
}

void Rig::noVrf(const char* name) { state<Ip::AllVrfStatusLocal>("ip/vrf/status/local")->vrfDel(name); }

void Rig::vlanInterface(std::uint32_t vlan, const char* vrf, std::uint32_t ifIndex, const char* address) {
  device(vrf, ("vlan" + std::to_string(vlan)).c_str(), ifIndex);
  auto status = ipStatus()->ipIntfStatusIs(intf(("Vlan" + std::to_string(vlan)).c_str()));
  status->vrfNameIs(vrf);
  if (address) status->activeAddrIs(*Lanix::IpGenPrefix::fromStrep(address));
}

void Rig::noVlanInterface(std::uint32_t vlan) {
  ipStatus()->ipIntfStatusDel(intf(("Vlan" + std::to_string(vlan)).c_str()));
}

void Rig::remoteBinding(std::uint32_t vlan, const char* address, const char* macText, bool localMultihomed) {
  table<RemoteBindingConfig>("arpSuppression/remoteBindingConfig/evpn")
      ->remoteBindingIs({Vlan(vlan), ip(address)}, {mac(macText), localMultihomed});
}

void Rig::noRemoteBinding(std::uint32_t vlan, const char* address) {
  table<RemoteBindingConfig>("arpSuppression/remoteBindingConfig/evpn")
      ->remoteBindingDel({Vlan(vlan), ip(address)});
}

void Rig::fdb(Bridging::Fid fid, const char* macText, Bridging::EntryType type, const char* port) {
  table<Memtab::Bridging::Status>("bridging/status")->fdbIs({fid, mac(macText)}, {type, intf(port)});
}

void Rig::neighbour(const char* address, const char* macText, bool isStatic) {
  table<Arp::Table::Status>("arp/status")
      ->arpEntryIs({5, ip(address), intf("Vlan10")}, {mac(macText), isStatic, 0});
}

void Rig::trap(const TestSupport::Frame& frame) {
  sockets.device(hardware ? kFabric : kArpsnoop).receives(frame);
  settle();
}

std::uint64_t Rig::counter(ArpSuppressionCounterId id) {
  return table<ArpSuppressionCounterStatus>("arpSuppression/counter")
      ->counter(static_cast<std::uint32_t>(id));
}

std::string Rig::takeCounters(Of of) {
  using Id = ArpSuppressionCounterId;
  countersBefore_.resize(kCounters);
  std::string text;
  for (std::uint32_t id = 0; id < kCounters; ++id) {
    const Id counterId = static_cast<Id>(id);
    if (counterId == Id::addressConflict) continue;  // of what hosts and switches claim, not of a frame
    const bool discovery = counterId >= Id::discoveryBadMac && counterId <= Id::vgwReplyAccepted;
    if (of != (counterId < Id::replyRemote ? Of::arpInput : discovery ? Of::discovery : Of::requests))
      continue;
    const std::uint64_t now = counter(counterId);
    const std::uint64_t gained = now - std::exchange(countersBefore_[id], now);
    if (gained != 0)
      text += (text.empty() ? "" : " ") + std::string(kCounterNames[id]) + "=" + std::to_string(gained);
  }
  return text;
}

std::vector<std::uint16_t> Rig::publishedVlans() {
  std::vector<std::uint16_t> vlans;
  for (const auto& [vlanId, active] : published()->vlanIdCollection()) {
    if (active) vlans.push_back(vlanId);
  }
  return vlans;
}

}  // namespace ArpSuppression
