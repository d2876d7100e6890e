// The daemon as keeper of kernel neighbours, across its own restarts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <optional>

#include "Netlink/Socket.h"
#include "lab/LabKernel.h"
#include "lab/Switch.h"

namespace Lab {
namespace {

constexpr const char* kInput = "arp/input/config/arpSuppression";

json neighbour(const char* mac, bool dynamic = false) {
  return {{"mac", mac}, {"intf", "Vlan10"}, {"arpType", 0}, {"dynamic", dynamic}};
}

// With the same input again: the agent's is kept for it, here the configuration says it.
TEST(ArpService, KeepsWhatIsConfiguredAcrossRestarts) {
  Switch leaf;
  const Entered entered(leaf.netNs());
  const Namespace red("red");
  bridgeIs("vlan10");
  vethIs("v10", "vlan10", red);
  json config = {{"agents", {"KernelState", "ArpService"}},
                 {"vrfs", {{"red", {{"id", 5}, {"networkNamespace", red.name()}}}}}};
  leaf.start(config);
  const auto expectArpStatus = [&](const json& wanted, const char* what) {
    EXPECT_EQ(leaf.state("arp/status", "/arpEntry", wanted), wanted) << what;
  };
  leaf.set(kInput, {{"vrf",
                     {{"red",
                       {{"ipv4",
                         {{"10.0.0.1", neighbour("02:00:00:00:00:01")},
                          {"10.0.0.2", neighbour("02:00:00:00:00:02")},
                          {"10.0.0.3", neighbour("02:00:00:00:00:03", true)}}}}}}}});
  json present = {{"5 10.0.0.1 Vlan10", {{"mac", "02:00:00:00:00:01"}, {"static", true}, {"arpType", 110}}},
                  {"5 10.0.0.2 Vlan10", {{"mac", "02:00:00:00:00:02"}, {"static", true}, {"arpType", 110}}},
                  {"5 10.0.0.3 Vlan10", {{"mac", "02:00:00:00:00:03"}, {"static", false}, {"arpType", 0}}}};
  expectArpStatus(present, "configured");
  const json programmed = {
      {"programmed", 3}, {"pending", 0}, {"refusals", 0}, {"probes", 0}, {"problem", ""}};
  EXPECT_EQ(leaf.state("arp/service/status", "/vrf/red", programmed), programmed);
  leaf.set(kInput, {{"vrf", {{"red", {{"ipv4", {{"10.0.0.2", nullptr}}}}}}}});
  present.erase("5 10.0.0.2 Vlan10");
  expectArpStatus(present, "one deleted");

  leaf.kill();
  std::optional<Netlink::Socket> monitor;
  {
    const Entered there(red);
    KernelState::request(
        KernelState::neighbourMessage("vlan10", "10.0.0.4", "02:00:00:00:00:04", NUD_PERMANENT, 110));
    ASSERT_TRUE(monitor.emplace(NETLINK_ROUTE).join(RTNLGRP_NEIGH));
  }
  config["state"][kInput]["vrf"]["red"]["ipv4"] = {{"10.0.0.1", neighbour("02:00:00:00:00:01")},
                                                   {"10.0.0.3", neighbour("02:00:00:00:00:03", true)}};
  leaf.start(config);
  EXPECT_EQ(leaf.state("arp/service/status", "/vrf/red/programmed", 2), 2);
  expectArpStatus(present, "the stale one has gone, the good ones are there");
  std::vector<std::uint16_t> told;
  monitor->receive([&](const Netlink::Received& message) { told.push_back(message.type()); });
  // The kernel tells twice of one that is removed.
  EXPECT_THAT(told, testing::ElementsAre(RTM_NEWNEIGH, RTM_DELNEIGH)) << "nothing was written again";

  leaf.set(kInput, {{"vrf", {{"red", nullptr}}}});
  present.erase("5 10.0.0.1 Vlan10");
  expectArpStatus(present, "the dynamic one is the kernel's own by now");
  leaf.stop();
}

}  // namespace
}  // namespace Lab
