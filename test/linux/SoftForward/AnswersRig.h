#pragma once

#include <linux/pkt_cls.h>

#include "ProgramsRig.h"

namespace SoftForward {

// An access port, the loopback, on which the program has answers; a trunk in its place where a test says so.
class AnswersRig : public ProgramsRig {
 protected:
  using Kind = PlacedAnswer::Kind;
  static constexpr std::uint32_t kElsewhere = 4000;
  static constexpr std::uint64_t kHour = 3'600'000'000'000;
  static constexpr Lanix::EthAddr kOwner{{2, 0, 0, 0, 0, 2}}, kOwnAddress{{2, 0, 0, 0, 0, 0xA}},
      kSharedAddress{{2, 0, 0, 0, 0, 0xB}};

  void SetUp() override {
    ProgramsRig::SetUp();
    trapsOnLoopback();
    refreshIs(kHour);
    vlanAnswers(true);
    portIs(true);
  }
  void refreshIs(std::uint64_t refresh) {
    ASSERT_TRUE(programs_.answerTermsAre({refresh, {kOwnAddress, kSharedAddress}}));
  }
  void placed(const PlacedAnswer& answer) {
    AnswersRefused refused;
    const auto placed = programs_.answersAre({&answer, 1}, refused);
    ASSERT_TRUE(placed) << placed.error();
    EXPECT_TRUE(refused.at.empty());
  }
  void vlanAnswers(bool answers) { programs_.answersHoldIs(kVlan, answers); }
  void portIs(bool answers, const Policer& policer = {}) {
    ASSERT_TRUE(programs_.portIs(kLoopback, kVlan, PortRole::access, policer, answers));
  }
  static Netlink::VlanIds only(std::uint16_t vlan) { return Netlink::VlanIds().set(vlan); }
  void trunkIs(const Netlink::VlanIds& answers, bool tagged) {
    ASSERT_TRUE(programs_.portDel(kLoopback));
    ASSERT_TRUE(programs_.trunkIs(
        kLoopback, {only(kVlan), {}, kVlan, false, {}, tagged ? only(kVlan) : Netlink::VlanIds(), answers}));
  }
  void noTrunk() {
    ASSERT_TRUE(programs_.trunkDel(kLoopback));
    portIs(true);
  }
  Outcome ask(const Lab::Frame& frame) { return run(Program::accessIngress, frame, 7); }
  bool answered(const Lab::Frame& frame) { return ask(frame).result == TC_ACT_REDIRECT; }
};

}  // namespace SoftForward
