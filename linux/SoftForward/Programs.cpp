#include "SoftForward/Programs.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>

#include "Mox/Assert.h"
#include "Mox/Hash.h"
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

Mox::Result<> failed(const char* map, const std::string& key, int result) {
  if (result >= 0) return {};
  return Mox::Failure{std::string("eBPF map ") + map + ", " + key + ": " + std::strerror(-result), -result};
}

std::string vlanKey(std::uint16_t vlan) { return "VLAN " + std::to_string(vlan); }
std::string portKey(std::uint32_t ifIndex) { return "port " + std::to_string(ifIndex); }

template <class Value>
int put(const bpf_map* map, std::uint32_t key, const Value& value) {
  return bpf_map__update_elem(map, &key, sizeof key, &value, sizeof value, BPF_ANY);
}

template <class Value>
std::optional<Value> get(const bpf_map* map, std::uint32_t key) {
  Value value{};
  if (bpf_map__lookup_elem(map, &key, sizeof key, &value, sizeof value, 0) < 0) return std::nullopt;
  return value;
}

// With the tokens that there were, if it was the same before.
SoftForwardPolicer bucket(const Policer& policer, const SoftForwardPolicer& before) {
  constexpr std::uint64_t kSecond = 1'000'000'000;
  if (policer.perSecond == 0) return {};
  const std::uint64_t interval = kSecond / policer.perSecond;
  const std::uint64_t tolerance = (policer.burst - 1) * interval;
  const bool same = before.interval == interval && before.tolerance == tolerance;
  return {interval, tolerance, same ? before.full : 0};
}

const bpf_program* programOf(const SoftForwardBpf& bpf, Program program) {
  const auto& programs = bpf.progs;
  const bpf_program* const all[] = {programs.access_ingress, programs.own_egress,   programs.tunnel_egress,
                                    programs.trap_egress,    programs.inject_strip, programs.inject_ingress,
                                    programs.fabric_ingress, programs.drop_all};
  return all[static_cast<std::size_t>(program)];
}

// VLAN v is bit v % 64 of word v / 64.
void words(const Netlink::VlanIds& vlans, std::span<__u64, SOFT_FORWARD_VLAN_WORDS> to) {
  constexpr Netlink::VlanIds kWord{~0ULL};
  for (std::size_t i = 0; i < to.size(); ++i) to[i] = (vlans >> i * 64 & kWord).to_ullong();
}

int erase(const bpf_map* map, std::uint32_t key) {
  const int result = bpf_map__delete_elem(map, &key, sizeof key, 0);
  return result == -ENOENT ? 0 : result;
}

SoftForwardAnswer valueOf(const PlacedAnswer& answer) {
  const int counter = SOFT_FORWARD_ANSWERED_REMOTE + static_cast<int>(answer.kind);
  SoftForwardAnswer value{{}, static_cast<__u8>(counter), answer.router, answer.owner};
  std::ranges::copy(answer.macAddress.bytes(), value.address);
  return value;
}

// Places those of the family whose addresses the map's keys have. Those that go come first, since they make
// room.
template <class Key>
Mox::Result<> place(const bpf_map* of, Lanix::AddressFamily family, std::span<const PlacedAnswer> answers,
                    AnswersRefused& refused) {
  const int map = bpf_map__fd(of);
  std::vector<Key> keys;
  std::vector<SoftForwardAnswer> values;
  std::vector<std::size_t> positions;
  const auto erase = [&](const Key& key) {
    const int result = bpf_map_delete_elem(map, &key);
    return failed(bpf_map__name(of), vlanKey(key.vlan), result == -ENOENT ? 0 : result);
  };
  for (std::size_t i = 0; i < answers.size(); ++i) {
    const PlacedAnswer& answer = answers[i];
    if (answer.ipAddress.af() != family) continue;
    Key key{{}, answer.vlan, 0};
    std::copy_n(answer.ipAddress.bytes().begin(), sizeof key.address, key.address);
    if (answer.macAddress.isZero()) {
      if (const auto gone = erase(key); !gone) return gone;
      continue;
    }
    keys.push_back(key);
    values.push_back(valueOf(answer));
    positions.push_back(i);
  }
  for (std::size_t done = 0; done < keys.size(); ++done) {
    const auto left = static_cast<__u32>(keys.size() - done);
    __u32 count = left;
    const int result = bpf_map_update_batch(map, &keys[done], &values[done], &count, nullptr);
    if (result == 0) break;
    // The kernel says how many it took, unless it did not come to take any.
    if (count < left) done += count;
    if (const auto gone = erase(keys[done]); !gone) return gone;
    refused.at.push_back(positions[done]);
    if (result != -E2BIG) refused.why = failed(bpf_map__name(of), vlanKey(keys[done].vlan), result);
  }
  return {};
}

}  // namespace

struct Programs::Skeleton {
  SoftForwardBpf* bpf = nullptr;
  std::optional<SoftForwardSettings> settings;  // as written
  ~Skeleton() { SoftForwardBpf::destroy(bpf); }
};

Programs::Programs() = default;
Programs::~Programs() = default;

Mox::Result<> Programs::load() {
  if (skeleton_ != nullptr) return {};
  auto skeleton = std::make_unique<Skeleton>();
  messages.clear();
  const libbpf_print_fn_t before = libbpf_set_print(&collect);
  skeleton->bpf = SoftForwardBpf::open_and_load();
  const int number = errno;
  libbpf_set_print(before);
  if (skeleton->bpf == nullptr) {
    std::string text = std::string("eBPF programs: loading: ") + std::strerror(number);
    // What libbpf has to say then only hides it.
    if (number == EPERM || number == EACCES) {
      text += ": run agent-host as root";
    } else if (!messages.empty()) {
      text += ": " + messages;
    }
    std::ranges::replace(text, '\n', ' ');
    return Mox::Failure{text, number};
  }
  for (std::size_t i = 0; i < ids_.size(); ++i) {
    bpf_prog_info info{};
    __u32 length = sizeof info;
    const bpf_program* program = programOf(*skeleton->bpf, static_cast<Program>(i));
    if (const int result = bpf_obj_get_info_by_fd(bpf_program__fd(program), &info, &length); result < 0)
      return Mox::Failure{
          std::string("eBPF program ") + bpf_program__name(program) + ": " + std::strerror(-result), -result};
    ids_[i] = info.id;
  }
  skeleton_ = std::move(skeleton);
  id_ = std::max<std::uint64_t>(Mox::randomWord(), 1);
  return {};
}

LoadedProgram Programs::loaded(Program program) const {
  MOX_ASSERT(kSource, "the programs are loaded", skeleton_ != nullptr);
  const bpf_program* one = programOf(*skeleton_->bpf, program);
  return {bpf_program__fd(one), ids_[static_cast<std::size_t>(program)], bpf_program__name(one)};
}

void Programs::trustedUntilIs(std::uint64_t nanoseconds) {
  if (skeleton_ == nullptr) return;
  const volatile __u64& value = skeleton_->bpf->bss->trusted_until;
  // What answers held before this is no longer seen by who trusts it.
  __atomic_store_n(const_cast<__u64*>(&value), nanoseconds, __ATOMIC_RELEASE);
}

Mox::Result<> Programs::trapPeerIs(std::uint32_t ifIndex) {
  trapPeer_ = ifIndex;
  return settingsPut();
}

Mox::Result<> Programs::passedAddressIs(const Lanix::EthAddr& address) {
  passedAddress_ = address;
  return settingsPut();
}

Mox::Result<> Programs::answerTermsAre(const AnswerTerms& terms) {
  answerTerms_ = terms;
  return settingsPut();
}

Mox::Result<> Programs::settingsPut() {
  SoftForwardSettings value{trapPeer_, {}, !passedAddress_.isZero(), {}, answerTerms_.refresh};
  std::ranges::copy(passedAddress_.bytes(), value.ownAddress);
  for (std::size_t i = 0; i < answerTerms_.own.size(); ++i)
    std::ranges::copy(answerTerms_.own[i].bytes(), value.switchAddress[i]);
  std::optional<SoftForwardSettings>& settings = skeleton_->settings;
  if (settings && std::memcmp(&*settings, &value, sizeof value) == 0) return {};
  const int result = put(skeleton_->bpf->maps.settings, 0, value);
  settings.reset();
  if (result >= 0) settings = value;
  return failed("settings", "trap peer " + std::to_string(trapPeer_), result);
}

Mox::Result<> Programs::portIs(std::uint32_t ifIndex, std::uint16_t vlan, PortRole role,
                               const Policer& policer, bool answers) {
  constexpr SoftForwardRole kRoles[] = {SOFT_FORWARD_ROLE_ACCESS, SOFT_FORWARD_ROLE_TUNNEL,
                                        SOFT_FORWARD_ROLE_OWN};
  const auto before = get<SoftForwardPort>(skeleton_->bpf->maps.ports, ifIndex).value_or(SoftForwardPort());
  const SoftForwardPort value{bucket(policer, before.policer),
                              vlan,
                              static_cast<__u8>(kRoles[static_cast<std::size_t>(role)]),
                              answers,
                              {}};
  return failed("ports", portKey(ifIndex), put(skeleton_->bpf->maps.ports, ifIndex, value));
}

Mox::Result<> Programs::portDel(std::uint32_t ifIndex) {
  if (const auto before = get<SoftForwardPort>(skeleton_->bpf->maps.ports, ifIndex))
    portCountersDel(ifIndex, before->vlan);
  return failed("ports", portKey(ifIndex), erase(skeleton_->bpf->maps.ports, ifIndex));
}

Mox::Result<> Programs::trunkIs(std::uint32_t ifIndex, const Trunk& trunk) {
  SoftForwardTrunk value{};
  const auto before = get<SoftForwardTrunk>(skeleton_->bpf->maps.trunks, ifIndex);
  value.policer = bucket(trunk.policer, before ? before->policer : SoftForwardPolicer());
  words(trunk.trapped, value.trapped);
  words(trunk.tunnel, value.tunnel);
  words(trunk.tagged, value.tagged);
  words(trunk.answers, value.answers);
  value.pvid = trunk.pvid;
  value.own = trunk.own ? 1 : 0;
  if (before) trunkCountersDel(ifIndex, *before, value);
  return failed("trunks", portKey(ifIndex), put(skeleton_->bpf->maps.trunks, ifIndex, value));
}

Mox::Result<> Programs::trunkDel(std::uint32_t ifIndex) {
  if (const auto before = get<SoftForwardTrunk>(skeleton_->bpf->maps.trunks, ifIndex))
    trunkCountersDel(ifIndex, *before, {});
  return failed("trunks", portKey(ifIndex), erase(skeleton_->bpf->maps.trunks, ifIndex));
}

void Programs::portCountersDel(std::uint32_t ifIndex, std::uint16_t vlan) {
  const SoftForwardPortVlan key{ifIndex, vlan};
  bpf_map__delete_elem(skeleton_->bpf->maps.port_counters, &key, sizeof key, 0);
}

// Of the VLANs that the trunk is no longer one of.
void Programs::trunkCountersDel(std::uint32_t ifIndex, const SoftForwardTrunk& before,
                                const SoftForwardTrunk& now) {
  for (std::size_t i = 0; i < SOFT_FORWARD_VLAN_WORDS; ++i) {
    const std::bitset<64> gone((before.trapped[i] | before.tunnel[i]) & ~(now.trapped[i] | now.tunnel[i]));
    for (std::size_t bit = gone._Find_first(); bit < gone.size(); bit = gone._Find_next(bit))
      portCountersDel(ifIndex, static_cast<std::uint16_t>(64 * i + bit));
  }
}

Mox::Result<> Programs::activeVlanIs(std::uint16_t vlan, bool active) {
  const bpf_map* map = skeleton_->bpf->maps.active_vlans;
  return failed("active_vlans", vlanKey(vlan),
                active ? put(map, vlan, SoftForwardActiveVlan{1, 0}) : erase(map, vlan));
}

void Programs::answersHoldIs(std::uint16_t vlan, bool hold) {
  if (skeleton_ == nullptr) return;
  const volatile __u8& value = skeleton_->bpf->bss->answers_hold[vlan & SOFT_FORWARD_VLAN_MASK];
  __atomic_store_n(const_cast<__u8*>(&value), hold, __ATOMIC_RELAXED);
}

Mox::Result<> Programs::answersAre(std::span<const PlacedAnswer> answers, AnswersRefused& refused) {
  const auto& maps = skeleton_->bpf->maps;
  auto placed = place<SoftForwardAnswerKey>(maps.answers, Lanix::AddressFamily::ipv4_, answers, refused);
  if (!placed) return placed;
  return place<SoftForwardNdAnswerKey>(maps.nd_answers, Lanix::AddressFamily::ipv6_, answers, refused);
}

Mox::Result<> Programs::vlanPathsIs(std::uint16_t vlan, const VlanPaths& paths) {
  const std::size_t ports = paths.tunnelPorts.size() + paths.taggedTunnelPorts.size();
  MOX_ASSERT(kSource, "at most SOFT_FORWARD_MAX_TUNNEL_PORTS", ports <= SOFT_FORWARD_MAX_TUNNEL_PORTS);
  SoftForwardVlanPaths value{};
  value.wayIn = paths.wayIn;
  value.wayInTagged = paths.wayInTagged ? 1 : 0;
  value.bridge = paths.bridge;
  value.tunnelPorts = static_cast<__u32>(ports);
  value.untagged = static_cast<__u32>(paths.tunnelPorts.size());
  std::ranges::copy(paths.taggedTunnelPorts, std::ranges::copy(paths.tunnelPorts, value.tunnelPort).out);
  return failed("vlan_paths", vlanKey(vlan), put(skeleton_->bpf->maps.vlan_paths, vlan, value));
}

Mox::Result<> Programs::vlanPathsDel(std::uint16_t vlan) {
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
  return {.trapped = sums[SOFT_FORWARD_TRAPPED],
          .trapFailed = sums[SOFT_FORWARD_TRAP_FAILED],
          .failedOpen = sums[SOFT_FORWARD_FAILED_OPEN],
          .policed = sums[SOFT_FORWARD_POLICED],
          .tunnelDropped = sums[SOFT_FORWARD_TUNNEL_DROPPED],
          .injected = sums[SOFT_FORWARD_INJECTED],
          .injectSendFailed = sums[SOFT_FORWARD_INJECT_SEND_FAILED],
          .replied = sums[SOFT_FORWARD_REPLIED],
          .unexpected = sums[SOFT_FORWARD_UNEXPECTED],
          .answered = {sums[SOFT_FORWARD_ANSWERED_REMOTE], sums[SOFT_FORWARD_ANSWERED_DF],
                       sums[SOFT_FORWARD_ANSWERED_NON_DF], sums[SOFT_FORWARD_ND_ANSWERED]},
          .ndPassed = sums[SOFT_FORWARD_ND_PASSED],
          .shownNoAnswer = sums[SOFT_FORWARD_SHOWN_NO_ANSWER],
          .shownSender = sums[SOFT_FORWARD_SHOWN_SENDER],
          .shownOther = sums[SOFT_FORWARD_SHOWN_OTHER]};
}

std::uint64_t Programs::policedInAll() const {
  if (skeleton_ == nullptr) return 0;
  const volatile __u64& value = skeleton_->bpf->bss->policed_in_all;
  return value;
}

std::vector<PortStatistics> Programs::portStatistics() const {
  std::vector<PortStatistics> all;
  if (skeleton_ == nullptr) return all;
  constexpr std::uint32_t kAtOnce = 1024;
  std::vector<SoftForwardPortVlan> keys(kAtOnce);
  std::vector<SoftForwardPortCounters> values(kAtOnce);
  const int map = bpf_map__fd(skeleton_->bpf->maps.port_counters);
  std::uint32_t bookmark = 0;
  for (bool first = true, more = true; more; first = false) {
    std::uint32_t count = kAtOnce;
    const int result = bpf_map_lookup_batch(map, first ? nullptr : &bookmark, &bookmark, keys.data(),
                                            values.data(), &count, nullptr);
    more = result == 0;
    if (!more && result != -ENOENT) break;  // ENOENT: these are the last
    for (std::uint32_t i = 0; i < count; ++i)
      all.push_back({keys[i].ifIndex, static_cast<std::uint16_t>(keys[i].vlan), values[i].trapped,
                     values[i].policed, values[i].tunnelDropped, values[i].answered});
  }
  return all;
}

}  // namespace SoftForward
