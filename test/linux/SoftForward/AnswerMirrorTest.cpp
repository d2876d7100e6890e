// What of the agent's answers the programs have, and when it holds there.

#include "SoftForward/AnswerMirror.h"

#include <functional>
#include <map>
#include <optional>
#include <random>

#include "Maps.h"
#include "Memtab/EntityManager.h"
#include "ProgramsRig.h"

namespace SoftForward {
namespace {

using ArpSuppression::Answer;
using ArpSuppression::AnswerKey;
using ArpSuppression::AnswerStatus;

class AnswerMirrorTest : public ProgramsRig {
 protected:
  void SetUp() override {
    ProgramsRig::SetUp();
    tables_ = Mox::make<Memtab::EntityManager>(loop_, root_->scheduler(), directory_);
    tables_->registerType<AnswerStatus>("Answers");
    ASSERT_TRUE(tables_->mount("answers", "Answers", Memtab::MountDescriptor::writer()));
    ASSERT_TRUE(tables_->mount("answers", "Answers", Memtab::MountDescriptor::urgentReader()));
    answers_ = tables_->entityOf<AnswerStatus>("answers");
    mirror_.emplace(
        root_->scheduler(), programs_, answers_, vlans_,
        AnswerMirror::Surroundings{[this](const std::string& device) { return devices_[device]; },
                                   [this] { return reconciled_; },
                                   [this](const Mox::Result<>& written) { refusal_ = written.error(); },
                                   [this] { ++holdingChanges_; }});
  }
  ~AnswerMirrorTest() override {
    mirror_.reset();
    tables_ = nullptr;
    directory_.removeAll();
  }

  static AnswerKey key(std::uint16_t vlan, std::uint32_t host) {
    return {Bridging::VlanId(vlan), Lanix::IpAddr(0x0A000000U + host)};
  }
  // Begins as the IPv4 address does.
  static AnswerKey key6(std::uint16_t vlan, std::uint8_t host) {
    return {Bridging::VlanId(vlan), Lanix::Ip6Addr({10, 0, 0, host})};
  }
  static Answer answer(std::uint8_t mac, const char* owner = "", bool router = false) {
    return {Lanix::EthAddr({2, 0, 0, 0, 0, mac}), Lanix::IntfId::fromName(owner), 8, router};
  }
  // All of the table that could be there, were there room.
  AnswersInMaps inTable() {
    AnswersInMaps entries;
    answers_->answerForEach([&](const AnswerKey& key, const Answer& answer) {
      const std::uint32_t owner = answer.owner ? devices_[answer.owner.kernelName()] : 0;
      if (!answer.owner || owner != 0)
        entries[key] = {answer.macAddress, owner, SOFT_FORWARD_ANSWERED_REMOTE, answer.router};
    });
    return entries;
  }
  void settle() {
    loop_.post([] {});  // what the test has written is told at the end of a turn
    for (int turns = 0; loop_.step(); ++turns) ASSERT_LT(turns, 10000) << "the loop does not come to rest";
  }
  void vlanIs(std::uint16_t vlan, bool holds) {
    holds ? void(vlans_->vlanIdIs(Bridging::VlanId(vlan))) : void(vlans_->vlanIdDel(Bridging::VlanId(vlan)));
  }
  bool holds(std::uint16_t vlan) const { return mirror_->holding()[vlan]; }

  Orb::ManualClock clock_;
  Orb::EventLoop loop_{clock_};
  Mox::Ptr<Orb::TaskSchedulerRoot> root_ = Mox::make<Orb::TaskSchedulerRoot>(loop_);
  Memtab::Directory directory_{"answer-mirror-test-" + std::to_string(getpid())};
  Mox::Ptr<Memtab::EntityManager> tables_;
  Mox::Ptr<AnswerStatus> answers_;
  Mox::Ptr<ArpSuppression::AnswerVlans> vlans_ = Mox::make<ArpSuppression::AnswerVlans>();
  std::map<std::string, std::uint32_t> devices_;
  bool reconciled_ = true;
  std::string refusal_;
  int holdingChanges_ = 0;
  std::optional<AnswerMirror> mirror_;
};

TEST_F(AnswerMirrorTest, TheProgramsHaveTheTableAfterWhateverChanged) {
  constexpr std::uint16_t kVlans[] = {10, 20, 4094};
  constexpr const char* kOwners[] = {"", "", "port1", "port2"};
  constexpr std::size_t kRooms[] = {0, 10, 60, 1000};
  std::mt19937 random(11);
  const auto below = [&](std::uint32_t end) { return static_cast<std::uint32_t>(random()) % end; };
  std::size_t room = 0;
  bool wanted[4095]{};
  for (int round = 0; round < 400; ++round) {
    for (std::uint32_t changes = below(40); changes != 0; --changes) {
      const std::uint16_t vlan = kVlans[below(3)];
      const bool isIp6 = below(2) == 0;
      const AnswerKey address =
          isIp6 ? key6(vlan, static_cast<std::uint8_t>(below(15))) : key(vlan, below(15));
      const bool router = isIp6 && below(2) == 0;
      below(3) == 0 ? void(answers_->answerDel(address))
                    : void(answers_->answerIs(address, answer(static_cast<std::uint8_t>(below(3)) + 1,
                                                              kOwners[below(4)], router)));
    }
    const std::uint16_t vlan = kVlans[below(3)];
    switch (below(8)) {
      case 0:
        mirror_->roomIs(room = kRooms[below(4)]);
        break;
      case 1:
        devices_["port1"] = below(3);
        mirror_->handleDevice("port1");
        break;
      case 2:
      case 3:
        vlanIs(vlan, wanted[vlan] = !wanted[vlan]);
        ASSERT_TRUE(wanted[vlan] || !holds(vlan));
        break;
      case 4:
        mirror_->withhold();
        ASSERT_TRUE(mirror_->holding().none());
        break;
      default:
        break;
    }
    for (std::uint32_t turns = below(4); turns != 0; --turns) loop_.step();
    if (below(3) != 0) continue;
    settle();
    SCOPED_TRACE("round " + std::to_string(round) + ", room for " + std::to_string(room));
    const AnswersInMaps table = inTable(), programs = answersIn(programs_);
    for (const std::uint16_t each : kVlans) ASSERT_EQ(holds(each), wanted[each]);
    const std::size_t all = answers_->answers();
    ASSERT_EQ(mirror_->refused(), room != 0 && all > room ? all - room : 0);
    ASSERT_EQ(mirror_->held(), programs.size());
    ASSERT_LE(programs.size(), room);
    for (const auto& entry : programs)
      ASSERT_TRUE(table.contains(entry.first) && table.at(entry.first) == entry.second);
    if (all <= room) {
      ASSERT_EQ(programs, table);
    }
  }
}

// What the kernel tells may have been missed: nothing holds until it was read again and all that came of it
// was carried over.
TEST_F(AnswerMirrorTest, WhatIsInDoubtIsVoid) {
  mirror_->roomIs(100);
  answers_->answerIs(key(10, 1), answer(1));
  vlanIs(10, true);
  settle();
  ASSERT_TRUE(holds(10));
  EXPECT_EQ(holdingChanges_, 1);
  reconciled_ = false;
  loop_.post([] {});
  loop_.step();
  EXPECT_FALSE(holds(10));
  settle();
  EXPECT_FALSE(holds(10));
  reconciled_ = true;
  int left = 3;  // turns in which there is still something that came meanwhile
  const std::function<void()> more = [&] {
    EXPECT_FALSE(holds(10));
    if (--left != 0) loop_.post(more);
  };
  loop_.post(more);
  settle();
  EXPECT_EQ(left, 0);
  EXPECT_TRUE(holds(10));
  Netlink::VlanIds excluded;
  mirror_->excludedIs(excluded.set(10));
  EXPECT_FALSE(holds(10));
  settle();
  EXPECT_FALSE(holds(10));
  EXPECT_EQ(holdingChanges_, 4);
}

// The answers of a port that has changed are found in slices, and only its VLANs are void until they are.
TEST_F(AnswerMirrorTest, APortWithManyAnswersIsLookedThroughInSlices) {
  constexpr std::uint32_t kAnswers = 5000, kIndex = 7;
  root_->mustYieldForTestIs([] { return true; });
  mirror_->roomIs(2 * kAnswers);
  devices_ = {{"port1", 1}, {"port2", 2}};
  for (std::uint32_t host = 0; host < kAnswers; ++host) {
    answers_->answerIs(key(10, host), answer(1, "port1"));
    answers_->answerIs(key(20, host), answer(2, host % 2 == 0 ? "port2" : ""));
  }
  vlanIs(10, true);
  vlanIs(20, true);
  settle();
  ASSERT_EQ(answersIn(programs_), inTable());
  devices_["port1"] = kIndex;
  mirror_->handleDevice("port1");
  EXPECT_FALSE(holds(10));
  int slices = 0;
  for (; !holds(10); ++slices) {
    ASSERT_TRUE(holds(20));
    ASSERT_TRUE(loop_.step());
  }
  EXPECT_GE(slices, static_cast<int>(kAnswers / 1024));
  EXPECT_EQ(answersIn(programs_), inTable());
  EXPECT_TRUE(holds(20));
}

// Nothing is said to hold while the programs do not take what is written.
TEST_F(AnswerMirrorTest, ARefusedWriteIsToldAndTriedAgain) {
  mirror_->roomIs(100);
  answers_->answerIs(key(10, 1), answer(1));
  vlanIs(10, true);
  settle();
  ASSERT_TRUE(holds(10));
  ASSERT_EQ(bpf_map_freeze(Map(programs_, "answers").descriptor()), 0);
  answers_->answerDel(key(10, 1));
  settle();
  EXPECT_NE(refusal_.find("answers, VLAN 10"), std::string::npos) << refusal_;
  EXPECT_FALSE(holds(10));
  refusal_.clear();
  settle();
  EXPECT_EQ(refusal_, "");
  clock_.advance(4);
  settle();
  EXPECT_NE(refusal_, "");
  EXPECT_FALSE(holds(10));
}

}  // namespace
}  // namespace SoftForward
