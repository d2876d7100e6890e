// The agent, the mirror and the programs' maps together: whatever happens, what the kernel would answer is what the
// agent decides.

#include <optional>

#include "ArpSuppression/AnswerChanges.h"
#include "Maps.h"
#include "SoftForward/AnswerMirror.h"

namespace SoftForward {
namespace {

using ArpSuppression::AnswerTable;

// The counter that the programs keep for answers that the agent counts so.
std::uint8_t counterOf(std::uint8_t agents) {
  using Id = ArpSuppression::ArpSuppressionCounterId;
  const std::pair<Id, std::uint8_t> counters[] = {{Id::replyRemote, SOFT_FORWARD_ANSWERED_REMOTE},
                                                  {Id::replyMultihomedDf, SOFT_FORWARD_ANSWERED_DF},
                                                  {Id::replyMultihomedNonDf, SOFT_FORWARD_ANSWERED_NON_DF},
                                                  {Id::ndAnswered, SOFT_FORWARD_ND_ANSWERED}};
  return std::ranges::find(counters, static_cast<Id>(agents), &std::pair<Id, std::uint8_t>::first)->second;
}

TEST(AnswerModel, TheKernelAnswersWhatTheAgentDecides) {
  for (const std::uint32_t seed : {1U, 2U, 3U}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ArpSuppression::Rig rig;
    const AnswerTable table(rig);
    std::map<std::string, std::uint32_t> devices{{"Ethernet1", 1}, {"Ethernet2", 2}};
    std::optional<Programs> programs;
    std::optional<AnswerMirror> mirror;
    std::string refusal;
    const auto start = [&] {
      rig.start();
      programs.emplace();
      ASSERT_TRUE(programs->load());
      ASSERT_TRUE(rig.tables().mount(ArpSuppression::kAnswerPath, ArpSuppression::kAnswerType,
                                     Memtab::MountDescriptor::urgentReader()));
      mirror.emplace(
          rig.scheduler()->scheduler(), *programs,
          rig.table<ArpSuppression::AnswerStatus>(ArpSuppression::kAnswerPath),
          rig.state<ArpSuppression::AnswerVlans>(ArpSuppression::kAnswerVlansPath),
          AnswerMirror::Surroundings{
              [&devices](const std::string& device) { return devices[device]; }, [] { return true; },
              [&refusal](const Mox::Result<>& written) { refusal += written.error(); }, [] {}});
      mirror->roomIs(100);
    };
    start();
    ArpSuppression::AnswerChanges changes(rig, seed);
    rig.tasks().mustYieldForTestIs([] { return true; });
    for (int step = 0; step < 300; ++step) {
      changes.some([&] {
        mirror.reset();
        rig.kill();
        start();
      });
      if (changes.random()() % 8 == 0) {
        const char* const port = AnswerTable::kPorts[changes.random()() % 2];
        devices[port] = static_cast<std::uint32_t>(changes.random()() % 3);
        mirror->handleDevice(port);
      }
      if (changes.random()() % 32 == 0) mirror->withhold();
      rig.settle();
      SCOPED_TRACE("step " + std::to_string(step) + ":" + changes.takeHistory());
      AnswersInMaps wanted, inKernel = answersIn(*programs);
      for (const auto& [key, answer] : table.wanted()) {
        const std::uint32_t owner = answer.owner ? devices[answer.owner.kernelName()] : 0;
        if (!answer.owner || owner != 0)
          wanted[key] = {answer.macAddress, owner, counterOf(answer.counter), answer.router};
      }
      Netlink::VlanIds inUse;
      for (const std::uint16_t vlan : table.inUse()) inUse.set(vlan);
      ASSERT_EQ(mirror->holding(), inUse);
      std::erase_if(inKernel, [&](const auto& entry) { return !inUse[entry.first.vlanId.value()]; });
      ASSERT_EQ(inKernel, wanted);
    }
    EXPECT_EQ(rig.errors, "");
    EXPECT_EQ(refusal, "");
  }
}

}  // namespace
}  // namespace SoftForward
