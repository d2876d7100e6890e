#pragma once

#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <compare>
#include <map>
#include <string>

#include "SoftForward/Programs.h"
#include "SoftForward/Shared.h"
#include "Suppression/Answer.h"

namespace SoftForward {

// The map of that name that the programs work with.
class Map {
 public:
  Map(const Programs& programs, const std::string& name) {
    std::array<std::uint32_t, 16> maps{};
    bpf_prog_info info{};
    info.nr_map_ids = maps.size();
    info.map_ids = reinterpret_cast<std::uintptr_t>(maps.data());
    std::uint32_t size = sizeof info;
    EXPECT_EQ(bpf_obj_get_info_by_fd(programs.loaded(Program::accessIngress).descriptor, &info, &size), 0);
    for (std::uint32_t i = 0; i < info.nr_map_ids; ++i) {
      bpf_map_info map{};
      size = sizeof map;
      descriptor_ = bpf_map_get_fd_by_id(maps.at(i));
      if (bpf_obj_get_info_by_fd(descriptor_, &map, &size) == 0 && map.name == name) return;
      close(descriptor_);
    }
    ADD_FAILURE() << "there is no map " << name;
  }
  Map(const Map&) = delete;
  Map& operator=(const Map&) = delete;
  ~Map() { close(descriptor_); }

  int descriptor() const { return descriptor_; }

  // Whatever the map has for the key; the default when it has nothing.
  template <class Value, class Key>
  Value at(const Key& key) const {
    Value value{};
    bpf_map_lookup_elem(descriptor_, &key, &value);
    return value;
  }

 private:
  int descriptor_ = -1;
};

// Answers in the maps of both families.
struct AnswerInMap {
  Lanix::EthAddr macAddress;
  std::uint32_t owner = 0;  // interface index
  std::uint8_t counter = SOFT_FORWARD_ANSWERED_REMOTE;
  bool router = false;
  friend auto operator<=>(const AnswerInMap&, const AnswerInMap&) = default;
};
using AnswersInMaps = std::map<ArpSuppression::AnswerKey, AnswerInMap>;

template <class MapKey, class Address>
void addAnswers(AnswersInMaps& to, const Map& map) {
  MapKey at{};
  for (bool first = true; bpf_map_get_next_key(map.descriptor(), first ? nullptr : &at, &at) == 0;
       first = false) {
    const auto value = map.at<SoftForwardAnswer>(at);
    typename Address::Bytes address;
    std::ranges::copy(at.address, address.begin());
    Lanix::EthAddr::Bytes macAddress;
    std::ranges::copy(value.address, macAddress.begin());
    to[{Bridging::VlanId(at.vlan), Address(address)}] = {Lanix::EthAddr(macAddress), value.owner,
                                                         value.counter, value.router != 0};
  }
}

inline AnswersInMaps answersIn(const Programs& programs) {
  AnswersInMaps answers;
  addAnswers<SoftForwardAnswerKey, Lanix::IpAddr>(answers, Map(programs, "answers"));
  addAnswers<SoftForwardNdAnswerKey, Lanix::Ip6Addr>(answers, Map(programs, "nd_answers"));
  return answers;
}

// As a failed comparison shows it.
inline void PrintTo(const AnswersInMaps& answers, std::ostream* stream) {
  for (const auto& [key, answer] : answers) {
    *stream << "\n  " << key.vlanId.toStrep() << " " << key.ipAddress.toStrep() << ": "
            << answer.macAddress.toStrep() << " owner " << answer.owner << " counter " << +answer.counter
            << (answer.router ? " router" : "");
  }
}

}  // namespace SoftForward
