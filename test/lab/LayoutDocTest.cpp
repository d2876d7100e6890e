// The layouts of docs/linux.md, and the first VLANs of docs/getting-started.md, as they stand there: commands,
// configuration, and then a host that asks.

#include <sys/mount.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <regex>

#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

struct Written {
  std::string name, commands, config;
};

// Of a section of a page: the heading of each part of it that has a block of shell and one of JSON, and these.
std::vector<Written> written(const char* page, const std::string& section) {
  std::ifstream file(std::string(DOCS) + page);
  const std::string all((std::istreambuf_iterator<char>(file)), {});
  const std::size_t from = all.find("\n## " + section + "\n");
  if (from == std::string::npos) return {};
  const std::string text = all.substr(from + 1, all.find("\n## ", from + 1) - from);
  std::size_t at = 0;
  const auto upTo = [&](const char* end) {
    const std::size_t begin = at;
    at = text.find(end, at);
    EXPECT_NE(at, std::string::npos) << end;
    const std::string part = text.substr(begin, at - begin);
    at += std::strlen(end);
    return part;
  };
  std::vector<Written> parts;
  while (text.find("\n### ", at) != std::string::npos && !testing::Test::HasFailure()) {
    Written part;
    upTo("\n### ");
    part.name = upTo("\n");
    upTo("```sh\n");
    part.commands = upTo("```");
    upTo("```jsonc\n");
    part.config = upTo("```");
    parts.push_back(part);
  }
  return parts;
}

TEST(LayoutDoc, EveryLayoutWorksAsWritten) {
  std::vector<Written> layouts = written("linux.md", "Four layouts");
  ASSERT_EQ(layouts.size(), 4U);
  const std::vector<Written> first = written("getting-started.md", "2. Make the VLAN");
  ASSERT_EQ(first.size(), 2U);
  layouts.push_back(first[0]);
  layouts.push_back({first[1].name, first[0].commands + first[1].commands, first[1].config});
  pinToOneCpu();
  std::string lacking;
  for (const Written& layout : layouts) {
    SCOPED_TRACE(layout.name);
    // The machine may have a namespace of that name.
    const auto unique = [](const std::string& block) {
      return std::regex_replace(block, std::regex("\\bred\\b"), "red" + std::to_string(getpid()));
    };
    Namespace outside;
    Switch leaf;
    const Entered entered(leaf.netNs());
    for (const std::string port : {"Ethernet1", "Ethernet2", "core10"}) vethIs(port, "far-" + port, outside);
    const struct Tidied {
      ~Tidied() {  // of the namespace, where the layout made one
        const std::string name = "/run/netns/red" + std::to_string(getpid());
        umount2(name.c_str(), MNT_DETACH);
        unlink(name.c_str());
      }
    } tidied;
    try {
      run("(set -e; : layout '" + layout.name + "'\n" + unique(layout.commands) + ")");
    } catch (const Unsupported& refused) {
      lacking += refused.what();
      continue;
    }
    json config = json::parse(unique(layout.config));
    config["state"]["arpSuppression/remoteBindingConfig/evpn"]["remoteBinding"]["10 10.0.10.99"]["mac"] =
        "02:00:00:00:00:99";
    leaf.start(config);
    std::vector<int> vlans;
    for (const auto& [id, vlan] : config["vlans"].items()) vlans.push_back(std::stoi(id));
    EXPECT_EQ(leaf.status({{"activeVlans", vlans}}), json({{"activeVlans", vlans}}));
    for (const int vlan : vlans) {
      const std::string ready = "/vlan/" + std::to_string(vlan) + "/ready";
      EXPECT_EQ(leaf.state("switch/forwarding", ready.c_str(), true), json(true)) << vlan;
    }
    EXPECT_EQ(leaf.state("switch/problems", "/problem", json::object()), json::object());
    const Mac asker{0x02, 0, 0, 0, 0, 0x11};
    const Ip ip{10, 0, 10, 11}, remote{10, 0, 10, 99};
    const Frame answer = arpFrame({2, {0x02, 0, 0, 0, 0, 0x99}, remote, asker, ip}, asker);
    const Entered there(outside);
    PacketSocket host("far-Ethernet1");
    std::optional<Frame> heard;
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    while (heard != answer && std::chrono::steady_clock::now() < deadline) {
      host.send(arpFrame({1, asker, ip, {}, remote}));
      heard = host.receive(kPatience / 50);
    }
    EXPECT_EQ(heard, answer);
    leaf.stop();
  }
  if (!lacking.empty() && !HasFailure()) GTEST_SKIP() << lacking;
}

}  // namespace
}  // namespace Lab
