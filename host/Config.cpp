#include "host/Config.h"

#include <algorithm>
#include <array>
#include <functional>
#include <set>

#include "Bridging/VlanId.h"
#include "L3/VrfName.h"
#include "Lanix/IntfId.h"
#include "Lanix/NamespaceName.h"
#include "Statedb/Json.h"
#include "Vrf/VrfId.h"
#include "host/JsonText.h"
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
constexpr const char* kDevice = "a kernel device name of at most 15 bytes";

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
bool isPrintable(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

// Reads one file. The first error ends it: `good()` turns false and nothing after it is looked at.
class Reader {
 public:
  explicit Reader(std::string file) : file_(std::move(file)) {}

  bool good() const { return error_.empty(); }
  const std::string& error() const { return error_; }

  void fail(const std::string& key, const std::string& what) {
    if (good()) error_ = file_ + ": " + (key.empty() ? "" : key + ": ") + what;
  }
  void isNot(const std::string& key, const json& value, const std::string& allowed) {
    fail(key, describe(value) + " is not " + allowed);
  }

  // Calls the reader of each key that is there; others are unknown. `key` is "" for the whole file.
  using Keys = std::map<std::string, std::function<void(const std::string& key, const json& value)>>;
  void object(const std::string& key, const json& value, const Keys& keys) {
    std::string names;
    for (const auto& [name, read] : keys) names += (names.empty() ? "" : ", ") + name;
    if (!value.is_object()) return isNot(key, value, "an object of " + names);
    for (auto item = value.begin(); item != value.end() && good(); ++item) {
      const auto found = keys.find(item.key());
      if (found == keys.end()) return fail(below(key, item.key()), "unknown key; allowed here: " + names);
      found->second(below(key, item.key()), item.value());
    }
  }
  void eachKey(
      const std::string& key, const json& value, const std::string& allowed,
      const std::function<void(const std::string& key, const std::string& name, const json& value)>& read) {
    if (!value.is_object()) return isNot(key, value, allowed);
    for (auto item = value.begin(); item != value.end() && good(); ++item) {
      read(below(key, item.key()), item.key(), item.value());
    }
  }
  void required(const std::string& key, const json& value, const char* name) {
    if (good() && !value.contains(name)) fail(below(key, name), "is missing");
  }

  void string(const std::string& key, const json& value, std::string& to, bool (*allowed)(const std::string&),
              const std::string& what) {
    if (!value.is_string() || !allowed(value.get_ref<const std::string&>())) return isNot(key, value, what);
    to = value.get<std::string>();
  }
  void strings(const std::string& key, const json& value, std::vector<std::string>& to,
               bool (*allowed)(const std::string&), const std::string& what) {
    if (!value.is_array()) return isNot(key, value, "a list, each " + what);
    for (std::size_t i = 0; i < value.size() && good(); ++i) {
      const std::string at = key + "[" + std::to_string(i) + "]";
      std::string element;
      string(at, value[i], element, allowed, what);
      if (!good()) return;
      if (std::find(to.begin(), to.end(), element) != to.end())
        return fail(at, describe(element) + " is there twice");
      to.push_back(element);
    }
  }
  void boolean(const std::string& key, const json& value, bool& to) {
    if (!value.is_boolean()) return isNot(key, value, "true or false");
    to = value.get<bool>();
  }
  template <class Number>
  void number(const std::string& key, const json& value, Number& to, Number least, Number most) {
    const std::string allowed = "a number from " + std::to_string(least) + " to " + std::to_string(most);
    const std::optional<Number> number = Statedb::scalarToValue<Number>(value);
    if (!number || *number < least || *number > most) return isNot(key, value, allowed);
    to = *number;
  }

 private:
  static std::string below(const std::string& key, const std::string& name) {
    return key.empty() ? name : key + "." + name;
  }
  const std::string file_;
  std::string error_;
};

bool isPlugin(const std::string& name) {
  return std::find(std::begin(kPlugins), std::end(kPlugins), name) != std::end(kPlugins);
}
std::string pluginNames() {
  std::string names;
  for (const char* name : kPlugins) names += (names.empty() ? "" : ", ") + std::string(name);
  return names;
}

void readVrfs(Reader& reader, const std::string& key, const json& value, Config& config) {
  std::map<std::uint32_t, std::string> ids;
  std::map<std::string, std::string> namespaces;
  std::map<std::string, std::string> devices;
  reader.eachKey(
      key, value, "an object of VRFs by name",
      [&](const std::string& at, const std::string& name, const json& content) {
        if (!isPrintable(name) || name.size() > L3::VrfName::maxLength) {
          return reader.fail(key, describe(name) + " is not a VRF name of 1 to " +
                                      std::to_string(L3::VrfName::maxLength) + " visible characters");
        }
        if (name == L3::VrfName::kDefault) {
          return reader.fail(at,
                             "the VRF \"default\" is always there, with the id 0 and the host's own "
                             "namespace; leave it out");
        }
        VrfSettings vrf;
        reader.object(at, content,
                      {{"id",
                        [&](const auto& k, const auto& v) {
                          reader.number<std::uint32_t>(k, v, vrf.id, 1, Vrf::VrfIdMap::kNoVrfId - 1);
                        }},
                       {"networkNamespace",
                        [&](const auto& k, const auto& v) {
                          reader.string(k, v, vrf.networkNamespace, isNamespaceName,
                                        "the name of a network namespace");
                        }},
                       {"device", [&](const auto& k, const auto& v) {
                          reader.string(k, v, vrf.device, isDeviceName, kDevice);
                        }}});
        reader.required(at, content, "id");
        if (!reader.good()) return;
        if (vrf.networkNamespace.empty() == vrf.device.empty()) {
          const char* const found = vrf.device.empty() ? "neither \"networkNamespace\" nor \"device\" is"
                                                       : "\"networkNamespace\" and \"device\" are";
          return reader.fail(at,
                             std::string(found) +
                                 " there; allowed is exactly one: the network namespace or the VRF device "
                                 "that the VRF is");
        }
        if (vrf.networkNamespace == Lanix::kDefaultNamespace) {
          return reader.fail(at + ".networkNamespace",
                             "\"default\" is the host's own namespace, which the VRF \"default\" has");
        }
        const auto [id, newId] = ids.emplace(vrf.id, at);
        if (!newId)
          return reader.fail(at + ".id", std::to_string(vrf.id) + " is the id of " + id->second + " already");
        const bool isDevice = !vrf.device.empty();
        const std::string& place = isDevice ? vrf.device : vrf.networkNamespace;
        const auto [holder, isNew] = (isDevice ? devices : namespaces).emplace(place, at);
        if (!isNew) {
          return reader.fail(at + (isDevice ? ".device" : ".networkNamespace"),
                             describe(place) + " is the " + (isDevice ? "device" : "namespace") + " of " +
                                 holder->second + " already");
        }
        if (isDevice) vrf.networkNamespace = Lanix::kDefaultNamespace;
        config.vrfs[name] = vrf;
      });
}

void readVlans(Reader& reader, const std::string& key, const json& value, Config& config) {
  reader.eachKey(
      key, value, "an object of VLANs by id",
      [&](const std::string& at, const std::string& name, const json& content) {
        const std::optional<Bridging::VlanId> vlanId = Bridging::VlanId::fromStrep(name);
        if (!vlanId || vlanId->toStrep() != name)
          return reader.fail(key, describe(name) + " is not " + Bridging::VlanId::allowed());
        VlanSettings vlan;
        vlan.bridge = "vlan" + name;
        reader.object(
            at, content,
            {{"bridge",
              [&](const auto& k, const auto& v) { reader.string(k, v, vlan.bridge, isDeviceName, kDevice); }},
             {"tunnelPorts",
              [&](const auto& k, const auto& v) {
                reader.strings(k, v, vlan.tunnelPorts, isDeviceName, kDevice);
              }},
             {"vrf", [&](const auto& k,
                         const auto& v) { reader.string(k, v, vlan.vrf, isPrintable, "the name of a VRF"); }},
             {"suppression", [&](const auto& k, const auto& v) { reader.boolean(k, v, vlan.suppression); }}});
        config.vlans[vlanId->value()] = vlan;
      });
}

// The VRFs may stand behind the VLANs in the file.
void checkVlanVrfs(Reader& reader, const Config& config) {
  for (const auto& [vlanId, vlan] : config.vlans) {
    if (vlan.vrf.empty() || vlan.vrf == L3::VrfName::kDefault || config.vrfs.contains(vlan.vrf)) continue;
    std::string names = "default";
    for (const auto& [name, vrf] : config.vrfs) names += ", " + name;
    reader.fail("vlans." + std::to_string(vlanId) + ".vrf",
                describe(vlan.vrf) + " is not a VRF of this configuration; allowed: " + names);
  }
}

void readPolicer(Reader& reader, const std::string& key, const json& value, Switch::Policer& policer) {
  const auto into = [&](std::uint32_t& to) {
    return
        [&](const std::string& k, const json& v) { reader.number<std::uint32_t>(k, v, to, 1, kMaxPolicer); };
  };
  reader.object(key, value, {{"perSecond", into(policer.perSecond)}, {"burst", into(policer.burst)}});
}

void readSoftForward(Reader& reader, const std::string& key, const json& value, SoftForwardSettings& to) {
  const auto readPorts = [&](const std::string& k, const json& v) {
    reader.eachKey(k, v, "an object of ports by kernel device",
                   [&](const std::string& at, const std::string& name, const json& content) {
                     if (!isDeviceName(name)) return reader.isNot(k, name, kDevice);
                     Switch::Policer& policer = to.portPolicers.emplace(name, to.policer).first->second;
                     reader.object(at, content, {{"policer", [&](const std::string& below, const json& v) {
                                                    readPolicer(reader, below, v, policer);
                                                  }}});
                   });
  };
  json ports = json::object();
  reader.object(key, value,
                {{"policer", [&](const auto& k, const auto& v) { readPolicer(reader, k, v, to.policer); }},
                 {"failOpenSeconds",
                  [&](const auto& k, const auto& v) {
                    reader.number<std::uint32_t>(k, v, to.failOpenSeconds, 1, kMaxFailOpenSeconds);
                  }},
                 {"ports", [&](const auto&, const auto& v) { ports = v; }}});
  // Last: what a port leaves out is as for all ports.
  if (reader.good()) readPorts(key + ".ports", ports);
}

// What means nothing without SoftForward would be believed to be in force.
void checkSoftForward(Reader& reader, const json& file, const Config& config) {
  if (std::ranges::find(config.agents, kSoftForward) != config.agents.end()) return;
  if (file.contains("softForward"))
    reader.fail("softForward", "does nothing without the agent SoftForward; name it in \"agents\"");
  for (const auto& [vlanId, vlan] : config.vlans) {
    if (vlan.suppression) continue;
    reader.fail("vlans." + std::to_string(vlanId) + ".suppression",
                "false does nothing without the agent SoftForward; name it in \"agents\"");
  }
}

void readState(Reader& reader, const std::string& key, const json& value, Config& config) {
  reader.eachKey(key, value, "an object by path",
                 [&](const std::string&, const std::string& path, const json& content) {
                   const Mox::Result<> checked = checkState(path, content, config.agents);
                   if (!checked) reader.fail(key, checked.error());
                 });
  config.state = value;
}

}  // namespace

Mox::Result<Config> parseConfig(std::string_view text, const std::string& file) {
  Reader reader(file);
  const Mox::Result<json> parsed = parseJson(text, Comments::allowed);
  if (!parsed) return Mox::Failure{file + ": " + parsed.error()};
  Config config;
  json state = json::object();
  reader.object("", *parsed,
                {{"runDirectory",
                  [&](const auto& k, const auto& v) {
                    reader.string(k, v, config.runDirectory, isAbsolute, "an absolute path");
                  }},
                 {"hardware", [&](const auto& k, const auto& v) { reader.boolean(k, v, config.hardware); }},
                 {"agents",
                  [&](const auto& k, const auto& v) {
                    reader.strings(k, v, config.agents, isPlugin, "one of " + pluginNames());
                    std::ranges::sort(config.agents, {}, [](const std::string& name) {
                      return std::find(std::begin(kPlugins), std::end(kPlugins), name);
                    });
                  }},
                 {"vrfs", [&](const auto& k, const auto& v) { readVrfs(reader, k, v, config); }},
                 {"vlans", [&](const auto& k, const auto& v) { readVlans(reader, k, v, config); }},
                 {"softForward",
                  [&](const auto& k, const auto& v) { readSoftForward(reader, k, v, config.softForward); }},
                 {"state", [&](const auto&, const auto& v) { state = v; }},
                 {"featureDirectory",
                  [&](const auto& k, const auto& v) {
                    reader.string(k, v, config.featureDirectory, isAbsolute, "an absolute path");
                  }},
                 {"neighborRefreshSeconds",
                  [&](const auto& k, const auto& v) {
                    reader.number<std::uint32_t>(k, v, config.neighborRefreshSeconds, 1, kMaxRefreshSeconds);
                  }},
                 {"trace", [&](const auto& k, const auto& v) {
                    reader.eachKey(k, v, "an object of levels by trace handle",
                                   [&](const std::string& at, const std::string& name, const json& level) {
                                     reader.number<int>(at, level, config.trace[name], 0, kMaxTraceLevel);
                                   });
                  }}});
  checkVlanVrfs(reader, config);
  if (reader.good()) checkSoftForward(reader, *parsed, config);
  if (config.hardware && std::ranges::find(config.agents, "SoftForward") != config.agents.end()) {
    reader.fail("hardware", "true does not go with the agent SoftForward, whose traps nobody would read");
  }
  // Last: what may be set hangs on the plug-ins.
  if (reader.good()) readState(reader, "state", state, config);
  if (reader.good()) return config;
  return Mox::Failure{reader.error()};
}

Mox::Result<Config> readConfig(const std::string& file) {
  const Mox::Result<std::string> text = readFile(file, kMaxFileBytes, false);
  if (!text) return text.failure();
  return parseConfig(*text, file);
}

}  // namespace Host
