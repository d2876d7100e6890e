// Bindings on a real kernel: what is learned from hosts that come, move and go silent, and the neighbours
// that the kernel is given of it.

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <fstream>
#include <set>

#include "Netlink/Socket.h"
#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using TextSet = std::set<std::string>;

std::string macText(const Mac& mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return text;
}

std::string ipTail(unsigned high, unsigned low) {
  return "." + std::to_string(high) + "." + std::to_string(low);
}

// "10.0.10.99 02:00:00:00:00:99 permanent 110", "10.0.10.99 02:00:00:00:00:99 dynamic", "10.0.10.99" for one
// that the kernel cannot use; empty for what is no host's, or another device's.
std::string neighbourText(const Netlink::Received& message, std::uint32_t device) {
  constexpr Netlink::Policy kPolicy[] = {{NDA_DST, Netlink::Kind::bytes, 4, 16},
                                         {NDA_LLADDR, Netlink::Kind::bytes, 0, 32},
                                         {NDA_PROTOCOL, Netlink::Kind::u8}};
  const auto header = message.header<ndmsg>();
  const Netlink::Attributes attributes(message.attributes(sizeof(ndmsg)), kPolicy);
  const auto ip = attributes.bytes(NDA_DST);
  if (!header || static_cast<std::uint32_t>(header->ndm_ifindex) != device || !ip ||
      (header->ndm_state & NUD_NOARP) != 0)
    return {};
  char address[INET6_ADDRSTRLEN];
  inet_ntop(header->ndm_family, ip->data(), address, sizeof address);
  const auto lladdr = attributes.bytes(NDA_LLADDR);
  if (!lladdr || lladdr->size() != 6 || (header->ndm_state & (NUD_INCOMPLETE | NUD_FAILED)) != 0)
    return address;
  Mac mac;
  std::memcpy(mac.data(), lladdr->data(), mac.size());
  const bool permanent = (header->ndm_state & NUD_PERMANENT) != 0;
  return std::string(address) + " " + macText(mac) +
         (permanent ? " permanent " + std::to_string(attributes.u8(NDA_PROTOCOL).value_or(0)) : " dynamic");
}

TextSet neighboursOf(const WholeSwitch::Vlan& vlan) {
  TextSet texts;
  const Entered entered(*vlan.where);
  const std::uint32_t device = ifIndex(vlan.device);
  Netlink::Socket socket(NETLINK_ROUTE);
  const auto dumped = socket.dump(
      Netlink::Message(RTM_GETNEIGH).header(ndmsg{}),
      [&](const Netlink::Received& message) { texts.insert(neighbourText(message, device)); },
      [&] { texts.clear(); });
  EXPECT_TRUE(dumped) << dumped.error();
  std::erase_if(texts, [](const std::string& text) { return text.find(' ') == std::string::npos; });
  return texts;
}

// Hears what is done to the neighbours of a VLAN's interface.
class Monitor {
 public:
  explicit Monitor(const WholeSwitch::Vlan& vlan) {
    const Entered entered(*vlan.where);
    device_ = ifIndex(vlan.device);
    socket_.emplace(NETLINK_ROUTE, Netlink::Options{.receiveBuffer = 64 << 20});
    EXPECT_TRUE(socket_->join(RTNLGRP_NEIGH));
  }
  // Since the last time; of one that goes the address alone, also when the kernel drops it with its MAC.
  TextSet heard() {
    TextSet texts;
    Netlink::Notifications result;
    do {
      result = socket_->receive([&](const Netlink::Received& message) {
        const std::string text = neighbourText(message, device_);
        if (!text.empty())
          texts.insert(message.type() == RTM_DELNEIGH ? text.substr(0, text.find(' ')) : text);
      });
      EXPECT_FALSE(result.overrun);
    } while (result.more);
    return texts;
  }

 private:
  std::optional<Netlink::Socket> socket_;
  std::uint32_t device_ = 0;
};

// A setting of the kernel for the VLAN's interface.
void kernelOf(const WholeSwitch::Vlan& vlan, const std::string& group, const std::string& name,
              const std::string& value) {
  const Entered entered(*vlan.where);
  const std::string file = "/proc/sys/net/" + group + "/" + vlan.device + "/" + name;
  std::ofstream out(file);
  out << value << std::flush;
  EXPECT_TRUE(out.good()) << file;
}

class Bindings : public WholeSwitch {
 protected:
  // What the agent learns of hosts is looked at here, and how soon it answers: it is shown each request.
  Bindings() { config_["softForward"]["answers"]["enabled"] = false; }

  static json agents(json more = json::object()) {
    more["agents"] = {"KernelState", "ArpService", "SoftForward", "ArpSuppression"};
    return more;
  }

  // What `ask` says, at the latest when it is the wanted.
  template <class T, class Ask>
  T eventually(const T& wanted, const Ask& ask) {
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    T had = ask();
    while (had != wanted && std::chrono::steady_clock::now() < deadline &&
           switch_.daemon().read(std::chrono::milliseconds(10)))
      had = ask();
    EXPECT_TRUE(switch_.running()) << switch_.daemon().error;
    return had;
  }
  void expectNeighbours(const Vlan& vlan, const TextSet& wanted) {
    EXPECT_EQ(eventually(wanted, [&] { return neighboursOf(vlan); }), wanted);
  }
  void expectNeighbour(const std::string& wanted) {
    const auto has = [&] { return neighboursOf(vlan10_).contains(wanted); };
    EXPECT_TRUE(eventually(true, has)) << wanted;
  }
  void expectLocal(const TextSet& wanted) {
    EXPECT_EQ(eventually(wanted, [&] { return local(); }), wanted);
  }
  // The local bindings: "10.0.10.99 02:00:00:00:00:99".
  TextSet local() {
    TextSet texts;
    for (const json& binding : switch_.shown({"bindings", "local"}))
      texts.insert(binding["ip"].get<std::string>() + " " + binding["mac"].get<std::string>());
    return texts;
  }
  void remote(const Strings& arguments) {
    Strings command = {"remote"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const Result result = switch_.arpsup(command);
    EXPECT_EQ(result.status, 0) << result.error;
  }
  // Host 2 asks for the remote host until it gets the answer. A machine that leaves the daemon waiting lets
  // suppression pause, and then nobody answers.
  void ask() {
    const double before = daemonSeconds();
    const Frame answer = arpFrame({2, kRemote, kRemoteIp, kHost2, kHost2Ip}, kHost2);
    const auto answered = [&] {
      host2_->send(arpFrame({1, kHost2, kHost2Ip, {}, kRemoteIp}));
      return host2_->receiveUntil(answer, std::chrono::milliseconds(1000) * patienceFactor()).has_value();
    };
    ASSERT_TRUE(eventually(true, answered));
    longestAnswer_ = std::max(longestAnswer_, daemonSeconds() - before);
  }
  // Of CPU time: what else the machine does meanwhile is not the daemon's.
  double daemonSeconds() {
    clockid_t clock{};
    timespec used{};
    clock_getcpuclockid(switch_.daemon().pid(), &clock);
    clock_gettime(clock, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
  }
  static Frame announcement(const Mac& mac, const Ip& ip) { return arpFrame({1, mac, ip, {}, ip}); }

  double longestAnswer_ = 0;  // of ask()
};

TEST_P(Bindings, OfRemoteHostsAreKernelNeighboursThatNobodyTouchesAgain) {
  vlan20Is();
  json config = agents({{"neighborRefreshSeconds", 86400}});  // nobody is asked, however long this takes
  for (const Vlan& vlan : {vlan10_, vlan20_}) kernelOf(vlan, "ipv6/conf", "disable_ipv6", "0");
  // On both VLANs, so that link-local addresses are in two places.
  json& bindings = config["state"][kBindings]["remoteBinding"];
  TextSet here = {"10.0.10.99 02:00:00:00:00:99 permanent 110"};
  TextSet there = {"10.0.20.99 02:00:00:00:00:98 permanent 110"};
  for (const char* ip : {"10.0.0.98", "2001:db8::98", "fe80::98"}) {
    for (const char* vlan : {"10 ", "20 "}) bindings[vlan + std::string(ip)]["mac"] = "02:00:00:00:00:98";
    for (TextSet* neighbours : {&here, &there})
      neighbours->insert(std::string(ip) + " 02:00:00:00:00:98 permanent 110");
  }
  start(config, {10, 20});
  expectNeighbours(vlan20_, there);
  // The hosts that spoke at the start are known by what the kernel resolved.
  expectLocal({"10.0.10.11 02:00:00:00:00:11"});
  here.insert("10.0.10.11 02:00:00:00:00:11 dynamic");
  expectNeighbours(vlan10_, here);

  Monitor monitorHere(vlan10_);
  Monitor monitorThere(vlan20_);
  switch_.set("routing/l2vpn/config", {{"selectiveArpInstall", true}});
  switch_.set("routing/l2vpn/config", {{"selectiveArpInstall", false}});
  for (const Vlan& vlan : {vlan10_, vlan20_}) {
    const Entered entered(*vlan.where);
    KernelState::addressIs(vlan.device, "10.0.1" + vlan.device.substr(4) + ".1/24");
    if (vlan.id == 20) vethIs("vlan30", "to-vlan30", outside_);
  }
  const json vrf30 = vlan20_.where == &switch_.netNs() ? "default" : "red";
  EXPECT_EQ(switch_.state("ip/status", "/ipIntfStatus/Vlan30/vrfName", vrf30), vrf30);
  const std::string last = "10.0.0.97 02:00:00:00:00:97 permanent 110";
  for (const char* vlan : {"10", "20"}) remote({"add", vlan, "10.0.0.97", "02:00:00:00:00:97"});
  here.insert(last);
  there.insert(last);
  expectNeighbours(vlan10_, here);
  expectNeighbours(vlan20_, there);
  for (Monitor* monitor : {&monitorHere, &monitorThere}) EXPECT_THAT(monitor->heard(), ElementsAre(last));

  // What was added by hand is not advertised any more after a restart.
  switch_.kill();
  start(config, {10, 20});
  here.erase(last);
  there.erase(last);
  expectNeighbours(vlan20_, there);
  expectNeighbours(vlan10_, here);
  for (Monitor* monitor : {&monitorHere, &monitorThere})
    EXPECT_THAT(monitor->heard(), ElementsAre("10.0.0.97"));

  switch_.stop();
  EXPECT_THAT(neighboursOf(vlan20_), IsEmpty());
  EXPECT_THAT(neighboursOf(vlan10_), ElementsAre("10.0.10.11 02:00:00:00:00:11 dynamic"));
}

TEST_P(Bindings, FollowAStationThatMoves) {
  kernelOf(vlan10_, "ipv6/conf", "disable_ipv6", "0");
  start(agents());
  const std::string host1 = "10.0.10.11 02:00:00:00:00:11";
  const std::string station[] = {"10.0.10.99", "10.0.10.98", "2001:db8::99"};
  TextSet here = {host1};
  for (const std::string& ip : station) here.insert(ip + " 02:00:00:00:00:99");
  for (const bool heardFirst : {true, false}) {
    SCOPED_TRACE(heardFirst);
    far_->send(announcement(kRemote, kRemoteIp));
    for (const std::string& ip : station) remote({"add", "10", ip, "02:00:00:00:00:99"});
    expectLocal({host1});
    for (const std::string& ip : station) expectNeighbour(ip + " 02:00:00:00:00:99 permanent 110");
    // It speaks here with one of its addresses, and is known here with all of them.
    host2_->send(announcement(kRemote, kRemoteIp));
    expectLocal(here);
    for (const std::string& ip : station) expectNeighbour(ip + " 02:00:00:00:00:99 dynamic");
    remote({"clear"});
    expectLocal(here);
    // It goes back, and is heard there before it is advertised, or later.
    if (!heardFirst) continue;
    far_->send(announcement(kRemote, kRemoteIp));
    expectLocal({host1});
  }
  remote({"add", "10", station[0], "02:00:00:00:00:99"});
  here.erase(station[0] + " 02:00:00:00:00:99");
  expectLocal(here);
  expectNeighbour(station[0] + " 02:00:00:00:00:99 permanent 110");
  far_->send(announcement(kRemote, kRemoteIp));
  expectLocal({host1});

  // Two claim one address: the latter has it, until it leaves.
  const Ip shared{10, 0, 10, 50};
  host1_->send(announcement(kHost1, shared));
  expectLocal({host1, "10.0.10.50 02:00:00:00:00:11"});
  expectNeighbour("10.0.10.50 02:00:00:00:00:11 dynamic");
  host2_->send(announcement(kHost2, shared));
  expectLocal({host1, "10.0.10.50 02:00:00:00:00:12"});
  expectNeighbour("10.0.10.50 02:00:00:00:00:12 dynamic");
  far_->send(announcement(kHost1, kHost1Ip));
  expectLocal({"10.0.10.50 02:00:00:00:00:12"});
  far_->send(announcement(kHost2, kHost2Ip));
  expectLocal({});
  switch_.stop();
}

TEST_P(Bindings, OfASilentHostGoWithItsNeighbour) {
  // Three probes long, host 1 has time to answer: as long as it takes us to look twice.
  const std::pair<const char*, int> times[] = {{"base_reachable_time_ms", 200 * patienceFactor()},
                                               {"delay_first_probe_time", 0},
                                               {"retrans_time_ms", 100 * patienceFactor()}};
  for (const auto& [name, value] : times) kernelOf(vlan10_, "ipv4/neigh", name, std::to_string(value));
  start(agents({{"neighborRefreshSeconds", 1}}));
  host2_->send(announcement(kHost2, kHost2Ip));
  const std::string host1 = "10.0.10.11 02:00:00:00:00:11";
  expectLocal({host1, "10.0.10.12 02:00:00:00:00:12"});
  // Host 1 answers when it is asked for, host 2 does not.
  const Mac own = macOf(vlan10_);
  int asked = 0;
  const auto answering = [&] {
    while (const auto frame = host1_->receive(std::chrono::milliseconds(0))) {
      const Frame probe = arpFrame({1, own, kGatewayIp, {}, kHost1Ip}, kHost1);
      if (*frame != probe) continue;
      ++asked;
      host1_->send(arpFrame({2, kHost1, kHost1Ip, own, kGatewayIp}, own));
    }
    return local();
  };
  EXPECT_EQ(eventually(TextSet{host1}, answering), TextSet{host1});
  const int before = asked;
  EXPECT_TRUE(eventually(true, [&] { return answering() != TextSet{host1} || asked > before + 1; }));
  EXPECT_EQ(local(), TextSet{host1});
  const TextSet left = {"10.0.10.11 02:00:00:00:00:11 dynamic", "10.0.10.99 02:00:00:00:00:99 permanent 110"};
  EXPECT_EQ(neighboursOf(vlan10_), left);
  EXPECT_GT(switch_.shown({"show", "arp/service/status"})["vrf"][vlan10_.vrf]["probes"], 2);
  switch_.stop();
}

// The bridge forgets who is behind the port.
void flushPort(const std::string& port) {
  ifinfomsg link{};
  link.ifi_index = static_cast<int>(ifIndex(port));
  KernelState::request(
      std::move(Netlink::Message(RTM_NEWLINK).header(link).nest(IFLA_LINKINFO, [](Netlink::Message& info) {
        info.string(IFLA_INFO_SLAVE_KIND, "bridge").nest(IFLA_INFO_SLAVE_DATA, [](Netlink::Message& data) {
          data.bytes(IFLA_BRPORT_FLUSH, {});
        });
      })));
}

TEST_P(Bindings, OfAStormOfSendersHoldUpNobodyAndLeaveNothing) {
  // An emulated processor loses frames of a larger one.
  const bool slow = patienceFactor() > 1;
  const int senderCount = slow ? 500 : 10'000;
  const int burst = slow ? 5 : 50;  // between two questions
  // The address sanitizer would keep what is freed.
  const char* const options = std::getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", (std::string(options ? options : "") + ":quarantine_size_mb=1").c_str(), 1);
  json all = agents();
  all["softForward"]["policer"] = {{"perSecond", 1'000'000}, {"burst", 1'000'000}};  // the agent gets it all
  all["limits"]["localBindingsPerPort"] = 2 * senderCount;
  start(all);
  std::uint64_t resident[3] = {};
  for (std::uint64_t& pages : resident) {
    Monitor monitor(vlan10_);
    TextSet senders;
    for (int i = 0; i < senderCount; ++i) {
      const auto high = static_cast<std::uint8_t>(i >> 8);
      const auto low = static_cast<std::uint8_t>(i);
      const Mac mac{0x02, 0, 0, 1, high, low};
      host1_->send(arpFrame({1, mac, {10, 1, high, low}, {}, kRemoteIp}));
      senders.insert("10.1" + ipTail(high, low) + " " + macText(mac));
      if (i % burst == 0) ask();
    }
    ask();
    const TextSet known = local();
    const TextSet heard = monitor.heard();
    // A kernel that is short of neighbours drops what was not used for five seconds, and the binding goes with
    // it.
    for (const std::string& sender : senders)
      EXPECT_TRUE(known.contains(sender) || heard.contains(sender.substr(0, sender.find(' ')))) << sender;
    flushPort("Ethernet1");
    for (int i = 0; i < 500; ++i) ask();
    const TextSet host2 = {"10.0.10.12 02:00:00:00:00:12"};
    const auto afterAsking = [&] {
      ask();  // its neighbour may have been dropped too
      return local();
    };
    EXPECT_EQ(eventually(host2, afterAsking), host2);
    const TextSet left = {"10.0.10.99 02:00:00:00:00:99 permanent 110"};
    const auto permanent = [&] {
      ask();
      TextSet neighbours = neighboursOf(vlan10_);
      // Host 2 itself is a permanent one if it was learned anew while the kernel had no room for others.
      std::erase_if(neighbours, [](const std::string& text) {
        return text.ends_with("dynamic") || text.starts_with("10.0.10.12 ");
      });
      return neighbours;
    };
    EXPECT_EQ(eventually(left, permanent), left);
    std::uint64_t size = 0;
    std::ifstream("/proc/" + std::to_string(switch_.daemon().pid()) + "/statm") >> size >> pages;
  }
  // The sanitizer's allocator keeps some more now and then, and finds what is lost by itself; and it is slow.
  EXPECT_LE(resident[2], resident[1] + (options ? 1024 : 256)) << "pages";
  EXPECT_LE(longestAnswer_, slow ? 2 : 0.25) << "seconds";
  switch_.stop();
}

TEST_P(Bindings, AHundredThousandAreTakenOverAfterAKill) {
  const std::size_t all = patienceFactor() > 1 ? 10'000 : 100'000;  // fewer where the processor is emulated
  constexpr int kWithdrawn = 1'000;
  vlan20Is();
  json config = agents();
  start(config, {10, 20});
  const std::string file = switch_.runDirectory() + "-bindings.csv";  // goes with the switch
  json& advertised = config["state"][kBindings]["remoteBinding"];
  TextSet withdrawn;
  {
    std::ofstream csv(file);
    for (std::size_t i = 0; i < all; ++i) {
      const auto high = static_cast<std::uint8_t>(i >> 8);
      const auto low = static_cast<std::uint8_t>(i);
      const std::string ip = "10." + std::to_string(100 + (i >> 16)) + ipTail(high, low);
      const std::string mac = macText({0x02, 0, 0, static_cast<std::uint8_t>(2 + (i >> 16)), high, low});
      csv << "20," << ip << "," << mac << "\n";
      if (i % (all / kWithdrawn) == 0) {
        withdrawn.insert(ip);
      } else {
        advertised["20 " + ip]["mac"] = mac;
      }
    }
  }
  remote({"load", file});
  const auto expectProgrammed = [&](std::size_t entries) {
    const json programmed = {
        {"programmed", entries}, {"pending", 0}, {"refusals", 0}, {"probes", 0}, {"problem", ""}};
    json had;
    for (int i = 0; i < 4 && had != programmed; ++i)  // many need more patience than one
      had = switch_.state("arp/service/status", "/vrf/red", programmed);
    EXPECT_EQ(had, programmed);
  };
  expectProgrammed(all + 1);
  EXPECT_EQ(neighboursOf(vlan20_).size(), all + 1);

  switch_.kill();
  Monitor monitor(vlan20_);
  start(config, {10, 20});
  const std::size_t left = all + 1 - kWithdrawn;
  const auto present = [&] {
    for (int i = 0; i < 10; ++i) ask();
    return neighboursOf(vlan20_).size();
  };
  EXPECT_EQ(eventually(left, present), left);
  expectProgrammed(left);
  EXPECT_EQ(monitor.heard(), withdrawn) << "nothing else was written or removed";
  EXPECT_EQ(switch_.shown({"show", "arp/input/config/arpSuppression"})["vrf"]["red"]["ipv4"].size(), left);
  switch_.stop();
  EXPECT_THAT(neighboursOf(vlan20_), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Layouts, Bindings, testing::ValuesIn(kLayouts), nameOf);

}  // namespace
}  // namespace Lab
