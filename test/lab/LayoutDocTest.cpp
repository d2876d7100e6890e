// The layouts of docs/linux.md as they stand there: commands, configuration, and then a host that asks.

#include <sys/mount.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <regex>

#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

// What follows ## Four layouts: the heading of each, and its blocks of shell and of JSON.
TEST(LayoutDoc, EveryLayoutWorksAsWritten) {
  std::ifstream file(LINUX_DOC);
  const std::string all((std::istreambuf_iterator<char>(file)), {});
  const std::size_t from = all.find("\n## Four layouts\n");
  ASSERT_NE(from, std::string::npos);
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
  struct Written {
    std::string name, commands, config;
  };
  std::vector<Written> layouts;
  while (text.find("\n### ", at) != std::string::npos && !HasFailure()) {
    Written layout;
    upTo("\n### ");
    layout.name = upTo("\n");
    upTo("```sh\n");
    layout.commands = upTo("```");
    upTo("```jsonc\n");
    layout.config = upTo("```");
    layouts.push_back(layout);
  }
  ASSERT_EQ(layouts.size(), 4U);
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
    EXPECT_EQ(leaf.state("switch/forwarding", "/vlan/10/ready", true), json(true));
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
