// What an access port answers itself: each frame is run through the program by the kernel, without a network.

#include <gtest/gtest.h>

#include <functional>

#include "AnswersRig.h"

namespace SoftForward {
namespace {

class AnswerProgramTest : public AnswersRig {
 protected:
  void SetUp() override {
    AnswersRig::SetUp();
    answerIs(kOwner);
  }
  void answerIs(const Lanix::EthAddr& mac, std::uint32_t owner = kElsewhere, Kind kind = Kind::remote,
                std::uint16_t vlan = kVlan) {
    placed({vlan, Lanix::IpAddr(kRequest.targetIp), mac, kind, owner});
  }
  // The agent is shown it, which the mark tells.
  bool shown(const Lab::Frame& frame) {
    const Outcome outcome = ask(frame);
    EXPECT_EQ(outcome.result, TC_ACT_UNSPEC);
    EXPECT_EQ(Lab::hex(outcome.frame), Lab::hex(frame));
    return outcome.mark == kMark;
  }

  const Lab::Frame request_ = Lab::arpFrame(kRequest);
};

// A sender is shown once, and then answered: the whole reply, also to what was padded.
TEST_F(AnswerProgramTest, ASenderThatWasShownIsAnsweredInEveryByte) {
  Lab::Arp reply{2, kOwner.bytes(), kRequest.targetIp, kRequest.senderMac, kRequest.senderIp};
  const Lab::Frame wanted = Lab::arpFrame(reply, kRequest.senderMac);
  ASSERT_TRUE(shown(request_));
  for (const Lab::Frame& frame : {request_, resized(request_, 60)}) {
    const Outcome outcome = ask(frame);
    EXPECT_EQ(outcome.result, TC_ACT_REDIRECT);
    EXPECT_EQ(outcome.mark, 7U);
    EXPECT_EQ(Lab::hex(outcome.frame), Lab::hex(wanted));
  }
  answerIs(kOwner, 0, Kind::multihomedNonDf);
  EXPECT_TRUE(answered(request_));
  const Statistics statistics = programs_.statistics();
  EXPECT_EQ(statistics.trapped, 1U);
  EXPECT_EQ(statistics.shownSender, 1U);
  EXPECT_EQ(statistics.answered, (std::array<std::uint64_t, 4>{2, 0, 1, 0}));
  ASSERT_EQ(programs_.portStatistics().size(), 1U);
  EXPECT_EQ(programs_.portStatistics()[0].answered, 3U);
}

// Each of these is shown to the agent however often it is asked, as if there were no answers.
TEST_F(AnswerProgramTest, WhatOnlyTheAgentAnswers) {
  const auto from = [](Lab::Mac mac, Lab::Ip sender, Lab::Ip target = kRequest.targetIp) {
    return Lab::arpFrame({1, mac, sender, {}, target});
  };
  const Lab::Mac host = kRequest.senderMac;
  Lab::Arp reply = kRequest;
  reply.operation = 2;
  const struct {
    const char* what;
    Lab::Frame frame;
    std::function<void()> before = [] {};
    std::function<void()> after = [] {};
  } kCases[] = {
      {"an address without an answer", from(host, kRequest.senderIp, {10, 0, 0, 3})},
      {"a reply", Lab::arpFrame(reply)},
      {"a probe", from(host, {})},
      {"an announcement", from(host, kRequest.targetIp)},
      {"the switch itself", from(kOwnAddress.bytes(), kRequest.senderIp)},
      {"its shared address", from(kSharedAddress.bytes(), kRequest.senderIp)},
      {"a group as sender", from({3, 0, 0, 0, 0, 1}, kRequest.senderIp)},
      {"nobody as sender", from({}, kRequest.senderIp)},
      {"another sender in the frame than in its header", changed(request_, 11, 9)},
      {"the owner's own port", request_, [&] { answerIs(kOwner, kLoopback); }, [&] { answerIs(kOwner); }},
      {"an answer of another VLAN", request_,
       [&] {
         answerIs({});
         answerIs(kOwner, 0, Kind::remote, kVlan + 1);
       },
       [&] { answerIs(kOwner); }},
      {"a VLAN whose answers do not hold", request_, [&] { vlanAnswers(false); }, [&] { vlanAnswers(true); }},
      {"a port without answers", request_, [&] { portIs(false); }, [&] { portIs(true); }},
      {"a bridge's port that sends the VLAN with a tag", request_, [&] { trunkIs(only(kVlan), true); },
       [&] { noTrunk(); }},
      {"a bridge's port without answers", request_, [&] { trunkIs(only(kVlan + 1), false); },
       [&] { noTrunk(); }},
      {"nobody is to be answered", request_, [&] { ASSERT_TRUE(programs_.answerTermsAre({})); },
       [&] { refreshIs(kHour); }},
      {"shown too long ago", request_, [&] { refreshIs(1); }, [&] { refreshIs(kHour); }},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    test.before();
    for (int time = 0; time < 3; ++time) EXPECT_TRUE(shown(test.frame));
    test.after();
  }
  trunkIs(only(kVlan), false);
  ask(request_);
  EXPECT_TRUE(answered(request_)) << "on a bridge's port";
  noTrunk();
  EXPECT_TRUE(answered(request_)) << "it was none of the above that kept it from the agent";
  programs_.trustedUntilIs(0);
  EXPECT_EQ(ask(request_).result, TC_ACT_UNSPEC) << "nothing is answered when there is no sign of the agent";
  EXPECT_EQ(ask(request_).mark, 7U);
}

// What is shown last of a station, and of an address, is all that counts.
TEST_F(AnswerProgramTest, EachShowingTakesThePlaceOfTheLast) {
  const Lab::Mac other{2, 0, 0, 0, 0, 7};
  const Lab::Frame sameAddress = Lab::arpFrame({1, other, kRequest.senderIp, {}, kRequest.targetIp});
  const Lab::Frame sameStation = Lab::arpFrame({1, kRequest.senderMac, {10, 0, 0, 7}, {}, kRequest.targetIp});
  ASSERT_TRUE(shown(request_));
  EXPECT_TRUE(shown(sameAddress)) << "another station with the address";
  EXPECT_TRUE(answered(sameAddress));
  EXPECT_TRUE(shown(request_)) << "and back";
  EXPECT_TRUE(answered(request_));
  EXPECT_TRUE(shown(sameStation)) << "another address of the station";
  EXPECT_TRUE(answered(sameStation));
  EXPECT_TRUE(answered(request_)) << "a station may have several";
  const Lab::Frame mixed = changed(sameAddress, 27, 1);
  EXPECT_TRUE(shown(mixed)) << "not in the name of who sent it";
  EXPECT_TRUE(shown(sameAddress));
}

// Beyond its policer a port's requests are flooded, and answered where there is an answer.
TEST_F(AnswerProgramTest, APolicerDoesNotKeepAnswersBack) {
  portIs(true, {1, 1});
  ASSERT_TRUE(shown(request_));
  const Lab::Frame stranger = Lab::arpFrame({1, {2, 0, 0, 0, 0, 9}, {10, 0, 0, 9}, {}, kRequest.targetIp});
  EXPECT_TRUE(answered(stranger));
  const Lab::Frame unknown = Lab::arpFrame({1, {2, 0, 0, 0, 0, 9}, {10, 0, 0, 9}, {}, {10, 0, 0, 3}});
  const Outcome flooded = ask(unknown);
  EXPECT_EQ(flooded.result, TC_ACT_UNSPEC);
  EXPECT_EQ(flooded.mark, 7U);
}

}  // namespace
}  // namespace SoftForward
