// The whole switch for a long time: hosts ask, and everything changes under them. Ports, VLANs, VRFs, stations and bindings
// come, move and go, the configuration is read again, the daemon is restarted in each way, operators look at
// everything. In the end every table is what a daemon makes of the same kernel that never saw any of it,
// memory and descriptors are what they were, and no request was neither answered nor flooded.
//
//   Soak [SECONDS [SEED]]
//
// The seed decides what is done, not when. Restarts end at half of the time, so that the last daemon has a life long
// enough to be looked at. By turns the remote hosts are the operator's ("arpsup remote") and a routing daemon's (neighbours
// in the kernel, as zebra writes them); which of them it is changes with a restart. Needs root.

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

#include "Netlink/Socket.h"
#include "lab/LabKernel.h"
#include "lab/SoakNetwork.h"
#include "lab/Switch.h"

namespace Lab {
namespace {

using Clock = std::chrono::steady_clock;

double forSeconds = 120;
std::uint64_t seed = 1;

constexpr std::uint8_t kZebra = 11, kBgp = 186;
constexpr std::uint8_t kFirstNever = 240;     // of the remote hosts of a VLAN, from here on
constexpr std::uint64_t kMemorySlack = 8192;  // KiB

std::uint64_t residentOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:")) return std::strtoul(line.c_str() + 6, nullptr, 10);
  return 0;
}

class Soak : public testing::Test {
 protected:
  using Remotes = std::map<Address, Mac>;
  struct Change {
    const char* name;
    unsigned weight;
    void (Soak::*make)();
    bool hooks = false;  // ports
    std::uint64_t times = 0;
  };

  std::size_t below(std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
  }
  bool once(std::size_t in) { return below(in) == 0; }
  std::uint8_t someVlan() { return SoakNetwork::kVlans[below(SoakNetwork::kVlans.size())]; }

  // The configuration of all three VLANs, for who has the remote hosts.
  json wholeConfig() const {
    json config = {{"agents", {"KernelState", "ArpService", "SoftForward", "ArpSuppression"}},
                   {"vrfs",
                    {{"red", {{"id", 5}, {"networkNamespace", network_.placeOf(20).name()}}},
                     {"blue", {{"id", 6}, {"networkNamespace", network_.placeOf(30).name()}}}}},
                   {"neverAnswer", {"10.10.2.240/28"}}};
    json& status = config["state"]["evpn/status"] = {{"mplsConfigured", true}};
    for (const std::uint8_t vlan : SoakNetwork::kVlans) {
      const std::string n = std::to_string(vlan);
      config["vlans"][n] = {{"bridge", SoakNetwork::bridgeOf(vlan)},
                            {"tunnelPorts", {"core" + n, "spare" + n}}};
      status["vlanToDot1q"][n] = vlan;
    }
    if (isFed_) {
      config["agents"].push_back("KernelEvpn");
      config["evpn"] = {{"feed", "kernel"}};
      config.erase("state");
    }
    return config;
  }
  json changedConfig() {
    json config = wholeConfig();
    if (once(3)) {
      config["vlans"].erase("30");
      if (!isFed_) config["state"]["evpn/status"]["vlanToDot1q"].erase("30");
      if (once(2)) config["vrfs"].erase("blue");
    }
    if (once(4)) config["vlans"]["20"]["suppression"] = false;
    if (once(4)) config["vlans"]["10"]["nd"] = false;
    if (once(4)) config["vlans"]["20"]["answers"] = false;
    if (once(3)) config["vlans"]["10"]["tunnelPorts"] = {"core10"};
    if (once(4)) config["softForward"]["answers"]["enabled"] = false;
    if (once(4)) config["softForward"]["answers"]["maxEntries"] = 100;
    if (once(4)) config["softForward"]["policer"] = {{"perSecond", 20}, {"burst", 20}};
    if (once(4)) config["neighborRefreshSeconds"] = 1 + below(10);
    return config;
  }

  void start() { switch_.start(wholeConfig()); }
  Result arpsup(const Strings& arguments, int wanted = 0) {
    const Result result = switch_.arpsup(arguments);
    EXPECT_EQ(result.status, wanted) << testing::PrintToString(arguments) << ": " << result.error;
    return result;
  }

  // --- who is behind the overlay

  static void tell(std::vector<Netlink::Message>& messages) {
    Netlink::Socket socket(NETLINK_ROUTE);
    std::string refused;
    std::size_t refusals = 0;
    socket.batch(messages, [&](std::size_t at, const Mox::Result<>& result) {
      if (!result && ++refusals < 20) refused += " " + std::to_string(at) + ": " + result.error();
    });
    EXPECT_EQ(refusals, 0u) << "of " << messages.size() << ", " << refused;
  }

  Mac someMac(const Address& address) {
    return {0x02,          static_cast<std::uint8_t>(0x10 + below(4)),
            address.is6,   address.vlan,
            address.group, address.number};
  }
  void remotesAre(const Remotes& remotes) {
    for (const auto& [address, mac] : remotes) network_.ownerIs(address, mac);
    if (isFed_) {
      const Entered entered(network_.inside());
      std::vector<Netlink::Message> messages;
      for (const auto& [address, mac] : remotes)
        messages.push_back(KernelState::neighbourMessage(SoakNetwork::bridgeOf(address.vlan), address.text(),
                                                         textOf(mac), NUD_NOARP, once(2) ? kZebra : kBgp,
                                                         NTF_EXT_LEARNED));
      tell(messages);
    } else if (remotes.size() == 1) {
      const auto& [address, mac] = *remotes.begin();
      arpsup({"remote", "add", std::to_string(address.vlan), address.text(), textOf(mac)});
    } else {
      const std::string file = switch_.runDirectory() + "-bindings.csv";  // goes with the switch
      std::ofstream csv(file);
      for (const auto& [address, mac] : remotes)
        csv << int{address.vlan} << "," << address.text() << "," << textOf(mac) << "\n";
      csv.close();
      arpsup({"remote", "load", file});
    }
    for (const auto& [address, mac] : remotes) {
      const auto [at, isNew] = remotes_.try_emplace(address, mac);
      if (isNew || at->second == mac) continue;
      network_.ownerDel(address, at->second);
      at->second = mac;
    }
  }
  void remotesDel(const std::vector<Address>& addresses) {
    std::vector<Netlink::Message> messages;
    const Entered entered(network_.inside());
    for (const Address& address : addresses) {
      if (isFed_) {
        const std::string bridge = SoakNetwork::bridgeOf(address.vlan);
        ndmsg header{};
        header.ndm_family = address.is6 ? AF_INET6 : AF_INET;
        header.ndm_ifindex = static_cast<int>(ifIndex(bridge));
        Netlink::Message message(RTM_DELNEIGH);
        message.header(header);
        const Ip ip = address.ip();
        const Ip6 ip6 = address.ip6();
        std::span<const std::uint8_t> bytes = ip;
        if (address.is6) bytes = ip6;
        message.bytes(NDA_DST, std::as_bytes(bytes));
        messages.push_back(std::move(message));
      } else {
        arpsup({"remote", "del", std::to_string(address.vlan), address.text()});
      }
    }
    tell(messages);
    for (const Address& address : addresses) forget(address);
  }
  void forget(const Address& address) {
    const auto known = remotes_.find(address);
    if (address.group != Address::local)
      network_.ownerDel(address, known->second);  // a host has it wherever it is
    remotes_.erase(known);
  }
  void forgetAll() {
    while (!remotes_.empty()) forget(remotes_.begin()->first);
  }
  Address someRemote() {
    return {someVlan(), once(3), Address::remote, static_cast<std::uint8_t>(below(SoakNetwork::kRemotes))};
  }

  // --- what changes

  void addRemote() {
    const Address address = someRemote();
    remotesAre({{address, someMac(address)}});
  }
  void delRemote() {
    if (remotes_.empty()) return;
    remotesDel({std::next(remotes_.begin(), static_cast<std::ptrdiff_t>(below(remotes_.size())))->first});
  }
  void loadRemotes() {
    Remotes remotes;
    for (std::size_t count = 2 + below(600); count-- > 0;) {
      const Address address = someRemote();
      remotes[address] = someMac(address);
    }
    remotesAre(remotes);
  }
  void clearRemotes() {
    if (isFed_) {
      std::vector<Address> all;
      for (const auto& [address, mac] : remotes_) all.push_back(address);
      remotesDel(all);
    } else {
      arpsup({"remote", "clear"});
      forgetAll();
    }
  }
  // A host goes to another port, behind the overlay, or comes back from there.
  void moveHost() {
    const std::size_t at = below(network_.hosts().size());
    const SoakNetwork::Host& host = network_.hosts()[at];
    const bool isAway = host.port.empty();
    if (!isAway && once(3)) {
      const bool isHeardFirst = once(2);
      if (isHeardFirst) network_.hostIs(at, "");
      remotesAre({{host.address, host.mac}});
      if (!isHeardFirst) network_.hostIs(at, "");
      return;
    }
    const std::string port = SoakNetwork::portName(host.vlan, 1 + static_cast<unsigned>(below(4)));
    if (!network_.hasPort(port)) return;
    const bool isHeardFirst = once(2);
    if (isHeardFirst) network_.hostIs(at, port);
    if (remotes_.contains(host.address)) remotesDel({host.address});
    network_.hostIs(at, port);
  }
  void changePort() {
    const std::uint8_t vlan = someVlan();
    const unsigned number = 1 + static_cast<unsigned>(below(4));
    const bool isThere = network_.hasPort(SoakNetwork::portName(vlan, number));
    if (isThere && once(2)) return network_.accessPortFlaps(vlan, number);
    network_.accessPortIs(vlan, number, !isThere);
  }
  void changeTunnel() {
    const std::uint8_t vlan = someVlan();
    network_.spareTunnelIs(vlan, !network_.hasPort("spare" + std::to_string(vlan)));
  }
  void changeInterface() {
    if (once(4)) network_.namespaceIsAnother();
    network_.interfaceIs(once(2) ? 20 : 30, once(2));
  }
  void reload(const json& config) {
    {
      if (isLoud_) std::cout << "  " << json::diff(wholeConfig(), config).dump() << std::endl;
      const auto reload = switch_.reload(config);
      EXPECT_EQ(reload->wait(), 0) << reload->error;
    }
    if (once(3)) switch_.daemon().signal(SIGHUP);  // nothing is another
  }
  void reload() { reload(once(3) ? wholeConfig() : changedConfig()); }
  void look() {
    static const std::vector<Strings> kCommands = {{"tech-support"},
                                                   {"trace"},
                                                   {"--json", "counters"},
                                                   {"--json", "bindings"},
                                                   {"--json", "forwarding"},
                                                   {"events"},
                                                   {"--json", "show", "bridging/status"},
                                                   {"--json", "show", "arp/input/config/arpSuppression"},
                                                   {"find", "10.10.1.1"},
                                                   {"find", "02:00:00:00:0a:01"},
                                                   {"explain", "10", "10.10.2.7"},
                                                   {"--json", "show", "arp/status"},
                                                   {"status"}};
    const Strings& command = kCommands[below(kCommands.size())];
    const Result result = switch_.arpsup(command);
    EXPECT_EQ(result.status, command[0] == "find" ? result.status : 0)
        << testing::PrintToString(command) << ": " << result.error;
  }
  void restart() {
    if (!mayRestart_) return;
    const std::size_t how = below(3);
    ++restarts_[how];
    if (how == 0) {
      network_.daemonKilled();
      switch_.kill();
      std::this_thread::sleep_for(std::chrono::milliseconds(once(2) ? 0 : below(4000)));
    } else {
      switch_.stop(how == 1 ? SIGTERM : SIGUSR2);
    }
    const bool wasFed = isFed_;
    const bool isHandedOver = how == 2;
    if (!isHandedOver && once(2)) {
      if (isFed_) clearRemotes();
      isFed_ = !isFed_;
    }
    start();
    if (!wasFed && !isHandedOver) forgetAll();
  }

  std::vector<Change> changes_ = {
      {"remote add", 20, &Soak::addRemote},     {"remote del", 15, &Soak::delRemote},
      {"remote load", 6, &Soak::loadRemotes},   {"remote clear", 1, &Soak::clearRemotes},
      {"host moves", 30, &Soak::moveHost},      {"port", 8, &Soak::changePort, true},
      {"tunnel", 4, &Soak::changeTunnel, true}, {"interface", 3, &Soak::changeInterface, true},
      {"reload", 6, &Soak::reload, true},       {"look", 20, &Soak::look},
      {"restart", 2, &Soak::restart, true}};

  void changeSomething() {
    unsigned all = 0;
    for (const Change& change : changes_) all += change.weight;
    std::size_t chosen = below(all);
    for (Change& change : changes_) {
      if (chosen < change.weight) {
        ++change.times;
        const SoakNetwork::Hooking hooking(network_, change.hooks);
        if (isLoud_) std::cout << network_.seconds() << " " << change.name << std::endl;
        return (this->*change.make)();
      }
      chosen -= change.weight;
    }
  }

  // --- how it ends

  // Everything is there again, and everybody is known.
  void settle() {
    const SoakNetwork::Hooking hooking(network_, true);
    for (const std::uint8_t vlan : SoakNetwork::kVlans) {
      for (unsigned i = 1; i <= 4; ++i) network_.accessPortIs(vlan, i, true);
      network_.spareTunnelIs(vlan, true);
      if (vlan != 10) network_.interfaceIs(vlan, true);
    }
    reload(wholeConfig());
    becomesKnown();
  }
  // "10 10.10.2.7 02:...", and of a local one its port.
  std::set<std::string> known(const char* kind) {
    std::set<std::string> texts;
    for (const json& binding : switch_.shown({"bindings", kind}))
      texts.insert(binding["vlan"].dump() + " " + binding["ip"].get<std::string>() + " " +
                   binding["mac"].get<std::string>() + " " + binding.value("interface", ""));
    return texts;
  }
  void becomesKnown() {
    std::set<std::string> local, remote;
    for (const SoakNetwork::Host& host : network_.hosts())
      if (!host.port.empty())
        local.insert(std::to_string(host.vlan) + " " + host.address.text() + " " + textOf(host.mac) + " " +
                     host.port);
    for (const auto& [address, mac] : remotes_)
      remote.insert(std::to_string(address.vlan) + " " + address.text() + " " + textOf(mac) + " ");
    const auto deadline = Clock::now() + kDaemonPatience;
    std::set<std::string> localNow, remoteNow;
    do {
      network_.allSpeak();
      switch_.daemon().read(std::chrono::milliseconds(200));
      localNow = known("local");
      remoteNow = known("remote");
    } while ((localNow != local || remoteNow != remote) && Clock::now() < deadline);
    EXPECT_EQ(localNow, local);
    EXPECT_EQ(remoteNow, remote);
  }
  // What the daemon has open.
  std::multiset<std::string> opened() {
    std::multiset<std::string> all;
    for (const auto& file :
         std::filesystem::directory_iterator("/proc/" + std::to_string(switch_.daemon().pid()) + "/fd")) {
      std::error_code gone;
      const auto what = std::filesystem::read_symlink(file, gone);
      if (!gone && what.extension() != ".next")  // of a table that grows, as far as it has come
        all.insert(std::regex_replace(what.string(), std::regex("[0-9]+"), "N"));
    }
    return all;
  }
  // What is known in the end, without what tells of the way there: numbers of devices, sums, times. A local host's kernel neighbour
  // is the kernel's own, one that the agent had made, or none, as the kernel's table had room when it came.
  json tables() {
    json all;
    for (const json& path : switch_.shown({"show"})) {
      const std::string name = path.is_string() ? path.get<std::string>() : path.value("path", "");
      if (!kOfTheWay.contains(name)) all[name] = switch_.shown({"show", name});
    }
    for (json& vrf : all["arp/input/config/arpSuppression"]["vrf"])
      for (const SoakNetwork::Host& host : network_.hosts()) vrf["ipv4"].erase(host.address.text());
    std::erase_if(all["arp/status"]["arpEntry"].get_ref<json::object_t&>(), [](const auto& entry) {
      return entry.first.find("." + std::to_string(Address::local) + ".") != std::string::npos;
    });
    all["answers held"] = switch_.shown({"forwarding"})["answers"]["held"];
    for (const std::uint8_t vlan : SoakNetwork::kVlans) {
      const Entered entered(network_.placeOf(vlan));
      json& neighbours = all["kernel neighbours"];
      std::istringstream lines(run("ip -N neigh show nud permanent; ip -N -6 neigh show nud permanent"));
      for (std::string line; std::getline(lines, line);)
        if (line.find("." + std::to_string(Address::local) + ".") == std::string::npos)
          neighbours[line] = vlan;
    }
    return all;
  }
  // Each request that was taken up has one outcome, and what is to be flooded is sent; once the sums of the data plane, which are
  // read each second, are in all of them.
  void expectConsistentCounters() {
    Counters counters;
    const auto sum = [&](std::initializer_list<const char*> names) {
      std::int64_t sum = 0;
      for (const char* name : names)
        if (const auto at = counters.find(name); at != counters.end()) sum += at->second;
      return sum;
    };
    std::int64_t taken = 0, outcomes = -1;
    const auto deadline = Clock::now() + kPatience;
    while (taken != outcomes && Clock::now() < deadline) {
      counters = switch_.counters();
      taken = sum({"trappedRequest", "answeredInDataPlane"});
      outcomes = sum({"replyRemote", "replyMultihomedDf", "replyMultihomedNonDf", "noReplyUnknownSourcePort",
                      "noReplySamePort", "floodedToRemoteTeps", "noReplyTargetLocal",
                      "noReplyFabricNotUsable", "staticBindingEvent", "staticBindingBridgeMac",
                      "staticBindingVirtualRouterMac", "staticBindingNoVlanL3Info", "targetIsMine"});
    }
    EXPECT_EQ(taken, outcomes);
    EXPECT_EQ(sum({"floodedToRemoteTeps", "trappedReply"}),
              sum({"reinjected", "reinjectWriteFailed", "floodDroppedOldest"}));
    EXPECT_EQ(sum({"trapDropped", "trapMalformed", "trapReadFailed", "localBindingRefused",
                   "remoteBindingRefused"}),
              0);
  }
  inline static const std::set<std::string> kOfTheWay = {"arpSuppression/counter", "arp/service/status",
                                                         "softForward/answers",    "kni/ns/default/status",
                                                         "switch/health",          "switch/problems"};

  std::mt19937_64 random_{seed};
  Switch switch_;
  SoakNetwork network_{switch_.netNs(), seed + 1};
  Remotes remotes_;
  bool isFed_ = false;
  bool mayRestart_ = true;
  const bool isLoud_ =
      std::getenv("SOAK_CHANGES") != nullptr;  // each change is told, to look at what is found
  std::array<std::uint64_t, 3> restarts_{};    // SIGKILL, SIGTERM, SIGUSR2
};

TEST_F(Soak, EndsAsIfNothingHadBeen) {
  const auto passed = [&] { return network_.seconds(); };
  const auto tell = [&] {
    const SoakNetwork::Sums sums = network_.sums();
    std::cout << "soak " << static_cast<int>(passed()) << " s: " << sums.asked << " requests, "
              << sums.answered << " answered, " << sums.flooded << " flooded, " << sums.afterKill
              << " within the time to fail open, " << sums.cut << " cut off, " << sums.hooked
              << " while ports were hooked, " << sums.lost << " lost, " << sums.wrong
              << " wrong, waited at most " << sums.longestWait << " s; " << remotes_.size() << " remote hosts"
              << (isFed_ ? " fed" : "") << ", " << residentOf(switch_.daemon().pid()) << " KiB, "
              << switch_.descriptors() << " descriptors;";
    for (const Change& change : changes_) std::cout << " " << change.name << " " << change.times;
    std::cout << " (killed " << restarts_[0] << ", stopped " << restarts_[1] << ", handed over "
              << restarts_[2] << ")" << std::endl;
  };
  std::set<Address> never;
  for (unsigned number = kFirstNever; number < 256; ++number)
    never.insert({10, false, Address::remote, static_cast<std::uint8_t>(number)});
  network_.neverAnsweredIs(never);
  start();
  loadRemotes();
  becomesKnown();
  network_.trafficIs(true);
  double told = 0;
  std::uint64_t early = 0;
  while (passed() < forSeconds && !HasFailure()) {
    changeSomething();
    switch_.daemon().read(std::chrono::milliseconds(below(60)));
    ASSERT_TRUE(switch_.running()) << switch_.daemon().error;
    mayRestart_ = passed() < forSeconds / 2;
    if (early == 0 && passed() > forSeconds / 2 + std::min(60.0, forSeconds / 8))
      early = residentOf(switch_.daemon().pid());
    if (passed() - told >= 10) tell(), told = passed();
  }
  settle();
  tell();
  std::vector<Address> advertised;
  for (const auto& [address, mac] : remotes_)
    if (!never.contains(address)) advertised.push_back(address);
  const auto [answered, flooded] = network_.census(advertised);
  EXPECT_EQ(answered, advertised.size());
  EXPECT_EQ(flooded, 0u);

  if (HasFailure() || !network_.faults().empty())
    std::cout << switch_.arpsup({"counters", "--nonzero"}).output
              << std::regex_replace(switch_.arpsup({"trace"}).output,
                                    std::regex("[^\n]*trappedRequest=[^\n]*\n"), "")
              << switch_.daemon().error << std::endl;
  const SoakNetwork::Sums sums = network_.sums();
  EXPECT_EQ(sums.lost, 0u);
  EXPECT_EQ(sums.wrong, 0u);
  EXPECT_LE(static_cast<double>(sums.hooked), 2 + SoakNetwork::kMostHooked * static_cast<double>(sums.asked));
  for (const std::string& fault : network_.faults()) ADD_FAILURE() << fault;
  const std::uint64_t late = residentOf(switch_.daemon().pid());
  const auto descriptors = opened();
  expectConsistentCounters();
  const json lived = tables();
  if (const char* file = std::getenv("SOAK_TABLES"))
    std::ofstream(std::string(file) + ".lived") << lived.dump(1);

  switch_.stop();
  EXPECT_EQ(switch_.cleanUp().status, 0);
  const Remotes remotes = remotes_;
  start();
  if (!isFed_) remotesAre(remotes);
  becomesKnown();
  network_.census(advertised);
  const json fresh = tables();
  if (const char* file = std::getenv("SOAK_TABLES"))
    std::ofstream(std::string(file) + ".fresh") << fresh.dump(1);
  EXPECT_EQ(descriptors, opened());
  for (const auto& [name, content] : lived.items())
    EXPECT_EQ(content,
              fresh.value(json::json_pointer("/" + std::regex_replace(name, std::regex("/"), "~1")), json()))
        << name;
  EXPECT_EQ(lived.size(), fresh.size());
  std::cout << "memory: " << early << " KiB after a while, " << late << " in the end, "
            << residentOf(switch_.daemon().pid()) << " of a fresh daemon; " << descriptors.size()
            << " descriptors; longest time after a kill that a request came to nothing: "
            << sums.longestAfterKill << " s" << std::endl;
  EXPECT_LE(late, std::max(early, residentOf(switch_.daemon().pid())) + kMemorySlack);
  switch_.stop();
}

}  // namespace
}  // namespace Lab

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc > 1) Lab::forSeconds = std::strtod(argv[1], nullptr);
  if (argc > 2) Lab::seed = std::strtoull(argv[2], nullptr, 10);
  if (argc > 3 || !(Lab::forSeconds >= 1 && Lab::forSeconds <= 1e6)) {
    std::cerr << "Soak: SECONDS from 1 to 1000000, and SEED\n";
    return 2;
  }
  std::cout << "soak: seed " << Lab::seed << ", " << Lab::forSeconds << " s" << std::endl;
  const int failed = RUN_ALL_TESTS();
  std::cout << "soak: " << (failed == 0 ? "as if nothing had been" : "FAILED") << std::endl;
  return failed;
}
