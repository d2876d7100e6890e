// What breaks in a fabric, and what hosts get meanwhile.

#include <iomanip>
#include <iostream>

#include "lab/Fabric.h"

namespace Lab {
namespace {

class Failures : public FabricTest {};

TEST_P(Failures, CostAnswersAndNeverAWrongOneAfterwards) {
  constexpr Station kLeaver{{0x02, 0, 0, 0, 1, 0x13}, {10, 0, 10, 13}};  // on leaf 2
  constexpr Station kLate{{0x02, 0, 0, 0, 1, 0x14}, {10, 0, 10, 14}};    // comes there while zebra is away
  hostsAreKnown();
  untilKnown(one, kLeaver, [&] { there->spare.send(gratuitous(kLeaver)); });
  // bgpd does not tell a new zebra what it told the old one: both are started, as FRR's own watch does.
  const auto frrIsAgain = [&] {
    one.routingDel("bgpd");
    one.routingIs("zebra");
    one.routingIs("bgpd");
    untilKnown(one, kLate, [&] { there->spare.send(gratuitous(kLate)); });
  };
  // After each, what three get: leaf 1's host that asks for leaf 2's, leaf 2's that asks for leaf 1's, and
  // leaf 1's that asks for the one that leaves.
  struct Step {
    const char* what;
    std::function<void()> happens;
    Strings get;
  };
  const std::string yes = "answered", no = "flooded";
  const Step steps[] = {
      {"both leaves are up", [] {}, {yes, yes, yes}},
      {"leaf 2's bgpd is killed", [&] { two.routingDel("bgpd"); }, {no, no, no}},
      {"it is started", [&] { two.routingIs("bgpd"); }, {yes, yes, yes}},
      {"the underlay goes down", [&] { one.run("ip link set underlay down"); }, {no, no, no}},
      {"it comes up", [&] { one.run("ip link set underlay up"); }, {yes, yes, yes}},
      {"the underlay loses everything",
       [&] { one.run("ip neigh replace 192.0.2.2 dev underlay lladdr 02:00:00:00:09:09"); },
       {no, no, no}},
      {"and nothing any more", [&] { one.run("ip neigh del 192.0.2.2 dev underlay"); }, {yes, yes, yes}},
      {"leaf 1's agent is killed", [&] { one.itself().kill(); }, {no, yes, no}},
      {"it is started", [&] { one.start(); }, {yes, yes, yes}},
      {"leaf 1's agent is stopped", [&] { one.itself().stop(); }, {no, yes, no}},
      {"it is started", [&] { one.start(); }, {yes, yes, yes}},
      {"leaf 1's zebra is killed", [&] { one.routingDel("zebra"); }, {yes, yes, yes}},
      {"a host of leaf 2 leaves",
       [&] { two.run("ip neigh del " + textOf(kLeaver.ip) + " dev vlan10"); },
       {yes, yes, yes}},
      {"leaf 1's FRR is started", frrIsAgain, {yes, yes, yes}},
      {"leaf 1's zebra is killed", [&] { one.routingDel("zebra"); }, {yes, yes, yes}},
      {"started, neighbours flushed",
       [&] {
         one.run("ip neigh flush dev vlan10 nud noarp proto zebra");
         frrIsAgain();
       },
       {yes, yes, no}},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    const auto start = Clock::now();
    step.happens();
    Strings got;
    std::cout << std::left << std::setw(32) << step.what;
    EXPECT_TRUE(eventually([&] {
      got = {gets(*here, kHost2), gets(*there, kHost1), gets(*here, kLeaver)};
      return got == step.get;
    })) << testing::PrintToString(got);
    for (const std::string& each : got) std::cout << std::setw(10) << each;
    std::cout << milliseconds(secondsSince(start)) << "\n";
    if (got[0] == yes && got[1] == yes) {
      EXPECT_TRUE(arrives(here->host, kHost1, there->host, kHost2));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Layouts, Failures, testing::ValuesIn(kFabricLayouts), nameOf);

}  // namespace
}  // namespace Lab
