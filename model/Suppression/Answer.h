#pragma once

#include <cstdint>
#include <tuple>

#include "Bridging/VlanId.h"
#include "Lanix/EthAddr.h"
#include "Lanix/IntfId.h"
#include "Memtab/Entity.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"
#include "Suppression/RemoteBindingConfig.h"

namespace ArpSuppression {

// An address of a VLAN: IPv4, for which hosts ask by ARP, or IPv6, which they solicit.
using AnswerKey = RemoteBindingKey;

// What a host that asks for the address is answered. The zero MAC means that there is no answer.
struct Answer {
  Lanix::EthAddr macAddress;
  // The port that the owner is on, whose other hosts get no answer; invalid when it is on no port here.
  Lanix::IntfId owner;
  // The id of the counter of such answers.
  std::uint8_t counter = 0;
  // The owner is an IPv6 router.
  bool router = false;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("mac", &Answer::macAddress), Mox::Field("owner", &Answer::owner),
                      Mox::Field("counter", &Answer::counter), Mox::Field("router", &Answer::router));
  }
  friend bool operator==(const Answer&, const Answer&) = default;
  explicit operator bool() const { return !macAddress.isZero(); }
};

// The requests that the agent would answer, for a data plane that can answer them itself: in shared memory at
// "arpSuppression/answer". An entry holds only while its VLAN is in AnswerVlans. IPv6 addresses have no other
// answer than this: the agent is not shown who solicits them.
class AnswerStatus final : public Memtab::Entity {
 public:
  MEMTAB_COLLECTION(AnswerKey, Answer, answer)
  MEMTAB_MEMBERS(answer)
};

// The VLANs whose answers hold; those of others may be out of date or incomplete. At
// "arpSuppression/answerVlans".
//
// A VLAN goes in the turn in which something changed that many of its answers hang on, before any other plug-in
// can see that change in its own turn, and comes when all of them are up to date again. Whoever follows the
// table takes a VLAN that comes for good only after the table's changes until then have reached it.
class AnswerVlans final : public Mox::Entity {
 public:
  MOX_SET(Bridging::VlanId, vlanId)
  MOX_MEMBERS(vlanId)
};

inline constexpr const char* kAnswerPath = "arpSuppression/answer";
inline constexpr const char* kAnswerType = "ArpSuppression::AnswerStatus";
inline constexpr const char* kAnswerVlansPath = "arpSuppression/answerVlans";
inline constexpr const char* kAnswerVlansType = "ArpSuppression::AnswerVlans";

}  // namespace ArpSuppression
