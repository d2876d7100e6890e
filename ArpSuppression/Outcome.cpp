#include "ArpSuppression/Outcome.h"

namespace ArpSuppression {

namespace {

using Id = ArpSuppressionCounterId;
using Kind = Outcome::Kind;

struct Row {
  Kind kind;
  const char* name;
  Action action;
  std::optional<Id> counter;
  const char* summary;
};

constexpr Row kRows[] = {
    {Kind::targetIsMine, "targetIsMine", Action::leave, Id::targetIsMine,
     "no answer: the address is the switch's own, the kernel answers"},
    {Kind::ownerIsLocal, "ownerIsLocal", Action::leave, Id::noReplyTargetLocal,
     "no answer: the owner is attached here and answers itself"},
    {Kind::forAll, "forAll", Action::flood, Id::floodedToRemoteTeps,
     "an announcement or a probe is for all to hear: the request goes to the remote endpoints"},
    {Kind::neverAnswer, "neverAnswer", Action::flood, Id::floodedToRemoteTeps,
     "\"neverAnswer\" of the configuration has the address: the request goes to the remote endpoints"},
    {Kind::ownerUnknown, "ownerUnknown", Action::flood, Id::floodedToRemoteTeps,
     "nothing says who has the address: the request goes to the remote endpoints"},
    {Kind::ownerNotAdvertised, "ownerNotAdvertised", Action::flood, Id::floodedToRemoteTeps,
     "the kernel knows who has the address, but no other switch advertises it: the request goes to the "
     "remote endpoints"},
    {Kind::answered, "answered", Action::reply, {}, "the switch answers for the owner"},
    {Kind::unknownSourcePort, "unknownSourcePort", Action::leave, Id::noReplyUnknownSourcePort,
     "no answer: the port that the request comes from has no interface status"},
    {Kind::samePort, "samePort", Action::leave, Id::noReplySamePort,
     "no answer: who asks and the owner share a port and hear each other"},
    {Kind::fabricNotUsable, "fabricNotUsable", Action::leave, Id::noReplyFabricNotUsable,
     "no answer: the device \"fabric\", which answers leave by, is missing or down"},
    {Kind::programmed, "programmed", Action::program, Id::staticBindingEvent,
     "the switch itself asks: the owner becomes a neighbour in the kernel"},
    {Kind::notABinding,
     "notABinding",
     Action::leave,
     {},
     "the switch itself asks, and the answer is no unicast MAC and address"},
    {Kind::bridgeMacAddr, "bridgeMacAddr", Action::leave, Id::staticBindingBridgeMac,
     "the switch itself asks, and the answer is its own bridge MAC"},
    {Kind::vgwVirtualMac, "vgwVirtualMac", Action::leave, Id::staticBindingVirtualRouterMac,
     "the switch itself asks, and the answer is the shared gateway's MAC"},
    {Kind::noVlanL3Info, "noVlanL3Info", Action::leave, Id::staticBindingNoVlanL3Info,
     "the switch itself asks, and the VLAN has no usable VLAN interface"},
};

consteval bool rowsAreInOrder() {
  std::size_t index = 0;
  for (const Row& row : kRows) {
    if (row.kind != static_cast<Kind>(index++)) return false;
  }
  return index == static_cast<std::size_t>(Kind::noVlanL3Info) + 1;
}
static_assert(rowsAreInOrder());

const Row& rowOf(Kind kind) { return kRows[static_cast<std::size_t>(kind)]; }

}  // namespace

Action Outcome::action() const { return rowOf(kind).action; }

std::optional<ArpSuppressionCounterId> Outcome::counter() const { return rowOf(kind).counter; }

std::optional<ArpSuppressionCounterId> Outcome::toldBy() const {
  return counter() ? counter() : answerCounter;
}

const char* Outcome::name() const {
  const std::optional<Id> own = action() == Action::reply ? answerCounter : counter();
  return own ? kCounterNames[static_cast<std::size_t>(*own)] : rowOf(kind).name;
}

const char* Outcome::summary() const { return rowOf(kind).summary; }

}  // namespace ArpSuppression
