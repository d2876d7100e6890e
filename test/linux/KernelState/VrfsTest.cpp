#include "Fixture.h"

namespace KernelState {
namespace {

class VrfsTest : public AgentTest {
 protected:
  // Something that happens, and what is shown once it is settled.
  struct Event {
    const char* what;
    std::function<void()> happens;
    std::string shown;
  };
  void expectEach(const std::vector<Event>& events, const std::function<std::string()>& shown) {
    const Reports reports;
    for (const Event& event : events) {
      SCOPED_TRACE(event.what);
      event.happens();
      settle();
      EXPECT_EQ(shown(), event.shown);
    }
  }
};
TEST_F(VrfsTest, ActiveOnlyOnceDevicesArePublished) {
  std::string seen;
  const auto local = Mox::dynamicPtrCast<Ip::AllVrfStatusLocal>(
      *rig->tree()->entityIs("ip/vrf/status/local", "Ip::AllVrfStatusLocal"));
  Mox::Notifiee<Ip::VrfStatusLocal> vrf;
  vrf.on(Ip::VrfStatusLocal::stateChanged, [&](Ip::VrfState state) {
    seen += Mox::toStrep(state) + ":" + std::to_string(rig->devices("red").size()) + " ";
  });
  Mox::Notifiee<Ip::AllVrfStatusLocal> watch(local);
  watch.on(Ip::AllVrfStatusLocal::vrfChanged, [&](const Mox::String& name) {
    if (name == "red") vrf.notifierIs(local->vrf(name));
  });
  starts();
  EXPECT_THAT(rig->vrfs(), ElementsAre("default active default", "red inactive red"));
  EXPECT_EQ(seen, "");
  redComes();
  settle();
  EXPECT_EQ(seen, "active:1 ");
  kernel.delNamespace("red");
  settle();
  EXPECT_EQ(seen, "active:1 inactive:1 ");
  EXPECT_THAT(rig->devices("red"), IsEmpty());
  EXPECT_EQ(rig->ip("Vlan10"), "");
  EXPECT_EQ(kernel.openSources(), 2);  // nothing keeps the namespace alive
}

// Whoever has something open in the old one must be able to let go of it first.
TEST_F(VrfsTest, IsInactiveForATurnBeforeItHasAnotherNamespace) {
  redComes();
  kernel.addNamespace("blue").addLink("vlan10", 3);
  rig->vrfIs("blue", 6, "blue");
  starts();
  const auto vrf = rig->at<Ip::AllVrfStatusLocal>("ip/vrf/status/local")->vrf("red");
  std::string seen;
  Mox::Notifiee<Ip::VrfStatusLocal> watch(vrf);
  watch.on(Ip::VrfStatusLocal::stateChanged, [&](Ip::VrfState state) { seen += Mox::toStrep(state) + " "; });
  watch.on(Ip::VrfStatusLocal::networkNamespaceChanged, [&](const auto& name) { seen += name + " "; });
  const auto turn = rig->loop().endOfTurn([&] { seen += seen.empty() || seen.ends_with("| ") ? "" : "| "; });
  rig->config()->vrfDel("blue");
  rig->vrfIs("red", 5, "blue");
  settle();
  EXPECT_THAT(seen, testing::StartsWith("inactive | blue "));
  EXPECT_THAT(seen, testing::HasSubstr("active | "));
  EXPECT_THAT(rig->vrfs(), ElementsAre("default active default", "red active blue"));
}

TEST_F(VrfsTest, NameMayComeBeforeItsNamespace) {
  kernel.addName("red");
  starts();
  EXPECT_THAT(rig->vrfs(), ElementsAre("default active default", "red inactive red"));
  passes(1);
  kernel.delNamespace("red");  // and the name only gets its namespace after a while, without a word
  settle();
  kernel.addName("red");
  settle();
  redComes();
  passes(10);
  EXPECT_THAT(rig->vrfs(), ElementsAre("default active default", "red active red"));
  EXPECT_EQ(rig->ip("Vlan10"), "red 10.0.0.1/24");
}

TEST_F(VrfsTest, NamespaceReplacedUnderItsName) {
  redComes();
  kernel.in("red").addNeighbour("vlan10", "10.0.0.9");
  starts();
  std::vector<std::string> told;
  Mox::Notifiee<KernelNetInfo::Status> watch(rig->at<KernelNetInfo::Status>("kni/ns/red/status"));
  watch.on(KernelNetInfo::Status::interfaceChanged, [&](const Mox::String& name) {
    told.push_back(name + (watch->interfaceHas(name) ? " is" : " gone"));
  });
  // With a device of the same name and index.
  kernel.addNamespace("red").addLink("vlan10", 7);
  settle();
  EXPECT_THAT(told, ElementsAre("vlan10 gone", "vlan10 is"));
  EXPECT_EQ(rig->ip("Vlan10"), "red ");
  EXPECT_THAT(rig->neighbours(), IsEmpty());
  EXPECT_THAT(rig->vrfs(), ElementsAre("default active default", "red active red"));
  EXPECT_EQ(kernel.openSources(), 3);
}

// Descriptors are exhausted, for one.
TEST_F(VrfsTest, RefusedIsNotGone) {
  redComes();
  kernel.in("red").addNeighbour("vlan10", "10.0.0.9");
  starts();
  const auto problems = rig->at<Switch::Problems>(Switch::kProblemsPath);
  const auto stands = [&](const char* what) {
    SCOPED_TRACE(what);
    EXPECT_THAT(rig->vrfs(), ElementsAre("default active default", "red active red"));
    EXPECT_EQ(rig->ip("Vlan10"), "red 10.0.0.1/24");
    EXPECT_EQ(rig->neighbours().size(), 1u);
  };
  {
    Reports reports;
    kernel.refusesNames(EMFILE);
    kernel.addName("other");
    for (int i = 0; i < 20; ++i) passes(1);
    stands("while nothing can be looked at");
    EXPECT_THAT(reports.lines, testing::Contains(testing::AllOf(testing::HasSubstr("network namespace red: "),
                                                                testing::HasSubstr("Too many open files")))
                                   .Times(1));
    EXPECT_TRUE(problems->problem("KernelState network namespace red"));
    kernel.refusesNames(0);
    passes(10);
    stands("when that is over");
    EXPECT_EQ(problems->problems(), 0u);
    EXPECT_THAT(reports.lines,
                testing::Contains(testing::HasSubstr("network namespace red: good again")).Times(1));
  }
  kernel.refusesEntering(EMFILE);
  kernel.addNamespace("blue");
  rig->vrfIs("blue", 6, "blue");
  settle();
  EXPECT_TRUE(problems->problem("KernelState network namespace blue"));
  rig->config()->vrfDel("blue");
  passes(10);
  stands("while no other can be entered");
  EXPECT_EQ(problems->problems(), 0u);
  // What an earlier run left is not given up before its namespace could be looked at.
  kernel.refusesNames(EMFILE);
  restarts();
  starts();
  passes(20);
  EXPECT_EQ(rig->neighbours().size(), 1u);
  EXPECT_FALSE(rig->agent()->rootSm()->reconciled());
  kernel.refusesNames(0);
  passes(10);
  stands("at the next start");
  EXPECT_TRUE(rig->agent()->rootSm()->reconciled());
  EXPECT_TRUE(rig->at<Switch::Readiness>(Switch::kReadinessPath)->ready("KernelState"));
  kernel.delNamespace("red");
  settle();
  EXPECT_THAT(rig->vrfs(), ElementsAre("default active default", "red inactive red"));
}

// The kernel has no watch left: nobody says that a namespace has come.
TEST_F(VrfsTest, WhatComesUnseenIsFoundAllTheSame) {
  kernel.refusesNameWatch(ENOSPC);
  starts();
  passes(20);
  const auto problems = rig->at<Switch::Problems>(Switch::kProblemsPath);
  EXPECT_TRUE(problems->problem("KernelState names of network namespaces"));
  kernel.addNamespace("red");
  passes(6);
  EXPECT_THAT(rig->vrfs(), ElementsAre("default active default", "red active red"));
  kernel.refusesNameWatch(0);
  passes(6);
  EXPECT_EQ(problems->problems(), 0u);
}

TEST_F(VrfsTest, ManyAreLookedAtInSlices) {
  constexpr int kVrfs = 500;
  for (int i = 0; i < kVrfs; ++i) {
    const std::string name = "vrf" + std::to_string(i);
    kernel.addNamespace(name).addLink("vlan" + std::to_string(i + 100), 7);
    rig->vrfIs(name, static_cast<Vrf::VrfIdMap::VrfId>(i + 100), name);
  }
  rig->taskSchedulerRoot()->mustYieldForTestIs([] { return true; });
  rig->start();
  int most = 0;
  int turns = 0;
  for (int before = 0; rig->loop().step(0); before = kernel.looks(), ++turns) {
    most = std::max(most, kernel.looks() - before);
    ASSERT_LT(turns, 100000);
  }
  EXPECT_EQ(most, 1);
  std::size_t active = 0;
  for (const std::string& vrf : rig->vrfs()) active += vrf.find(" active ") != std::string::npos ? 1 : 0;
  EXPECT_EQ(active, kVrfs + 1u);
  EXPECT_EQ(rig->ip("Vlan599"), "vrf499 ");
}

// Whatever comes, goes and moves, and in whatever order: the end shows, and only that.
TEST_F(VrfsTest, ConfigurationAndNamespacesInAnyOrder) {
  redComes();
  starts();
  // The VRFs, their numbers, and where Vlan10 is; without those of "default".
  const auto shown = [&] {
    std::string text;
    for (const std::string& vrf : rig->vrfs()) text += vrf == "default active default" ? "" : vrf + ", ";
    text += "| ";
    for (const std::string& id : rig->ids()) text += id == "0 default" ? "" : id + ", ";
    return text + "| " + rig->ip("Vlan10");
  };
  const std::vector<Event> events = {
      {"at first", [] {}, "red active red, | 5 red, | red 10.0.0.1/24"},
      {"number changes", [&] { rig->vrfIs("red", 6, "red"); }, "red active red, | 6 red, | red 10.0.0.1/24"},
      {"another VRF takes the old number", [&] { rig->vrfIs("blue", 5, "blue"); },
       "blue inactive blue, red active red, | 5 blue, 6 red, | red 10.0.0.1/24"},
      {"they exchange their numbers", [&] { rig->vrfIs("blue", 6, "blue"), rig->vrfIs("red", 5, "red"); },
       "blue inactive blue, red active red, | 5 red, 6 blue, | red 10.0.0.1/24"},
      {"and their namespaces", [&] { rig->vrfIs("blue", 6, "red"), rig->vrfIs("red", 5, "blue"); },
       "blue active red, red inactive blue, | 5 red, 6 blue, | blue 10.0.0.1/24"},
      {"one goes", [&] { rig->config()->vrfDel("blue"); }, "red inactive blue, | 5 red, | "},
      {"its namespace comes at last", [&] { kernel.addNamespace("blue").addLink("vlan10", 3); },
       "red active blue, | 5 red, | red "},
      {"namespace goes and comes in one turn",
       [&] { kernel.delNamespace("blue"), kernel.addNamespace("blue").addLink("vlan11", 3); },
       "red active blue, | 5 red, | "},
      {"VRF comes back", [&] { rig->vrfIs("blue", 6, "red"); },
       "blue active red, red active blue, | 5 red, 6 blue, | blue 10.0.0.1/24"},
      {"two in one namespace", [&] { rig->vrfIs("red", 5, "red"); },
       "blue active red, red active red, | 5 red, 6 blue, | blue 10.0.0.1/24"},
      {"two with one number", [&] { rig->vrfIs("red", 6, "blue"); },
       "blue active red, red active blue, | 6 blue, | blue 10.0.0.1/24"},
      {"a number that is no VRF's", [&] { rig->vrfIs("red", 0xFFFFFF, "blue"); },
       "blue active red, red active blue, | 6 blue, | blue 10.0.0.1/24"},
      {"the number of the default one", [&] { rig->vrfIs("red", 0, "blue"); },
       "blue active red, red active blue, | 6 blue, | blue 10.0.0.1/24"},
      {"in the default namespace", [&] { rig->vrfIs("red", 5, "default"); },
       "blue active red, red active default, | 5 red, 6 blue, | blue 10.0.0.1/24"},
      {"a name that is a path", [&] { rig->vrfIs("red", 5, "../netns/red"); },
       "blue active red, red inactive ../netns/red, | 5 red, 6 blue, | blue 10.0.0.1/24"},
      {"all go", [&] { rig->config()->vrfDelAll(); }, "| | "},
  };
  expectEach(events, shown);
  EXPECT_THAT(rig->vrfs(), ElementsAre("default active default"));
  EXPECT_THAT(rig->ids(), ElementsAre("0 default"));
  EXPECT_EQ(kernel.openSources(), 2);
}

// The default namespace has the interfaces of VLANs 20 and 30 with one and the same network, and the VRF
// device "blue" from time to time.
TEST_F(VrfsTest, DevicesHoldVrfs) {
  auto& host = kernel.in();
  rig->config()->vrfDel("red");
  rig->vrfIs("blue", 6, "default", "blue");
  host.addLink("vlan20", 20), host.addLink("vlan30", 30);
  host.addAddress("vlan20", "10.0.0.1/24"), host.addAddress("vlan30", "10.0.0.1/24");
  starts();
  const auto neighboursCome = [&] {
    host.addNeighbour("vlan20", "10.0.0.9"), host.addNeighbour("vlan30", "10.0.0.9");
  };
  const auto problem = [&](const std::string& subject) {
    const auto found = rig->at<Switch::Problems>(Switch::kProblemsPath)->problem("KernelState " + subject);
    return found ? found->problem() : "";
  };
  const auto shown = [&] {
    std::string text;
    for (const std::string& vrf : rig->vrfs()) text += vrf == "default active default" ? "" : vrf + ", ";
    text += "| " + rig->ip("Vlan20") + " | " + rig->ip("Vlan30") + " | ";
    for (const std::string& neighbour : rig->neighbours()) text += neighbour.substr(0, 17) + ", ";
    return text;
  };
  const char* const kDefault = "blue inactive default, | default 10.0.0.1/24 | default 10.0.0.1/24 | ";
  const char* const kBlue = "blue active default, | blue 10.0.0.1/24 | default 10.0.0.1/24 | ";
  const std::vector<Event> events = {
      {"not there", [] {}, kDefault},
      {"the device comes", [&] { host.addVrf("blue", 40); },
       "blue active default, | default 10.0.0.1/24 | default 10.0.0.1/24 | "},
      {"an interface is put below it", [&] { host.putBelow("vlan20", "blue"); }, kBlue},
      {"one address in two VRFs", neighboursCome,
       std::string(kBlue) + "0 10.0.0.9 Vlan30, 6 10.0.0.9 Vlan20, "},
      {"another number", [&] { rig->vrfIs("blue", 7, "default", "blue"); },
       std::string(kBlue) + "0 10.0.0.9 Vlan30, 7 10.0.0.9 Vlan20, "},
      {"the device is renamed away", [&] { host.renameLink("blue", "x"); },
       "blue inactive default, |  | default 10.0.0.1/24 | 0 10.0.0.9 Vlan30, "},
      {"and is another VRF's", [&] { rig->vrfIs("red", 6, "default", "x"); },
       "blue inactive default, red active default, | red 10.0.0.1/24 | default 10.0.0.1/24 | "
       "0 10.0.0.9 Vlan30, 6 10.0.0.9 Vlan20, "},
      {"and renamed back", [&] { rig->config()->vrfDel("red"), host.renameLink("x", "blue"); },
       std::string(kBlue) + "0 10.0.0.9 Vlan30, 7 10.0.0.9 Vlan20, "},
      {"it goes", [&] { host.delLink("blue"), host.delNeighbour("vlan30", "10.0.0.9"); },
       "blue inactive default, |  | default 10.0.0.1/24 | "},
      {"the interface is nowhere", [&] { passes(5); }, "blue inactive default, |  | default 10.0.0.1/24 | "},
      {"until it is put somewhere",
       [&] {
         host.addVrf("green", 42), rig->vrfIs("green", 9, "default", "green"),
             host.putBelow("vlan20", "green");
       },
       "blue inactive default, green active default, | green 10.0.0.1/24 | default 10.0.0.1/24 | "},
      {"below a device of no VRF", [&] { rig->config()->vrfDel("green"); },
       "blue inactive default, |  | default 10.0.0.1/24 | "},
      {"gone as well", [&] { host.delLink("green"), settle(), passes(5); },
       "blue inactive default, |  | default 10.0.0.1/24 | "},
      {"or the device is back", [&] { host.addVrf("green", 43); }, kDefault},
      {"taken out from below: not at once",
       [&] {
         host.addVrf("blue", 44), host.putBelow("vlan20", "blue"), settle(), host.putBelow("vlan20", "");
       },
       "blue active default, |  | default 10.0.0.1/24 | "},
      {"taken out from below", [&] { passes(5); },
       "blue active default, | default 10.0.0.1/24 | default 10.0.0.1/24 | "},
      {"where the configuration wants it", [&] { rig->vlanIs(20, "vlan20", {}, "blue"); },
       "blue active default, |  | default 10.0.0.1/24 | "},
      {"it gets there", [&] { host.putBelow("vlan20", "blue"); }, kBlue},
      {"the device goes, unheard", [&] { host.loses(), host.delLink("blue"), host.overrun(), passes(5); },
       "blue inactive default, |  | default 10.0.0.1/24 | "},
      {"configured to be where it fell", [&] { rig->vlanIs(20, "vlan20", {}, "default"); }, kDefault},
      {"no VRF device", [&] { host.addLink("blue", 45); }, kDefault},
      {"two VRFs of one device", [&] { rig->vrfIs("cyan", 9, "default", "blue"); },
       "blue inactive default, cyan inactive default, | default 10.0.0.1/24 | default 10.0.0.1/24 | "},
  };
  expectEach(events, shown);
  EXPECT_THAT(problem("vrfs.blue.device"), testing::HasSubstr("blue is no VRF device"));
  EXPECT_THAT(problem("vrfs.cyan.device"), testing::HasSubstr("blue is that of VRF blue"));
}

// Slices of every length, and changes between any two of them.
TEST_F(VrfsTest, ComesAndGoesBetweenAnyTwoSlices) {
  redComes();
  for (int i = 1; i < 20; ++i) kernel.in("red").addNeighbour("vlan10", "10.0.0." + std::to_string(i + 100));
  starts();
  rig->taskSchedulerRoot()->mustYieldForTestIs([] { return true; });
  for (int turns = 0; turns < 60; ++turns) {
    kernel.delNamespace("red");
    for (int i = 0; i < turns; ++i) rig->loop().step(0);
    redComes();
    kernel.in("red").addNeighbour("vlan10", "10.0.0." + std::to_string(turns));
    for (int i = 0; i < turns / 2; ++i) rig->loop().step(0);
    kernel.in("red").addNeighbour("vlan10", "10.0.0.200");
    settle();
    EXPECT_THAT(rig->vrfs(), ElementsAre("default active default", "red active red"));
    EXPECT_EQ(rig->ip("Vlan10"), "red 10.0.0.1/24");
    EXPECT_THAT(rig->neighbours(),
                testing::UnorderedElementsAre(
                    "5 10.0.0." + std::to_string(turns) + " Vlan10 02:00:00:00:00:01 false 0",
                    "5 10.0.0.200 Vlan10 02:00:00:00:00:01 false 0"));
  }
}

TEST_F(VrfsTest, TablesThatAnotherWritesAreLeftAlone) {
  AgentRig other(clock, tables.directory());
  configure(other);
  redComes();
  starts();
  const Reports reports;
  other.start();
  EXPECT_TRUE(other.settle());
  EXPECT_EQ(other.ip("Vlan10"), "");  // the start fails as a whole
  EXPECT_THAT(rig->ids(), ElementsAre("0 default", "5 red"));
}

}  // namespace
}  // namespace KernelState
