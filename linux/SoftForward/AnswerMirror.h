#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Memtab/Cursor.h"
#include "Mox/HashTable.h"
#include "Mox/Notifiee.h"
#include "Mox/Result.h"
#include "Netlink/Route.h"
#include "Orb/EventLoop.h"
#include "Orb/TaskScheduler.h"
#include "SoftForward/Programs.h"
#include "Suppression/Answer.h"

namespace SoftForward {

// Carries the agent's answers into the programs: each change at the end of the turn that tells of it,
// together with the others. A VLAN whose answers do not hold any more is void in the programs at once; one
// whose answers hold again waits until every change until then has been carried over. What does not fit into
// one turn makes its VLANs void for as long.
//
// Whatever makes it doubtful that the table tells the truth makes all VLANs void, until there is no doubt
// left and the event loop has had nothing to do: by then all that came meanwhile has been read, decided and
// carried over.
//
// What there is no room for is left out, and taken up when there is room: whoever asks for it is answered by
// the agent, or, of IPv6, by the owner. There is one room for both families. Left out is also an answer whose
// owner's port is not there (any more): which port is not to be answered is not known. When a port comes, goes or
// changes its index, the VLANs of its owners are void until their answers have been looked up, in slices.
class AnswerMirror {
 public:
  struct Surroundings {
    // The interface index of a device; 0: there is none of that name.
    std::function<std::uint32_t(const std::string& device)> indexOf;
    // Whether all that the kernel tells has been heard, or was read again.
    std::function<bool()> reconciled;
    // Whether the programs took what they were given, of each time.
    std::function<void(const Mox::Result<>&)> written;
    // Whether any VLAN's answers hold has changed.
    std::function<void()> holdingChanged;
  };

  // The programs are loaded, have no answers yet, and outlive this.
  AnswerMirror(const Mox::Ptr<Orb::TaskScheduler>& scheduler, Programs& programs,
               Mox::Ptr<const ArpSuppression::AnswerStatus> answerStatus,
               Mox::Ptr<const ArpSuppression::AnswerVlans> answerVlans, Surroundings surroundings);
  AnswerMirror(const AnswerMirror&) = delete;
  AnswerMirror& operator=(const AnswerMirror&) = delete;
  // No answer holds.
  ~AnswerMirror();

  // How many answers there is room for; none at first. Those beyond leave the programs.
  void roomIs(std::size_t room);
  // VLANs whose answers never hold.
  void excludedIs(const Netlink::VlanIds& excluded);
  // A device of that name came, went or has another index.
  void handleDevice(const std::string& device);
  // The process did nothing for so long that anything may have changed.
  void withhold();

  // The VLANs whose answers hold.
  const Netlink::VlanIds& holding() const { return holding_; }
  // Answers in the programs, once all changes are carried over; and those that there is no room for.
  std::size_t held() const;
  std::size_t refused() const { return refused_.size(); }

 private:
  using Key = ArpSuppression::AnswerKey;
  // A port here that owners of answers are on.
  struct Owner {
    Lanix::IntfId intfId;
    std::uint32_t index;
    std::size_t answers;
    bool changed;            // its index has, since all answers were last gone through
    Netlink::VlanIds vlans;  // in which it has had answers
  };

  void readAgain();
  void read();
  void readSome();
  void lookSome();
  void endOfTurn();
  void settle();
  void carryOver(const std::vector<Key>& keys);
  void place(const std::vector<Key>& keys, const std::vector<PlacedAnswer>& answers);
  PlacedAnswer placed(const Key& key, const ArpSuppression::Answer& answer);
  void ownerIs(const Key& key, const Lanix::IntfId& owner);
  std::uint32_t placeOf(const Lanix::IntfId& owner);
  bool isFull() const;
  void takeUp();
  void holdIs(std::size_t vlan, bool hold);
  void allVoid();

  Programs& programs_;
  Mox::Notifiee<const ArpSuppression::AnswerStatus> answerStatus_;
  Mox::Notifiee<const ArpSuppression::AnswerVlans> answerVlans_;
  const Surroundings surroundings_;
  std::size_t room_ = 0;
  Netlink::VlanIds wanted_;    // hold, by the agent
  Netlink::VlanIds excluded_;  // by the operator
  Netlink::VlanIds holding_;   // in the programs
  bool held_ = false;          // any, as it was last told
  bool withheld_ = true;
  bool failed_ = false;       // the programs did not take what is pending, which is tried again
  bool overfull_ = false;     // the programs had no room though they should, until an answer goes
  std::vector<Key> pending_;  // to be looked up and carried over
  std::set<Key> refused_;
  std::vector<Owner> owners_;  // few; the place of one without answers is used again
  // The answers that have an owner on a port here, behind tunnels perhaps all of them: its place.
  Mox::HashMap<Key, std::uint32_t> ownerOf_;
  bool read_ = true;  // the whole table, since the room last changed
  Memtab::Cursor bookmark_;
  bool looked_ = true;  // at all that have an owner, since a port last changed
  std::optional<Key> lookedTo_;
  Netlink::VlanIds changing_;  // with owners on ports that have changed
  Orb::Task reading_;
  Orb::Task again_;
  Orb::IdleCall idle_;
  bool idleAwaited_ = false;
  Orb::EventLoop::HookHandle endOfTurn_;
};

}  // namespace SoftForward
