#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AgentRig.h"
#include "Orb/Clock.h"
#include "Tracelet/Trace.h"
#include "linux/Netlink/FakeKernel.h"

namespace KernelState {

using Netlink::FakeKernel;

using testing::ElementsAre;
using testing::IsEmpty;

// The lines that an operator would see, for as long as it lives.
class Reports {
 public:
  Reports() {
    Tracelet::textSinkIs([this](std::string_view line) { lines.emplace_back(line); });
  }
  ~Reports() { Tracelet::textSinkIs({}); }
  std::vector<std::string> lines;
};

// The default namespace has the bridge of VLAN 10, the namespace "red" its interface.
class AgentTest : public testing::Test {
 protected:
  AgentTest() { configure(*rig); }

  void configure(AgentRig& to) {
    to.vrfIs("red", 5, "red");
    to.vlanIs(10, "vlan10", {"core10"});
  }
  void redComes() {
    kernel.addNamespace("red").addLink("vlan10", 7);
    kernel.in("red").addAddress("vlan10", "10.0.0.1/24");
  }
  void settle() { ASSERT_TRUE(rig->settle()); }
  void passes(double seconds) {
    clock.advance(seconds);
    settle();
  }
  void starts() {
    rig->start();
    settle();
  }
  // The same plug-in in a new process.
  void restarts() {
    rig = nullptr;
    rig = std::make_unique<AgentRig>(clock, tables.directory());
    configure(*rig);
  }

  FakeKernel kernel;
  Orb::ManualClock clock;
  ScratchTables tables;
  std::unique_ptr<AgentRig> rig = std::make_unique<AgentRig>(clock, tables.directory());
};

}  // namespace KernelState
