#include <functional>

#include "ArpSuppression/ConflictWatch.h"
#include "Rig.h"

namespace ArpSuppression {
namespace {

constexpr char kA[] = "02:00:00:00:00:0a";
constexpr char kB[] = "02:00:00:00:00:0b";
constexpr char kAddress[] = "10.0.0.50";
constexpr auto kHere = Bridging::EntryType::learnedDynamic;

// A running switch with what hosts and other switches say of 10.0.0.50.
struct Claims {
  Claims() { rig.start(); }
  ~Claims() { EXPECT_EQ(rig.errors, ""); }
  void host(const char* station, std::uint32_t ifIndex = Rig::kEthernet1) {
    rig.trap(Trapped{.ifIndex = ifIndex, .senderMac = station, .senderIp = kAddress});
  }
  void fdb(const char* station, const char* port) {
    rig.fdb(10, station, kHere, port);
    rig.settle();
  }
  void advertised(const char* station) {
    rig.remoteBinding(10, kAddress, station);
    rig.settle();
  }
  void withdrawn() {
    rig.noRemoteBinding(10, kAddress);
    rig.settle();
  }
  void own(const char* prefix) {
    rig.ipStatus()->ipIntfStatus(intf("Vlan10"))->activeAddrIs(*Lanix::IpGenPrefix::fromStrep(prefix));
    rig.settle();
  }
  void passes(double seconds) {
    rig.clock.advance(seconds);
    rig.settle();
  }
  // "<subject>: <problem>" of each.
  std::vector<std::string> problems() {
    std::vector<std::string> texts;
    for (const auto& [key, problem] : rig.state<Switch::Problems>(Switch::kProblemsPath)->problemCollection())
      texts.push_back(problem->subject() + ": " + problem->problem());
    return texts;
  }
  std::uint64_t counted() { return rig.counter(ArpSuppressionCounterId::addressConflict); }
  // Whether a host here has the address.
  bool isLocal() { return rig.root()->localBindingRecord->bindings() != 0; }

  Rig rig;
};

TEST(Conflict, claims_against_each_other_are_named_while_both_stand_and_the_winner_stays) {
  const struct {
    const char* what;
    std::function<void(Claims&)> claim;
    std::uint64_t counted;
    const char* problem;  // null: none
    bool local;
    std::function<void(Claims&)> mend;
  } kRows[] = {
      {"a host claims the address of a remote one",
       [](Claims& c) {
         c.advertised(kB);
         c.host(kA);
         c.host(kA);
       },
       1,
       "address 10.0.0.50 on VLAN 10: 02:00:00:00:00:0a on Ethernet1 claims it, and another switch "
       "advertises it with 02:00:00:00:00:0b",
       true, [](Claims& c) { c.withdrawn(); }},
      {"another switch claims the address of a host that is there",
       [](Claims& c) {
         c.host(kA);
         c.fdb(kA, "Ethernet1");
         c.advertised(kB);
         EXPECT_FALSE(c.isLocal());
         c.host(kA);
       },
       2,
       "address 10.0.0.50 on VLAN 10: 02:00:00:00:00:0a on Ethernet1 claims it, and another switch "
       "advertises it with 02:00:00:00:00:0b",
       true, [](Claims& c) { c.withdrawn(); }},
      {"of one that is not there any more",
       [](Claims& c) {
         c.host(kA);
         c.advertised(kB);
       },
       0, nullptr, false, [](Claims&) {}},
      {"another host claims it, and the first one is there",
       [](Claims& c) {
         c.host(kA);
         c.fdb(kA, "Ethernet1");
         c.host(kB, Rig::kEthernet2);
       },
       1,
       "address 10.0.0.50 on VLAN 10: 02:00:00:00:00:0b on Ethernet2 claims it, and 02:00:00:00:00:0a on "
       "Ethernet1 had it and is still there",
       true, [](Claims&) {}},
      {"and the first one is gone",
       [](Claims& c) {
         c.host(kA);
         c.host(kB);
       },
       0, nullptr, true, [](Claims&) {}},
      {"the same station moves here and away",
       [](Claims& c) {
         c.advertised(kA);
         c.host(kA);
         c.advertised(kA);
         c.withdrawn();
         c.advertised(kA);
       },
       0, nullptr, false, [](Claims&) {}},
      {"the switch itself has it, and another one advertises it",
       [](Claims& c) {
         c.own("10.0.0.50/24");
         c.advertised(kB);
       },
       1,
       "address 10.0.0.50 on VLAN 10: this switch has it itself, and another switch advertises it with "
       "02:00:00:00:00:0b",
       false, [](Claims& c) { c.withdrawn(); }},
      {"the switch gets an address that a host has",
       [](Claims& c) {
         c.host(kA);
         c.own("10.0.0.50/24");
       },
       1,
       "address 10.0.0.50 on VLAN 10: this switch has it itself, and 02:00:00:00:00:0a on Ethernet1 claims "
       "it",
       true, [](Claims& c) { c.own("10.0.0.1/24"); }},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    Claims c;
    row.claim(c);
    EXPECT_EQ(c.counted(), row.counted);
    EXPECT_EQ(c.problems(), row.problem ? std::vector<std::string>{row.problem} : std::vector<std::string>());
    EXPECT_EQ(c.isLocal(), row.local);
    row.mend(c);
    c.passes(Switch::PassingProblem::kOverSeconds);
    EXPECT_THAT(c.problems(), IsEmpty());
  }
}

TEST(Conflict, a_conflict_lasts_as_long_as_both_sides_do) {
  Claims c;
  c.advertised(kB);
  c.host(kA);
  c.passes(10 * Switch::PassingProblem::kOverSeconds);
  EXPECT_THAT(c.problems(), SizeIs(1));
  EXPECT_EQ(c.counted(), 1u);
}

TEST(Conflict, what_goes_back_and_forth_is_named_as_a_duplicate_until_it_is_quiet) {
  const struct {
    const char* problem;
    std::function<void(Claims&, bool)> go;  // to one place, or the other
  } kRows[] = {
      {"moves of address 10.0.0.50 on VLAN 10: it goes back and forth between 02:00:00:00:00:0a on Ethernet1 "
       "and 02:00:00:00:00:0b on Ethernet2: ",
       [](Claims& c, bool other) { c.host(other ? kB : kA, other ? Rig::kEthernet2 : Rig::kEthernet1); }},
      {"moves of station 02:00:00:00:00:0a on VLAN 10: it goes back and forth between Ethernet1 and "
       "Ethernet2: ",
       [](Claims& c, bool other) {
         c.host(kA);
         c.fdb(kA, other ? "Ethernet2" : "Ethernet1");
       }},
      {"moves of station 02:00:00:00:00:0a on VLAN 10: it goes back and forth between Ethernet1 and another "
       "switch: ",
       [](Claims& c, bool other) {
         c.withdrawn();
         other ? c.advertised(kA) : c.host(kA);
       }},
  };
  for (const auto& row : kRows) {
    for (const double every : {30.0, 50.0}) {  // five within three minutes, and not
      SCOPED_TRACE(testing::Message() << row.problem << every);
      Claims c;
      bool other = false;
      for (int i = 0; i < 8; ++i, other = !other) {
        row.go(c, other);
        c.passes(every);
      }
      if (every > 45) {
        EXPECT_THAT(c.problems(), IsEmpty());
        continue;
      }
      EXPECT_THAT(c.problems(), ElementsAre(testing::StartsWith(row.problem)));
      c.passes(ConflictWatch::kMovesSeconds + Switch::PassingProblem::kOverSeconds);
      c.passes(Switch::PassingProblem::kOverSeconds);
      EXPECT_THAT(c.problems(), IsEmpty());
    }
  }
}

TEST(Conflict, a_storm_of_claims_is_counted_and_named_within_bounds) {
  Claims c;
  constexpr int kClaims = 2000;
  for (int i = 0; i < kClaims; ++i) {
    const std::string address = "10.1." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 1);
    c.rig.remoteBinding(10, address.c_str(), kB);
    c.rig.settle();
    c.rig.trap(Trapped{.senderIp = address.c_str()});
    if (i % 100 == 0) c.passes(1);
  }
  EXPECT_EQ(c.counted(), std::uint64_t{kClaims});
  EXPECT_THAT(c.problems(), SizeIs(ConflictWatch::kNamed + 1));
  EXPECT_LE(c.rig.rootSm()->bindingDiscoverySm()->conflicts().watched(), ConflictWatch::kWatched);
  for (int i = 0; i < kClaims; ++i) {
    const std::string address = "10.1." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 1);
    c.rig.noRemoteBinding(10, address.c_str());
  }
  c.rig.settle();
  c.passes(ConflictWatch::kMovesSeconds + Switch::PassingProblem::kOverSeconds);
  c.advertised(kB);
  c.host(kA);
  EXPECT_THAT(c.problems(), ElementsAre(testing::StartsWith("address 10.0.0.50 on VLAN 10: ")));
}

}  // namespace
}  // namespace ArpSuppression
