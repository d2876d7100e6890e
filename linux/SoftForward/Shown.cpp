// What "arpsup forwarding" shows.

#include <net/if.h>

#include <algorithm>
#include <numeric>
#include <tuple>

#include "Orb/JsonObject.h"
#include "SoftForward/SoftForwardSm.h"

namespace SoftForward {

std::vector<Datapath::PortState> Datapath::portStates() const {
  std::map<std::pair<Netlink::IfIndex, std::uint16_t>, PortStatistics> frames;
  for (const PortStatistics& port : programs_.portStatistics()) frames[{port.ifIndex, port.vlan}] = port;
  std::vector<PortState> states;
  const auto add = [&](Netlink::IfIndex ifIndex, std::uint16_t vlan, PortRole role) {
    const auto counted = frames.find({ifIndex, vlan});
    states.push_back(
        {deviceName(ifIndex), vlan, role, counted == frames.end() ? PortStatistics() : counted->second});
  };
  for (const auto& [ifIndex, port] : ports_) add(ifIndex, port.vlan, port.role);
  trunks_.forEachPort(add);
  std::ranges::sort(states, {}, [](const PortState& state) { return std::tie(state.vlan, state.device); });
  return states;
}

std::vector<Datapath::PairState> Datapath::pairStates() const {
  std::vector<PairState> states;
  for (const auto& [index, link] : links_.links()) {
    const bool inner = link.name.ends_with("-sw") || link.name.ends_with("-br");
    if (link.kind == "veth" && ownerOf(link.name) && !inner)
      states.push_back({link.name, (link.flags & IFF_UP) != 0 && link.operational});
  }
  return states;
}

void SoftForwardSm::show(Orb::DumpContext& answer, bool devices) const {
  constexpr const char* kRoles[] = {"access", "tunnel", "own"};
  constexpr std::pair<const char*, std::uint64_t Statistics::*> kCounters[] = {
      {"trapped", &Statistics::trapped},
      {"trapFailed", &Statistics::trapFailed},
      {"failedOpen", &Statistics::failedOpen},
      {"policed", &Statistics::policed},
      {"tunnelDropped", &Statistics::tunnelDropped},
      {"injected", &Statistics::injected},
      {"injectSendFailed", &Statistics::injectSendFailed},
      {"replied", &Statistics::replied},
      {"unexpected", &Statistics::unexpected}};
  const auto list = [](const auto& elements, const auto& shown) {
    Mox::String text;
    for (const auto& element : elements) text += (text.empty() ? "" : ",") + shown(element).text();
    return "[" + text + "]";
  };
  const Statistics counts = datapath_.statistics();
  Orb::JsonObject counters;
  for (const auto& [name, count] : kCounters) counters.add(name, counts.*count);
  Orb::JsonObject shown;
  shown.add("failingOpen", forwarding_->failingOpen());
  const auto age = heartbeat_.age();
  constexpr double kMilliseconds = 1e3;
  shown.json("heartbeatAgeMs",
             age ? std::to_string(static_cast<std::uint64_t>(*age * kMilliseconds)) : "null");
  if (devices) {
    shown.json("ports", list(datapath_.portStates(), [&](const Datapath::PortState& port) {
                 return Orb::JsonObject()
                     .add("port", port.device)
                     .add("vlan", port.vlan)
                     .add("role", kRoles[static_cast<std::size_t>(port.role)])
                     .add("trapped", port.frames.trapped)
                     .add("policed", port.frames.policed)
                     .add("answered", port.frames.answered)
                     .add("droppedAtTunnel", port.frames.tunnelDropped);
               }));
    shown.json("pairs", list(datapath_.pairStates(), [](const Datapath::PairState& pair) {
                 return Orb::JsonObject().add("device", pair.device).add("passes", pair.passes);
               }));
  }
  Orb::JsonObject answers;
  answers.add("held", answerMirror_ ? answerMirror_->held() : 0)
      .add("refused", answerMirror_ ? answerMirror_->refused() : 0)
      .add("hits", std::accumulate(counts.answered.begin(), counts.answered.end(), std::uint64_t{0}))
      .json("nd", Orb::JsonObject().add("hits", counts.answered[3]).add("passed", counts.ndPassed).text())
      .json("shown", Orb::JsonObject()
                         .add("noAnswer", counts.shownNoAnswer)
                         .add("sender", counts.shownSender)
                         .add("other", counts.shownOther)
                         .text());
  shown.json("answers", answers.text());
  shown.json("counters", counters.text());
  answer.line(0, shown.text());
}

}  // namespace SoftForward
