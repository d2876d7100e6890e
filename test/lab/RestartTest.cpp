// The daemon started again over what an earlier run left, however that ended.

#include <filesystem>
#include <fstream>

#include "Memtab/Directory.h"
#include "lab/AgentSwitch.h"
#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class Restart : public AgentSwitch {
 protected:
  void SetUp() override {
    switch_.start(config());
    ASSERT_EQ(switch_.status(runningOn({10})), runningOn({10}));
    expectAnswered();
    switch_.kill();
  }

  Memtab::Directory tables() const { return Memtab::Directory::forRunDir(switch_.runDirectory()); }
};

// Nobody would take it back: VLANs would be trapped for an agent that is not there.
TEST_F(Restart, ForgetsWhatWasPublishedByAnAgentThatIsNotLoadedAnyMore) {
  json config = this->config();
  config["agents"] = json::array();
  for (const char* last : {"published", "set by hand"}) {
    switch_.start(config);
    EXPECT_EQ(switch_.shown({"show", "arpSuppression/status"}),
              json({{"runnable", false}, {"vlanId", json::object()}}))
        << last;
    EXPECT_EQ(switch_.shown({"show", "arp/input/config/arpSuppression"})["vrf"], json::object()) << last;
    switch_.set("arpSuppression/status", {{"runnable", true}, {"vlanId", {{"10", true}}}});
    switch_.kill();
  }
}

// The file, changed in place.
struct Damage {
  const char* name;
  void (*apply)(std::vector<char>& content);
};
constexpr Damage kDamages[] = {
    {"empty", [](std::vector<char>& content) { content.clear(); }},
    {"cut in the header", [](std::vector<char>& content) { content.resize(20); }},
    {"cut in the middle", [](std::vector<char>& content) { content.resize(content.size() / 2); }},
    {"garbage", [](std::vector<char>& content) {
       std::uint32_t random = 12345;
       for (char& byte : content) byte = static_cast<char>((random = random * 1664525 + 1013904223) >> 24);
     }}};

void damage(const std::string& file, const Damage& how) {
  std::vector<char> content;
  {
    std::ifstream in(file, std::ios::binary);
    content.assign(std::istreambuf_iterator<char>(in), {});
  }
  ASSERT_GT(content.size(), 100U) << file;
  how.apply(content);
  std::ofstream(file, std::ios::binary | std::ios::trunc).write(content.data(), std::ssize(content));
}

TEST_F(Restart, SetsDamagedTablesAside) {
  const Memtab::Directory tables = this->tables();
  ASSERT_THAT(tables.tables(), testing::Not(IsEmpty()));
  for (const Damage& how : kDamages) {
    SCOPED_TRACE(how.name);
    const auto names = tables.tables();
    for (const std::string& name : names) damage(tables.segmentFile(name), how);
    switch_.start(config());
    ASSERT_EQ(switch_.status(runningOn({10})), runningOn({10}));
    expectAnswered();
    for (const std::string& name : names)
      EXPECT_TRUE(switch_.daemon().readUntil(tables.segmentFile(name))) << name;
    EXPECT_THAT(switch_.daemon().error, HasSubstr("; set aside as "));
    EXPECT_EQ(tables.damaged().size(), names.size());  // the latest of each
    EXPECT_EQ(difference({}, switch_.counters()), "replyRemote=1 trappedRequest=1");
    switch_.kill();
  }
}

TEST_F(Restart, SetsADamagedStateStoreAside) {
  const std::string folder = switch_.runDirectory() + "/state";
  const std::string file = folder + "/arp%2Finput%2Fconfig%2FarpSuppression.log";
  std::size_t aside = 0;
  for (const Damage& how : kDamages) {
    SCOPED_TRACE(how.name);
    damage(file, how);
    switch_.start(config());
    ASSERT_EQ(switch_.status(runningOn({10})), runningOn({10}));
    expectAnswered();
    // What ends in the middle of a batch is what a killed process leaves: it is cut off.
    if (std::string_view(how.name) == "cut in the middle") {
      EXPECT_THAT(switch_.daemon().error, HasSubstr(file + ": the last "));
    } else {
      ++aside;
      EXPECT_THAT(switch_.daemon().error, HasSubstr(file + ": the state store is damaged ("));
    }
    std::size_t found = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
      found +=
          entry.path().filename().string().starts_with("arp%2Finput%2Fconfig%2FarpSuppression.log.damaged-")
              ? 1U
              : 0U;
    EXPECT_EQ(found, aside);
    switch_.kill();
  }
}

class Leftovers : public WholeSwitch {
 protected:
  // What a run may leave in the kernel.
  std::string kernel() const {
    const Entered there(*vlan10_.where);
    const std::string neighbours = run("ip neigh show nud permanent");
    const Entered here(switch_.netNs());
    return run("ip -br link show | cut -d' ' -f1") + run("tc qdisc show") + neighbours +
           run("bridge fdb show | grep -E 'permanent|static' | sort");
  }
  std::vector<std::string> files() const {
    std::vector<std::string> all = Memtab::Directory::forRunDir(switch_.runDirectory()).tables();
    if (std::filesystem::exists(switch_.runDirectory())) all.push_back(switch_.runDirectory());
    return all;
  }
};

TEST_P(Leftovers, AreRemovedAndNothingElse) {
  run("tc qdisc add dev Ethernet2 clsact");  // the operator's
  const std::string before = kernel();
  const json whole = {{"agents", {"KernelState", "ArpService", "SoftForward", "ArpSuppression"}},
                      {"state", {{"routing/fhrp/vrMacStatus", {{"vgwVirtualMac", "00:00:5e:00:01:01"}}}}}};
  const std::string programmed = "/vrf/" + vlan10_.vrf + "/programmed";
  const auto runs = [&] {
    start(whole);
    ASSERT_EQ(switch_.state("arp/service/status", programmed.c_str(), 1), json(1));
    EXPECT_NE(kernel(), before);
  };
  runs();
  const Result refused = switch_.cleanUp();
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.error, HasSubstr("another agent-host serves this network namespace"));
  switch_.kill();
  runs();
  switch_.stop();
  EXPECT_EQ(kernel(), before) << "a clean stop knows what the run before it made";
  EXPECT_EQ(switch_.cleanUp().status, 0);
  EXPECT_THAT(files(), IsEmpty());

  runs();
  switch_.kill();
  const Result done = switch_.cleanUp();
  EXPECT_EQ(done.status, 0) << done.error;
  EXPECT_EQ(kernel(), before);
  EXPECT_THAT(files(), IsEmpty());
  for (const std::string& removed :
       Texts{"shared table arp/status.arpEntry", "kept state " + switch_.runDirectory() + "/state",
             "device arpsnoop", "device " + devices().back(), "shared gateway MAC 00:00:5e:00:01:01 of ",
             "filter soft-forward:access_ingress of device Ethernet2", "empty clsact of device Ethernet1"})
    EXPECT_THAT(done.output, HasSubstr("removed " + removed));
  EXPECT_THAT(done.output, HasSubstr(" of protocol 110 of device vlan10"));
  EXPECT_EQ(switch_.cleanUp().output, "nothing was left\n");
}

INSTANTIATE_TEST_SUITE_P(Layouts, Leftovers, testing::Values(kLayouts[0], kLayouts[1], kLayouts[3]), nameOf);

}  // namespace
}  // namespace Lab
