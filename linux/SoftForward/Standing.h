#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Mox/Result.h"

namespace SoftForward {

// Something wrong, in an operator's words.
struct Complaint {
  std::string subject;
  std::string problem;
  std::string advice;
};

// How the way of a VLAN, or the devices that all of them share, stand.
struct Standing {
  bool ready = false;
  std::string reason;  // why not; "" when ready
  std::string advice;
  bool passing = false;  // what is missing was just asked for, and the kernel has yet to tell of it
  bool refused = false;  // the kernel refused something: to be tried again
  // The reason is that of several VLANs, and another one's standing tells of it.
  bool toldElsewhere = false;
  std::vector<Complaint> complaints;  // what is wrong besides
  // Of a VLAN, kernel names: its access ports, and the tunnel ports that cannot be used.
  std::vector<std::string> accessPorts;
  std::vector<std::string> missing;

  // The first reason stands.
  void because(const std::string& why, bool itPasses = false) {
    if (!reason.empty()) return;
    reason = why;
    passing = itPasses;
  }
  // Whether it succeeded; otherwise that is a reason.
  bool check(const Mox::Result<>& result) {
    if (result) return true;
    refused = refused || result.number() != 0;
    because(result.error());
    return false;
  }
  void complain(const std::string& subject, const Mox::Result<>& result) {
    if (result) return;
    refused = refused || result.number() != 0;
    complaints.push_back({subject, result.error(), {}});
  }
};

// "Ethernet1, Ethernet2": some of them, and how many more there are.
inline std::string someOf(const std::vector<std::string>& names) {
  constexpr std::size_t kShown = 8;
  std::string text;
  for (std::size_t i = 0; i < names.size() && i < kShown; ++i) text += (i == 0 ? "" : ", ") + names[i];
  return names.size() > kShown ? text + " and " + std::to_string(names.size() - kShown) + " more" : text;
}

inline std::string vlanName(std::uint16_t vlan) { return "VLAN " + std::to_string(vlan); }

}  // namespace SoftForward
