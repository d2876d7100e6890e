#include "SoftForward/Programs.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Mox/Assert.h"
#include "SoftForward.skel.h"
#include "SoftForward/Shared.h"

namespace SoftForward {
namespace {

constexpr const char* kSource = "SoftForward/Programs";
constexpr std::size_t kMessages = 2000;

// libbpf writes to stderr unless it is told where to. What it warns of while programs are loaded is kept,
// newest last.
std::string messages;

__attribute__((format(printf, 2, 0))) int collect(libbpf_print_level level, const char* format,
                                                  va_list arguments) {
  if (level != LIBBPF_WARN) return 0;
  char line[512];
  const int length = vsnprintf(line, sizeof line, format, arguments);
  if (length > 0) messages.append(line, std::min(static_cast<std::size_t>(length), sizeof line - 1));
  if (messages.size() > kMessages) messages.erase(0, messages.size() - kMessages);
  return length;
}

Failure failed(const char* map, const std::string& key, int result) {
  if (result >= 0) return std::nullopt;
  return std::string("eBPF map ") + map + ", " + key + ": " + std::strerror(-result);
}

std::string vlanKey(std::uint16_t vlan) { return "VLAN " + std::to_string(vlan); }
std::string portKey(std::uint32_t ifIndex) { return "port " + std::to_string(ifIndex); }

template <class Value>
int put(const bpf_map* map, std::uint32_t key, const Value& value) {
  return bpf_map__update_elem(map, &key, sizeof key, &value, sizeof value, BPF_ANY);
}

int erase(const bpf_map* map, std::uint32_t key) {
  const int result = bpf_map__delete_elem(map, &key, sizeof key, 0);
  return result == -ENOENT ? 0 : result;
}

}  // namespace

struct Programs::Skeleton {
  SoftForwardBpf* bpf = nullptr;
  ~Skeleton() { SoftForwardBpf::destroy(bpf); }
};

const char* toString(Program program) {
  switch (program) {
    case Program::accessIngress:
      return "access_ingress";
    case Program::ownEgress:
      return "own_egress";
    case Program::tunnelEgress:
      return "tunnel_egress";
    case Program::trapEgress:
      return "trap_egress";
    case Program::injectStrip:
      return "inject_strip";
    case Program::injectIngress:
      return "inject_ingress";
    case Program::fabricIngress:
      return "fabric_ingress";
    case Program::dropAll:
      return "drop_all";
  }
  return "unknown";
}

Programs::Programs() = default;
Programs::~Programs() = default;

Failure Programs::load() {
  auto skeleton = std::make_unique<Skeleton>();
  messages.clear();
  const libbpf_print_fn_t before = libbpf_set_print(&collect);
  skeleton->bpf = SoftForwardBpf::open_and_load();
  const int number = errno;
  libbpf_set_print(before);
  if (skeleton->bpf == nullptr) {
    std::string text = std::string("eBPF programs: loading: ") + std::strerror(number);
    if (!messages.empty()) text += ": " + messages;
    std::ranges::replace(text, '\n', ' ');
    return text;
  }
  skeleton_ = std::move(skeleton);
  return std::nullopt;
}

int Programs::fd(Program program) const {
  MOX_ASSERT(kSource, "the programs are loaded", skeleton_ != nullptr);
  const auto& programs = skeleton_->bpf->progs;
  switch (program) {
    case Program::accessIngress:
      return bpf_program__fd(programs.access_ingress);
    case Program::ownEgress:
      return bpf_program__fd(programs.own_egress);
    case Program::tunnelEgress:
      return bpf_program__fd(programs.tunnel_egress);
    case Program::trapEgress:
      return bpf_program__fd(programs.trap_egress);
    case Program::injectStrip:
      return bpf_program__fd(programs.inject_strip);
    case Program::injectIngress:
      return bpf_program__fd(programs.inject_ingress);
    case Program::fabricIngress:
      return bpf_program__fd(programs.fabric_ingress);
    case Program::dropAll:
      return bpf_program__fd(programs.drop_all);
  }
  return -1;
}

Failure Programs::trapPeerIs(std::uint32_t ifIndex) {
  trapPeer_ = ifIndex;
  return settingsPut();
}

Failure Programs::passedAddressIs(const std::optional<MacAddress>& address) {
  passedAddress_ = address;
  return settingsPut();
}

Failure Programs::settingsPut() {
  SoftForwardSettings value{trapPeer_, {}, passedAddress_.has_value()};
  if (passedAddress_) std::memcpy(value.ownAddress, passedAddress_->data(), passedAddress_->size());
  return failed("settings", "trap peer " + std::to_string(trapPeer_),
                put(skeleton_->bpf->maps.settings, 0, value));
}

Failure Programs::portIs(std::uint32_t ifIndex, std::uint16_t vlan, PortRole role) {
  constexpr SoftForwardRole kRoles[] = {SOFT_FORWARD_ROLE_ACCESS, SOFT_FORWARD_ROLE_TUNNEL,
                                        SOFT_FORWARD_ROLE_OWN};
  const SoftForwardPort value{vlan, static_cast<__u8>(kRoles[static_cast<std::size_t>(role)]), 0};
  return failed("ports", portKey(ifIndex), put(skeleton_->bpf->maps.ports, ifIndex, value));
}

Failure Programs::portDel(std::uint32_t ifIndex) {
  return failed("ports", portKey(ifIndex), erase(skeleton_->bpf->maps.ports, ifIndex));
}

Failure Programs::activeVlanIs(std::uint16_t vlan, bool active) {
  const bpf_map* map = skeleton_->bpf->maps.active_vlans;
  return failed("active_vlans", vlanKey(vlan),
                active ? put(map, vlan, SoftForwardActiveVlan{1, 0}) : erase(map, vlan));
}

Failure Programs::vlanPathsIs(std::uint16_t vlan, std::uint32_t wayIn,
                              const std::vector<std::uint32_t>& tunnelPorts, std::uint32_t bridge) {
  MOX_ASSERT(kSource, "tunnelPorts.size() <= SOFT_FORWARD_MAX_TUNNEL_PORTS",
             tunnelPorts.size() <= SOFT_FORWARD_MAX_TUNNEL_PORTS);
  SoftForwardVlanPaths value{};
  value.wayIn = wayIn;
  value.bridge = bridge;
  value.tunnelPorts = static_cast<__u32>(tunnelPorts.size());
  std::ranges::copy(tunnelPorts, value.tunnelPort);
  return failed("vlan_paths", vlanKey(vlan), put(skeleton_->bpf->maps.vlan_paths, vlan, value));
}

Failure Programs::vlanPathsDel(std::uint16_t vlan) {
  return failed("vlan_paths", vlanKey(vlan), erase(skeleton_->bpf->maps.vlan_paths, vlan));
}

Statistics Programs::statistics() const {
  const int cpus = libbpf_num_possible_cpus();
  if (skeleton_ == nullptr || cpus <= 0) return {};
  std::vector<std::uint64_t> values(static_cast<std::size_t>(cpus));
  std::array<std::uint64_t, SOFT_FORWARD_COUNTERS> sums{};
  for (std::uint32_t counter = 0; counter < SOFT_FORWARD_COUNTERS; ++counter) {
    if (bpf_map__lookup_elem(skeleton_->bpf->maps.counters, &counter, sizeof counter, values.data(),
                             values.size() * sizeof(std::uint64_t), 0) < 0)
      return {};
    for (const std::uint64_t value : values) sums[counter] += value;
  }
  return {
      sums[SOFT_FORWARD_TRAPPED],   sums[SOFT_FORWARD_TRAP_FAILED],        sums[SOFT_FORWARD_TUNNEL_DROPPED],
      sums[SOFT_FORWARD_INJECTED],  sums[SOFT_FORWARD_INJECT_SEND_FAILED], sums[SOFT_FORWARD_REPLIED],
      sums[SOFT_FORWARD_UNEXPECTED]};
}

}  // namespace SoftForward
