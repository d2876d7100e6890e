#include "host/Config.h"

#include <algorithm>
#include <set>

#include "Bridging/VlanId.h"
#include "L3/VrfName.h"
#include "Lanix/IntfId.h"
#include "Lanix/NamespaceName.h"
#include "Statedb/Json.h"
#include "Vrf/VrfId.h"
#include "host/Bindings.h"
#include "host/ConfigReader.h"
#include "host/FeatureFiles.h"
#include "host/JsonText.h"
#include "host/MetricsServer.h"
#include "host/State.h"

namespace Host {

namespace {

using nlohmann::json;
using Statedb::describe;

constexpr std::size_t kMaxFileBytes = std::size_t{64} << 20;
constexpr std::size_t kMaxPathBytes = 1024;
constexpr int kMaxTraceLevel = 9;
constexpr std::uint32_t kMaxRefreshSeconds = 86400;
constexpr std::uint32_t kMaxPolicer = 1000000;
constexpr std::uint32_t kMaxFailOpenSeconds = 60;
constexpr std::uint32_t kMaxAnswers = 1'048'576;
constexpr std::uint32_t kMaxAnswerRefreshSeconds = 3600;
constexpr std::uint8_t kMaxProtocol = 255;
constexpr std::uint32_t kMaxLimit = std::uint32_t{1} << 24;
// The members of "arpSuppression/limits".
constexpr const char* kLimits[] = {"localBindingsPerPort", "localBindings", "requestRecords",
                                   "remoteBindings", "macTablePerPort"};
constexpr const char* kDevice = "a kernel device name of at most 15 bytes";
constexpr const char* kAbsolute = "an absolute path";
// Every handle that a line of text is written under.
constexpr const char* kTraceHandles[] = {kArpService, kArpSuppression, kKernelState,
                                         "Memtab",    "Netlink",       "Orb"};

bool isAbsolute(const std::string& path) {
  return path.starts_with('/') && path.size() <= kMaxPathBytes && path.find('\0') == std::string::npos;
}
bool isNamespaceName(const std::string& name) {
  constexpr std::size_t kLongestFileName = 255;
  return !name.empty() && name.size() <= kLongestFileName && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}
bool isDeviceName(const std::string& name) {
  return static_cast<bool>(Lanix::IntfId::fromName(name)) && name != "." && name != ".." &&
         name.find_first_of("/:") == std::string::npos;
}
bool isMetricsAddress(const std::string& text) { return static_cast<bool>(MetricsAddress::of(text)); }
bool isPrintable(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

template <std::size_t count>
bool isOneOf(const char* const (&names)[count], const std::string& name) {
  return std::ranges::find(names, name) != std::end(names);
}
template <std::size_t count>
std::string joined(const char* const (&names)[count]) {
  std::string all;
  for (const char* name : names) all += (all.empty() ? "" : ", ") + std::string(name);
  return all;
}
bool isPlugin(const std::string& name) { return isOneOf(kPlugins, name); }

class FileReader {
 public:
  FileReader(const std::string& file, const json& content) : reader_(file), content_(content) {}

  ConfigReading read() {
    readAll();
    // What hangs on several keys, whatever their order in the file.
    if (reader_.good("vrfs")) checkVlanVrfs();
    if (reader_.good("limits")) checkLimits();
    if (reader_.good("agents")) {
      checkAgents();
      checkState();
    }
    return {std::move(config_), reader_.problems()};
  }

 private:
  void readAll();
  ConfigReader::Read vrfs();
  ConfigReader::Read vlans();
  ConfigReader::Read bindings();
  ConfigReader::Read neverAnswer();
  ConfigReader::Read limits();
  ConfigReader::Read policer(Switch::Policer& to);
  ConfigReader::Read answers(Switch::Answers& to);
  void readSoftForward(const std::string& key, const json& value);
  void readEvpn(const std::string& key, const json& value);
  void checkVlanVrfs();
  void checkLimits();
  void checkAgents();
  void checkState();
  bool checkState(const std::string& path, std::vector<std::string>& keys, const json& part);

  // The VRFs that have an id, a namespace or a device, by that.
  struct VrfPlaces {
    std::map<std::uint32_t, std::string> ids;
    std::map<std::string, std::string> namespaces;
    std::map<std::string, std::string> devices;
  };
  void readVrf(const std::string& key, const std::string& name, const json& value, VrfPlaces& places);
  void readVlan(const std::string& key, const std::string& name, const json& value);

  ConfigReader reader_;
  const json& content_;
  Config config_;
};

void FileReader::readAll() {
  reader_.object(
      "", content_,
      {{"runDirectory", reader_.string(config_.runDirectory, isAbsolute, kAbsolute)},
       {"hardware", reader_.boolean(config_.hardware)},
       {"agents", reader_.strings(config_.agents, isPlugin, "one of " + joined(kPlugins))},
       {"vrfs", vrfs()},
       {"vlans", vlans()},
       {"softForward", [this](const auto& key, const json& value) { readSoftForward(key, value); }},
       {"evpn", [this](const auto& key, const json& value) { readEvpn(key, value); }},
       {"bindings", bindings()},
       {"neverAnswer", neverAnswer()},
       {"limits", limits()},
       {"state",
        [this](const auto& key, const json& value) {
          if (!value.is_object()) return reader_.isNot(key, value, "an object by path");
          config_.state = value;
        }},
       {"featureDirectory", reader_.string(config_.featureDirectory, isAbsolute, kAbsolute)},
       {"neighborRefreshSeconds",
        reader_.number<std::uint32_t>(config_.neighborRefreshSeconds, 1, kMaxRefreshSeconds)},
       {"metrics",
        [this](const auto& key, const json& value) {
          reader_.object(
              key, value,
              {{"listen", reader_.string(config_.metrics, isMetricsAddress, MetricsAddress::allowed())}});
          reader_.required(key, value, "listen");
        }},
       {"trace", reader_.each("an object of levels by trace handle", [this](const auto& key, const auto& name,
                                                                            const json& level) {
          if (!isOneOf(kTraceHandles, name))
            return reader_.fail(key, "unknown trace handle; allowed here: " + joined(kTraceHandles));
          reader_.number<int>(config_.trace[name], 0, kMaxTraceLevel)(key, level);
        })}});
  std::ranges::sort(config_.agents, {},
                    [](const std::string& name) { return std::ranges::find(kPlugins, name); });
}

// --- VRFs and VLANs ------------------------------------------------------------------------------------------

ConfigReader::Read FileReader::vrfs() {
  return reader_.each(
      "an object of VRFs by name",
      [this, places = VrfPlaces()](const auto& key, const auto& name, const json& value) mutable {
        readVrf(key, name, value, places);
      });
}

void FileReader::readVrf(const std::string& key, const std::string& name, const json& value,
                         VrfPlaces& places) {
  if (!isPrintable(name) || name.size() > L3::VrfName::maxLength) {
    return reader_.fail("vrfs", describe(name) + " is not a VRF name of 1 to " +
                                    std::to_string(L3::VrfName::maxLength) + " visible characters");
  }
  if (name == L3::VrfName::kDefault) {
    return reader_.fail(key,
                        "the VRF \"default\" is always there, with the id 0 and the host's own "
                        "namespace; leave it out");
  }
  VrfSettings& vrf = config_.vrfs[name];
  reader_.object(key, value,
                 {{"id", reader_.number<std::uint32_t>(vrf.id, 1, Vrf::VrfIdMap::kNoVrfId - 1)},
                  {"networkNamespace",
                   reader_.string(vrf.networkNamespace, isNamespaceName, "the name of a network namespace")},
                  {"device", reader_.string(vrf.device, isDeviceName, kDevice)}});
  reader_.required(key, value, "id");
  if (!reader_.good(key)) return;
  if (vrf.networkNamespace.empty() == vrf.device.empty()) {
    const char* const found = vrf.device.empty() ? "neither \"networkNamespace\" nor \"device\" is"
                                                 : "\"networkNamespace\" and \"device\" are";
    return reader_.fail(key, std::string(found) +
                                 " there; allowed is exactly one: the network namespace or the VRF device "
                                 "that the VRF is");
  }
  if (vrf.networkNamespace == Lanix::kDefaultNamespace) {
    return reader_.fail(key + ".networkNamespace",
                        "\"default\" is the host's own namespace, which the VRF \"default\" has");
  }
  const auto [id, newId] = places.ids.emplace(vrf.id, key);
  if (!newId) reader_.fail(key + ".id", std::to_string(vrf.id) + " is the id of " + id->second + " already");
  const bool isDevice = !vrf.device.empty();
  const std::string& place = isDevice ? vrf.device : vrf.networkNamespace;
  const auto [holder, isNew] = (isDevice ? places.devices : places.namespaces).emplace(place, key);
  if (!isNew) {
    reader_.fail(key + (isDevice ? ".device" : ".networkNamespace"),
                 describe(place) + " is the " + (isDevice ? "device" : "namespace") + " of " +
                     holder->second + " already");
  }
  if (isDevice) vrf.networkNamespace = Lanix::kDefaultNamespace;
}

ConfigReader::Read FileReader::vlans() {
  return reader_.each("an object of VLANs by id", [this](const auto& key, const auto& name,
                                                         const json& value) { readVlan(key, name, value); });
}

void FileReader::readVlan(const std::string& key, const std::string& name, const json& value) {
  const std::optional<Bridging::VlanId> vlanId = Bridging::VlanId::fromStrep(name);
  if (!vlanId || vlanId->toStrep() != name)
    return reader_.fail("vlans", describe(name) + " is not " + Bridging::VlanId::allowed());
  VlanSettings& vlan = config_.vlans[vlanId->value()];
  vlan.bridge = "vlan" + name;
  reader_.object(key, value,
                 {{"bridge", reader_.string(vlan.bridge, isDeviceName, kDevice)},
                  {"tunnelPorts", reader_.strings(vlan.tunnelPorts, isDeviceName, kDevice)},
                  {"vrf", reader_.string(vlan.vrf, isPrintable, "the name of a VRF")},
                  {"suppression", reader_.boolean(vlan.suppression)},
                  {"answers", reader_.boolean(vlan.answers)},
                  {"nd", reader_.boolean(vlan.nd)}});
}

void FileReader::checkVlanVrfs() {
  std::string names(L3::VrfName::kDefault);
  for (const auto& [name, vrf] : config_.vrfs) names += ", " + name;
  for (const auto& [vlanId, vlan] : config_.vlans) {
    if (vlan.vrf.empty() || vlan.vrf == L3::VrfName::kDefault || config_.vrfs.contains(vlan.vrf)) continue;
    reader_.fail("vlans." + std::to_string(vlanId) + ".vrf",
                 describe(vlan.vrf) + " is not a VRF of this configuration; allowed: " + names);
  }
}

// --- Plug-ins ------------------------------------------------------------------------------------------------

ConfigReader::Read FileReader::policer(Switch::Policer& to) {
  return [this, &to](const std::string& key, const json& value) {
    reader_.object(key, value,
                   {{"perSecond", reader_.number<std::uint32_t>(to.perSecond, 1, kMaxPolicer)},
                    {"burst", reader_.number<std::uint32_t>(to.burst, 1, kMaxPolicer)}});
  };
}

ConfigReader::Read FileReader::answers(Switch::Answers& to) {
  return [this, &to](const std::string& key, const json& value) {
    const char* const hint = "; \"enabled\": false switches answers off";
    reader_.object(key, value,
                   {{"enabled", reader_.boolean(to.enabled)},
                    {"maxEntries", reader_.number<std::uint32_t>(to.maxEntries, 1, kMaxAnswers, hint)},
                    {"refreshSeconds",
                     reader_.number<std::uint32_t>(to.refreshSeconds, 1, kMaxAnswerRefreshSeconds, hint)}});
  };
}

void FileReader::readSoftForward(const std::string& key, const json& value) {
  SoftForwardSettings& to = config_.softForward;
  const ConfigReader::Read ports = reader_.each(
      "an object of ports by kernel device", [&](const auto& at, const auto& name, const json& port) {
        if (!isDeviceName(name)) return reader_.isNot(key + ".ports", name, kDevice);
        Switch::Policer& own = to.portPolicers.emplace(name, to.policer).first->second;
        bool answered = true;
        reader_.object(at, port, {{"policer", policer(own)}, {"answers", reader_.boolean(answered)}});
        if (!answered) to.portsWithoutAnswers.insert(name);
      });
  json ownOfPorts = json::object();
  reader_.object(
      key, value,
      {{"policer", policer(to.policer)},
       {"failOpenSeconds", reader_.number<std::uint32_t>(to.failOpenSeconds, 1, kMaxFailOpenSeconds)},
       {"answers", answers(to.answers)},
       {"ports", [&](const auto&, const json& given) { ownOfPorts = given; }}});
  // Last: what a port leaves out is as for all ports.
  ports(key + ".ports", ownOfPorts);
}

void FileReader::readEvpn(const std::string& key, const json& value) {
  EvpnSettings& to = config_.evpn;
  const auto feed = [&](const std::string& at, const json& name) {
    const auto known = Statedb::scalarToValue<Switch::EvpnFeed>(name);
    if (!known) return reader_.isNot(at, name, Statedb::allowedFor<Switch::EvpnFeed>());
    to.feed = *known;
  };
  const auto protocols = [&](const std::string& at, const json& list) {
    to.protocols.clear();
    reader_.list("a list of protocols of neighbours, 1 to 255",
                 [&](const auto& place, const auto&, const json& number) {
                   std::uint8_t protocol = 0;
                   reader_.number<std::uint8_t>(protocol, 1, kMaxProtocol)(place, number);
                   if (std::ranges::count(to.protocols, protocol) != 0)
                     return reader_.fail(place, describe(number) + " is there twice");
                   to.protocols.push_back(protocol);
                 })(at, list);
    if (list.is_array() && list.empty()) reader_.fail(at, "is empty: no neighbour would be of the feed");
  };
  reader_.object(key, value, {{"feed", feed}, {"protocols", protocols}});
}

// What means nothing with these plug-ins would be believed to be in force.
void FileReader::checkAgents() {
  if (content_.contains("evpn") && !config_.has(kKernelEvpn))
    reader_.fail("evpn", "does nothing without the agent KernelEvpn; name it in \"agents\"");
  if (config_.has(kSoftForward)) {
    if (config_.hardware)
      reader_.fail("hardware", "true does not go with the agent SoftForward, whose traps nobody would read");
    return;
  }
  const std::string without = "does nothing without the agent SoftForward; name it in \"agents\"";
  if (content_.contains("softForward")) reader_.fail("softForward", without);
  for (const auto& [vlanId, vlan] : config_.vlans) {
    const std::string key = "vlans." + std::to_string(vlanId);
    if (!vlan.suppression) reader_.fail(key + ".suppression", "false " + without);
    if (!vlan.answers) reader_.fail(key + ".answers", "false " + without);
    if (!vlan.nd) reader_.fail(key + ".nd", "false " + without);
  }
}

// --- Addresses -----------------------------------------------------------------------------------------

ConfigReader::Read FileReader::bindings() {
  return reader_.list("a list of bindings", [this](const auto& key, const auto&, const json& value) {
    const Mox::Result<Binding> binding = parseBinding(value);
    if (!binding) return reader_.fail(key, binding.error());
    if (!config_.bindings.emplace(binding->key, binding->value).second)
      reader_.fail(key, "there is one of " + Mox::toStrep(binding->key) + " already");
  });
}

ConfigReader::Read FileReader::neverAnswer() {
  using ArpSuppression::IpNetwork;
  return reader_.list("a list of networks", [this](const auto& key, const auto&, const json& value) {
    const auto network = Statedb::scalarToValue<IpNetwork>(value);
    if (!network) return reader_.isNot(key, value, IpNetwork::allowed());
    if (!config_.neverAnswer.insert(*network).second) reader_.fail(key, describe(value) + " is there twice");
  });
}

ConfigReader::Read FileReader::limits() {
  return [this](const std::string& key, const json& value) {
    ConfigReader::Keys keys;
    for (const char* name : kLimits) {
      keys[name] = [this, name](const std::string& at, const json& limit) {
        reader_.number<std::uint32_t>(config_.limits[name], 1, kMaxLimit)(at, limit);
      };
    }
    reader_.object(key, value, keys);
  };
}

void FileReader::checkLimits() {
  const auto limit = config_.limits.find("remoteBindings");
  if (limit == config_.limits.end() || config_.bindings.size() <= limit->second) return;
  reader_.fail("limits.remoteBindings", std::to_string(limit->second) + " is less than the " +
                                            std::to_string(config_.bindings.size()) + " \"bindings\"");
}

// --- State ---------------------------------------------------------------------------------------------------

void FileReader::checkState() {
  std::vector<std::string> keys;
  for (auto item = config_.state.begin(); item != config_.state.end(); ++item)
    checkState(item.key(), keys, item.value());
}

// A refusal names the first of perhaps many: then each part of the content is looked at by itself.
bool FileReader::checkState(const std::string& path, std::vector<std::string>& keys, const json& part) {
  json content = part;
  for (auto key = keys.rbegin(); key != keys.rend(); ++key) {
    json around = json::object();
    around[*key] = std::move(content);
    content = std::move(around);
  }
  const Mox::Result<> checked = Host::checkState(path, content, config_.agents);
  if (checked) return true;
  bool told = false;
  for (auto item = part.begin(); part.is_object() && item != part.end(); ++item) {
    keys.push_back(item.key());
    if (!checkState(path, keys, item.value())) told = true;
    keys.pop_back();
  }
  if (!told) reader_.fail("state", checked.error());
  return false;
}

}  // namespace

bool Config::has(const char* plugin) const { return std::ranges::count(agents, plugin) != 0; }

ConfigReading parseConfig(std::string_view text, const std::string& file) {
  const Mox::Result<json> parsed = parseJson(text, Comments::allowed);
  if (!parsed) return {{}, {file + ": " + parsed.error()}};
  return FileReader(file, *parsed).read();
}

ConfigReading readConfig(const std::string& file) {
  const Mox::Result<std::string> text = readFile(file, kMaxFileBytes, false);
  if (!text) return {{}, {text.error()}};
  ConfigReading reading = parseConfig(*text, file);
  const std::string directory = featureDirectory(reading.config.featureDirectory);
  for (std::string& problem : checkFeatureFiles(directory)) reading.problems.push_back(std::move(problem));
  return reading;
}

std::vector<std::string> remarks(const Config& config) {
  if (config.agents.empty()) return {"no plug-in is named in \"agents\": nothing is suppressed"};
  const bool followsVlans = config.has(kKernelState) || config.has(kSoftForward);
  if (config.vlans.empty() && followsVlans) return {"no VLAN is named in \"vlans\": nothing is suppressed"};
  if (config.has(kKernelEvpn) && config.evpn.feed == Switch::EvpnFeed::none)
    return {
        "the agent KernelEvpn is named, but no \"evpn.feed\": there are no remote bindings but \"bindings\""};
  return {};
}

}  // namespace Host
