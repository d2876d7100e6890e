#pragma once

// A switch of three VLANs and its hosts, who ask all the time: what became of each of their requests is accounted for.
//
// A request counts as answered when its reply came to who asked, with a MAC address that the owner had at most some
// seconds ago; as flooded when it came to the VLAN's tunnel port "coreN". One that was neither after some seconds is
// lost, unless
//   - the daemon was killed at most its fail-open time before (the kernel's programs still show requests to it);
//   - who asked, or the local host that was asked for, lost its port meanwhile;
//   - it was on its way while ports were hooked or unhooked: the kernel takes a device's queue away for as long as it makes or
//     removes a clsact there, and drops what anybody sends then. That is to happen to few: kMostHooked of all.

#include <array>
#include <compare>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lab/Nd.h"

namespace Lab {

// 10.VLAN.GROUP.NUMBER, or 2001:db8:VLAN::GROUP:NUMBER.
struct Address {
  enum Group : std::uint8_t { gateway, local, remote, nobody };
  std::uint8_t vlan = 0;
  bool is6 = false;
  std::uint8_t group = gateway, number = 1;

  auto operator<=>(const Address&) const = default;
  Ip ip() const { return {10, vlan, group, number}; }
  Ip6 ip6() const { return {0x20, 1, 0x0d, 0xb8, 0, vlan, 0, 0, 0, 0, 0, 0, 0, group, 0, number}; }
  std::string text() const;
};
std::string textOf(const Mac& mac);

class SoakNetwork {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::array<std::uint8_t, 3> kVlans{10, 20, 30};
  static constexpr std::uint8_t kRemotes = 250;  // addresses of remote hosts, by VLAN and family
  static constexpr std::chrono::seconds kFailOpen{3};
  static constexpr double kMostHooked = 5e-3;

  struct Host {
    std::uint8_t vlan;
    Mac mac;
    Address address;   // and the IPv6 one of the same number
    std::string port;  // "": it is elsewhere
    Clock::time_point changed{};
  };
  struct Sums {
    std::uint64_t asked = 0, answered = 0, flooded = 0, afterKill = 0, hooked = 0, cut = 0, lost = 0,
                  wrong = 0;
    double longestWait = 0;       // seconds until a request was answered or flooded
    double longestAfterKill = 0;  // seconds from the kill to a request that came to nothing
  };

  // VLAN 10 in the VRF "default", VLANs 20 and 30 in namespaces of their own, "red" and "blue".
  SoakNetwork(const Namespace& inside, std::uint64_t seed);
  ~SoakNetwork() { trafficIs(false); }

  const Namespace& inside() const { return inside_; }
  static std::string bridgeOf(std::uint8_t vlan) {
    return (vlan == 10 ? "vlan" : "br") + std::to_string(vlan);
  }
  const Namespace& placeOf(std::uint8_t vlan) const { return vlan == 10 ? inside_ : *vrfs_.at(vlan); }

  double seconds() const {
    return std::chrono::duration<double>(Clock::now() - begin_).count();
  }  // since it was made
  void trafficIs(bool on);
  Sums sums() const;
  std::vector<std::string> faults() const;  // the first of what was lost or wrong

  // Who owns an address now, as far as the switch was told. Answers with the MAC count as right for a while after.
  void ownerIs(const Address& address, const Mac& mac);
  void ownerDel(const Address& address, const Mac& mac);
  void neverAnsweredIs(const std::set<Address>& addresses);
  void daemonKilled();
  // While this lives, and a moment after, ports are hooked or unhooked.
  class Hooking {
   public:
    Hooking(SoakNetwork& network, bool does) : network_(does ? &network : nullptr) { says(true); }
    ~Hooking() { says(false); }
    Hooking(const Hooking&) = delete;
    Hooking& operator=(const Hooking&) = delete;

   private:
    void says(bool begin) const {
      if (network_ != nullptr) network_->hooksChange(begin);
    }
    SoakNetwork* network_;
  };

  // Each waits until it is so.
  const std::vector<Host>& hosts() const { return hosts_; }
  void hostIs(std::size_t host, const std::string& port);  // "": it speaks from behind the overlay
  void allSpeak();
  bool hasPort(const std::string& port) const { return ports_.contains(port); }
  static std::string portName(std::uint8_t vlan, unsigned number);  // access ports from 1 on
  void accessPortIs(std::uint8_t vlan, unsigned number, bool isThere);
  void accessPortFlaps(std::uint8_t vlan, unsigned number);
  void spareTunnelIs(std::uint8_t vlan, bool isThere);  // "spareN", beside "coreN"
  void interfaceIs(std::uint8_t vlan, bool isThere);    // of VLAN 20 or 30
  void namespaceIsAnother();                            // VLAN 30's, without its interface

  // The hosts of the VLANs ask for each of these once; how many were answered, and how many flooded.
  std::pair<std::size_t, std::size_t> census(const std::vector<Address>& addresses);

 private:
  struct Port {
    std::uint8_t vlan;
    enum class Kind { access, tunnel, spare } kind;
    PacketSocket socket;
  };
  struct Pending {
    Clock::time_point sent;
    std::size_t host;
  };

  void portIs(std::uint8_t vlan, const std::string& name, Port::Kind kind);
  void portDel(const std::string& name);
  void hooksChange(bool begin);
  void run(const std::stop_token& over);
  void askOne(Clock::time_point now);
  void ask(std::size_t host, const Address& target, Clock::time_point now);
  void listen(Clock::time_point now);
  void hear(Port& port, const std::string& name, const Frame& frame, Clock::time_point now);
  void answeredBy(const Mac& asker, const Address& target, const Mac& owner, Clock::time_point now);
  void resolve(const std::pair<std::size_t, Address>& request, std::uint64_t& sum, Clock::time_point now);
  void expire(Clock::time_point now);
  void speaks(const Host& host);
  void fault(const std::string& what);

  const Clock::time_point begin_ = Clock::now();
  const Namespace& inside_;
  Namespace outside_;
  std::map<std::uint8_t, std::optional<Namespace>> vrfs_;
  std::vector<Host> hosts_;
  std::map<Mac, std::size_t> hostOf_;

  mutable std::mutex mutex_;  // of all that follows, and of hosts_ while there is traffic
  std::map<std::string, Port> ports_;
  std::map<std::pair<std::size_t, Address>, Pending> pending_;
  std::map<std::pair<Address, Mac>, Clock::time_point> owners_;  // until when
  std::set<Address> never_;
  Clock::time_point interfaceChanged_{};
  std::vector<Clock::time_point> killed_;
  std::vector<std::pair<Clock::time_point, Clock::time_point>> hooking_;  // from when to when
  Sums sums_;
  std::vector<std::string> faults_;
  std::mt19937_64 random_;
  std::jthread thread_;
};

}  // namespace Lab
