#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Suppression/NeverAnswer.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Switch/Config.h"

namespace Host {

inline constexpr const char* kDefaultRunDirectory = "/run/arp-suppression";

struct VrfSettings {
  std::uint32_t id = 0;
  std::string networkNamespace;
  std::string device;  // "": the VRF is the namespace
};

struct VlanSettings {
  std::string bridge;
  std::vector<std::string> tunnelPorts;
  std::string vrf;  // "": whichever its interface is in
  bool suppression = true;
  bool answers = true;
  bool nd = true;
};

struct SoftForwardSettings {
  Switch::Policer policer;
  std::map<std::string, Switch::Policer> portPolicers;  // by kernel device; complete
  std::uint32_t failOpenSeconds = 3;
  Switch::Answers answers;
  std::set<std::string> portsWithoutAnswers;  // kernel devices
};

struct EvpnSettings {
  Switch::EvpnFeed feed = Switch::EvpnFeed::none;
  std::vector<std::uint8_t> protocols{Switch::EvpnConfig::kZebra, Switch::EvpnConfig::kBgp};
};

// The configuration file, checked as a whole. JSON; comments (// and /* */) are allowed.
//
//   runDirectory            absolute path; default /run/arp-suppression
//   hardware                true or false (default): traps and floods on the switch chip's device "fabric"
//   agents                  list of plug-ins, in the order in which they start; default none
//   vrfs                    by name: id (1 to 16777214), and either networkNamespace or device (a kernel VRF
//                           device), each unique; "default" needs no entry
//   vlans                   by VLAN id: bridge (a kernel device; default vlanN), tunnelPorts (list of kernel
//                           devices; default none), vrf (the VRF that its interface must be in, "default" or
//                           one of vrfs; default whichever it is in); with SoftForward only: suppression
//                           (default true; false: the VLAN is left alone), answers (default true; false: none
//                           of its requests is answered in the data plane), nd (default true; false: none of
//                           its neighbour solicitations is answered)
//   softForward             with SoftForward only: policer of each port (perSecond and burst, 1 to 1000000,
//                           default 600), ports (by kernel device: policer, by default the one of all ports;
//                           answers, default true, as a VLAN's), failOpenSeconds (1 to 60, default 3: how
//                           long after the agent's last sign of life everything is flooded), answers in the
//                           data plane (enabled, default true; maxEntries, 1 to 1048576, the default;
//                           refreshSeconds, 1 to 3600, default 30)
//   evpn                    with KernelEvpn only: feed ("kernel": remote bindings are the neighbours that a routing
//                           daemon writes into the kernel; default "none"), protocols (list of 1 to 255, default
//                           11 and 186: whose neighbours these are)
//   state                   by path: what merges into that state before any plug-in starts
//   bindings                list of remote bindings: vlan, ip, mac, localMultihomed and router (default false)
//   neverAnswer             list of networks; requests of hosts for their addresses are flooded
//   limits                  of what is kept at most, 1 to 16777216 each (Suppression/Limits.h):
//                           localBindingsPerPort (default 4096), localBindings (131072), requestRecords
//                           and remoteBindings (1048576 each), macTablePerPort (16384)
//   featureDirectory        absolute path of the folder with the group files of feature switches; default
//                           none
//   neighborRefreshSeconds  1 to 86400, default 240: when ArpService has a stale neighbour probed
//   metrics                 listen (a loopback address with a port, or the absolute path of a socket): where metrics
//                           are served; default nowhere
//   trace                   by trace handle: level of the text lines it writes, 0 to 9
struct Config {
  std::string runDirectory = kDefaultRunDirectory;
  bool hardware = false;
  std::vector<std::string> agents;
  std::map<std::string, VrfSettings> vrfs;
  std::map<std::uint16_t, VlanSettings> vlans;
  SoftForwardSettings softForward;
  EvpnSettings evpn;
  nlohmann::json state = nlohmann::json::object();  // every path is known, settable, and its content is good
  Switch::RemoteBindings bindings;
  std::set<ArpSuppression::IpNetwork> neverAnswer;
  std::map<std::string, std::uint32_t> limits;  // those that are given, by name
  std::string featureDirectory;
  std::map<std::string, int> trace;
  std::string metrics;  // where they are served (MetricsServer.h); "": nowhere
  std::uint32_t neighborRefreshSeconds = 240;

  // Whether it loads this plug-in.
  bool has(const char* plugin) const;
};

// What came of reading a configuration.
struct ConfigReading {
  Config config;  // counts only when nothing is wrong
  // Everything that is wrong, a line each: "<file>: <key>: <value> is not ...". The key is a path like
  // "vrfs.red.id". What hangs on something that is wrong itself is not looked at.
  std::vector<std::string> problems;

  bool good() const { return problems.empty(); }
};

ConfigReading parseConfig(std::string_view text, const std::string& file);
// The file, and the files of feature switches that it leads to.
ConfigReading readConfig(const std::string& file);

// What is allowed, but hardly meant: a line each.
std::vector<std::string> remarks(const Config& config);

}  // namespace Host
