#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "Lanix/EthAddr.h"
#include "Suppression/Counter.h"

namespace ArpSuppression {

// What is done with a trapped request.
enum class Action : std::uint8_t {
  leave,    // nothing: it goes its ordinary way
  flood,    // it goes to the remote endpoints
  reply,    // an answer on behalf of the owner
  program,  // the switch itself asks: a neighbour in the kernel
};
constexpr std::array<const char*, 4> moxEnumNames(Action) { return {"leave", "flood", "reply", "program"}; }

// What becomes of a trapped request: the decision on it. What is done, what is counted, what the trace
// records and what `explain` tells all follow from it.
struct Outcome {
  enum class Kind : std::uint8_t {
    targetIsMine,
    ownerIsLocal,
    forAll,  // an announcement or a probe
    neverAnswer,
    ownerUnknown,
    ownerNotAdvertised,
    // There is an answer, and it is sent, or is not because...
    answered,
    unknownSourcePort,
    samePort,
    fabricNotUsable,
    // There is an answer, and the switch itself asks.
    programmed,
    notABinding,
    bridgeMacAddr,
    vgwVirtualMac,
    noVlanL3Info,
  };

  Kind kind;
  // Of a request that has an answer: what counts that it has one, and the answer.
  std::optional<ArpSuppressionCounterId> answerCounter = {};
  Lanix::EthAddr macAddress = {};

  Action action() const;
  // What is counted besides answerCounter.
  std::optional<ArpSuppressionCounterId> counter() const;
  // The last counter that such a request moves.
  std::optional<ArpSuppressionCounterId> toldBy() const;
  // In the trace: the name of the counter that is there for this outcome, otherwise a name of its own.
  const char* name() const;
  // One sentence for an operator.
  const char* summary() const;
};

}  // namespace ArpSuppression
