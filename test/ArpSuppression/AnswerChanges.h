#pragma once

#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Rig.h"
#include "Suppression/Answer.h"

namespace ArpSuppression {

// The table of answers of a rig, and what should be in it.
class AnswerTable {
 public:
  using Answers = std::map<AnswerKey, Answer>;

  static constexpr std::uint16_t kVlans[] = {10, 20};
  static constexpr const char* kMacs[] = {"02:00:00:00:00:63", "02:00:00:00:00:64", "02:00:00:00:00:65"};
  static constexpr const char* kAddresses[] = {"10.0.0.1",    "10.0.0.98",    "10.0.0.99",
                                               "2001:db8::1", "2001:db8::98", "2001:db8::99"};
  static constexpr const char* kPorts[] = {"Ethernet1", "Ethernet2"};

  explicit AnswerTable(Rig& rig) : rig_(rig) {}

  // What a data plane would answer.
  Answers held() const;
  // What the agent itself would answer a host on a port of its own.
  Answers wanted() const;
  // The VLANs that are in AnswerVlans, and those that should be: published, and with answers by the configuration.
  std::set<std::uint16_t> answering() const;
  std::set<std::uint16_t> inUse() const;

 private:
  Rig& rig_;
};

// Changes of all kinds in any order, of all that answers rest on.
class AnswerChanges {
 public:
  AnswerChanges(Rig& rig, std::uint32_t seed);

  // Up to three together, so that one meets what another has not finished, with a turn in between or not. `restart`
  // may be among them.
  void some(const std::function<void()>& restart);
  // What was changed since it was last asked for.
  std::string takeHistory() { return std::exchange(history_, {}); }
  std::mt19937& random() { return random_; }

 private:
  template <class Values>
  auto any(const Values& of) {
    return of[random_() % std::size(of)];
  }
  Bridging::Fid anyFid() { return random_() % 2 ? any(AnswerTable::kVlans) : std::uint16_t{100}; }
  Vlan anyVlan() { return Vlan(any(AnswerTable::kVlans)); }
  const char* anyMac() { return any(AnswerTable::kMacs); }
  const char* anyAddress() { return any(AnswerTable::kAddresses); }
  const char* anyPort() { return any(AnswerTable::kPorts); }

  Rig& rig_;
  std::mt19937 random_;
  std::string history_;
  // Those that name their address, and those that bring all addresses up to date, whatever was missed before: rarer.
  std::vector<std::pair<const char*, std::function<void()>>> naming_, others_;
};

// As a failed comparison shows it.
inline void PrintTo(const AnswerTable::Answers& answers, std::ostream* stream) {
  for (const auto& [key, answer] : answers) {
    *stream << "\n  " << key.vlanId.toStrep() << " " << key.ipAddress.toStrep() << ": "
            << answer.macAddress.toStrep() << " " << answer.owner.toStrep() << " counter " << +answer.counter
            << (answer.router ? " router" : "");
  }
}

}  // namespace ArpSuppression
