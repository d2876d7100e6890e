#include "SoftForward/AnswerMirror.h"

#include <algorithm>
#include <utility>

#include "Suppression/Counter.h"

namespace SoftForward {

namespace {

// Until a change is carried over, the programs repeat what held before.
constexpr unsigned kMostUrgent = 0;
// What is carried over together, a millisecond or two.
constexpr std::size_t kTogether = 1024;
constexpr double kRetrySeconds = 3;

void onceEach(std::vector<ArpSuppression::AnswerKey>& keys) {
  std::ranges::sort(keys);
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
}

// Whoever writes a shared table may write anything.
bool isSound(const ArpSuppression::AnswerKey& key) {
  return key.vlanId.sound() && key.ipAddress && key.ipAddress.sound() && key.padding == 0;
}

PlacedAnswer::Kind kindOf(std::uint8_t counter) {
  using Id = ArpSuppression::ArpSuppressionCounterId;
  using Kind = PlacedAnswer::Kind;
  switch (static_cast<Id>(counter)) {
    case Id::replyMultihomedDf:
      return Kind::multihomedDf;
    case Id::replyMultihomedNonDf:
      return Kind::multihomedNonDf;
    case Id::ndAnswered:
      return Kind::nd;
    default:
      return Kind::remote;
  }
}

}  // namespace

AnswerMirror::AnswerMirror(const Mox::Ptr<Orb::TaskScheduler>& scheduler, Programs& programs,
                           Mox::Ptr<const ArpSuppression::AnswerStatus> answerStatus,
                           Mox::Ptr<const ArpSuppression::AnswerVlans> answerVlans, Surroundings surroundings)
    : programs_(programs),
      answerStatus_(std::move(answerStatus)),
      answerVlans_(std::move(answerVlans)),
      surroundings_(std::move(surroundings)),
      reading_(scheduler, "SoftForward answers", kMostUrgent, [this] { read(); }),
      again_(scheduler, "SoftForward answers again", kMostUrgent,
             [this] {
               failed_ = false;
               reading_.schedule();
             }),
      idle_(scheduler->loop(),
            [this] {
              idleAwaited_ = false;
              withheld_ = !surroundings_.reconciled();
            }),
      endOfTurn_(scheduler->loop().endOfTurn([this] { endOfTurn(); })) {
  answerStatus_.on(ArpSuppression::AnswerStatus::answerChanged, [this](const Key& key) {
    if (isSound(key)) pending_.push_back(key);
  });
  answerVlans_.on(ArpSuppression::AnswerVlans::vlanIdChanged, [this](Bridging::VlanId vlanId) {
    wanted_[vlanId.value()] = answerVlans_->vlanIdHas(vlanId);
    if (!wanted_[vlanId.value()]) holdIs(vlanId.value(), false);
  });
  for (const auto& [vlanId, in] : answerVlans_->vlanIdCollection()) wanted_.set(vlanId.value());
}

AnswerMirror::~AnswerMirror() { allVoid(); }

void AnswerMirror::roomIs(std::size_t room) {
  if (std::exchange(room_, room) == room) return;
  refused_.clear();
  overfull_ = false;
  readAgain();
}

void AnswerMirror::excludedIs(const Netlink::VlanIds& excluded) {
  excluded_ = excluded;
  for (std::size_t vlan = 0; vlan < excluded.size(); ++vlan)
    if (excluded[vlan]) holdIs(vlan, false);
}

void AnswerMirror::handleDevice(const std::string& device) {
  const auto owner = std::ranges::find(owners_, Lanix::IntfId::fromName(device), &Owner::intfId);
  if (owner == owners_.end() || owner->answers == 0) return;
  const std::uint32_t index = surroundings_.indexOf(device);
  if (std::exchange(owner->index, index) == index) return;
  owner->changed = true;
  changing_ |= owner->vlans;
  for (std::size_t vlan = 0; vlan < owner->vlans.size(); ++vlan)
    if (owner->vlans[vlan]) holdIs(vlan, false);
  looked_ = false;
  lookedTo_.reset();
  reading_.schedule();
}

void AnswerMirror::withhold() {
  withheld_ = true;
  allVoid();
}

std::size_t AnswerMirror::held() const {
  std::size_t without = refused_.size();
  for (const Owner& owner : owners_)
    if (owner.index == 0) without += owner.answers;
  const std::size_t all = answerStatus_->answers();
  return room_ == 0 || all < without ? 0 : all - without;
}

void AnswerMirror::holdIs(std::size_t vlan, bool hold) {
  if (holding_[vlan] == hold) return;
  holding_[vlan] = hold;
  programs_.answersHoldIs(static_cast<std::uint16_t>(vlan), hold);
}

void AnswerMirror::allVoid() {
  for (std::size_t vlan = holding_._Find_first(); vlan < holding_.size(); vlan = holding_._Find_next(vlan))
    programs_.answersHoldIs(static_cast<std::uint16_t>(vlan), false);
  holding_.reset();
}

// --- Carrying over ---------------------------------------------------------------------------------------

void AnswerMirror::readAgain() {
  bookmark_ = {};
  read_ = false;
  reading_.schedule();
}

void AnswerMirror::read() {
  while (!failed_ && !(read_ && looked_)) {
    read_ ? lookSome() : readSome();
    if (reading_.scheduler()->root().mustYield()) break;
  }
  if (!failed_ && !(read_ && looked_)) reading_.schedule();
}

// The table from the bookmark on.
void AnswerMirror::readSome() {
  std::vector<Key> keys;
  std::vector<PlacedAnswer> answers;
  keys.reserve(kTogether);
  answers.reserve(kTogether);
  read_ = !answerStatus_->answerVisit(bookmark_, kTogether, [&](const Key& key, const auto& answer) {
    if (!isSound(key)) return;
    keys.push_back(key);
    answers.push_back(placed(key, answer));
  });
  place(keys, answers);
}

// Answers of the ports that have changed, among those from the bookmark on.
void AnswerMirror::lookSome() {
  std::vector<Key> keys;
  auto at = lookedTo_ ? ownerOf_.lowerBound(*lookedTo_) : ownerOf_.begin();
  for (std::size_t seen = 0; at != ownerOf_.end() && seen < kTogether; ++at, ++seen)
    if (owners_[at->value].changed) keys.push_back(at->key);
  looked_ = at == ownerOf_.end();
  if (!looked_) lookedTo_ = at->key;
  carryOver(keys);
  if (!looked_) return;
  changing_.reset();
  for (Owner& owner : owners_) owner.changed = false;
}

void AnswerMirror::carryOver(const std::vector<Key>& keys) {
  std::vector<PlacedAnswer> answers;
  answers.reserve(keys.size());
  for (const Key& key : keys) answers.push_back(placed(key, answerStatus_->answer(key)));
  place(keys, answers);
}

void AnswerMirror::endOfTurn() {
  settle();
  if (std::exchange(held_, holding_.any()) != holding_.any()) surroundings_.holdingChanged();
}

void AnswerMirror::settle() {
  if (!failed_ && !pending_.empty()) {
    const std::size_t some = std::min(pending_.size(), kTogether);
    const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(some);
    std::vector<Key> keys(pending_.begin(), end);
    pending_.erase(pending_.begin(), end);
    onceEach(keys);
    carryOver(keys);
  }
  const bool reconciled = surroundings_.reconciled();
  if (!withheld_ && !reconciled) withhold();
  if (withheld_ && reconciled && !std::exchange(idleAwaited_, true)) idle_.schedule();
  for (const Key& key : pending_) holdIs(key.vlanId.value(), false);
  if (!pending_.empty() && !failed_) reading_.schedule();
  if (withheld_ || !read_ || !pending_.empty() || !answerStatus_->answerCollection().isCurrent()) return;
  takeUp();
  const Netlink::VlanIds coming = wanted_ & ~excluded_ & ~changing_ & ~holding_;
  for (std::size_t vlan = coming._Find_first(); vlan < coming.size(); vlan = coming._Find_next(vlan))
    holdIs(vlan, true);
}

void AnswerMirror::place(const std::vector<Key>& keys, const std::vector<PlacedAnswer>& answers) {
  AnswersRefused refused;
  const auto done = programs_.answersAre(answers, refused);
  for (const std::size_t at : refused.at) refused_.insert(keys[at]);
  overfull_ = overfull_ || !refused.at.empty();
  surroundings_.written(done ? refused.why : done);
  if (done) return;
  // What the programs have is not what it should be: nothing holds until it is.
  failed_ = true;
  allVoid();
  pending_.insert(pending_.end(), keys.begin(), keys.end());
  onceEach(pending_);
  again_.schedule(kRetrySeconds);
}

// The programs have what is in the table, but for what is refused.
bool AnswerMirror::isFull() const { return answerStatus_->answers() > room_ + refused_.size(); }

// What the programs are to have of it.
PlacedAnswer AnswerMirror::placed(const Key& key, const ArpSuppression::Answer& answer) {
  PlacedAnswer placed{key.vlanId.value(), key.ipAddress, {}, kindOf(answer.counter), 0, answer.router};
  const bool wanted = answer && room_ != 0;
  if (!wanted && refused_.erase(key) == 0) overfull_ = false;
  if (wanted && isFull()) refused_.insert(key);
  const bool taken = wanted && !refused_.contains(key);
  ownerIs(key, taken ? answer.owner : Lanix::IntfId());
  if (!taken) return placed;
  if (answer.owner) placed.owner = owners_[*ownerOf_.find(key)].index;
  if (!answer.owner || placed.owner != 0) placed.macAddress = answer.macAddress;
  return placed;
}

void AnswerMirror::ownerIs(const Key& key, const Lanix::IntfId& owner) {
  const std::uint32_t* const before = ownerOf_.find(key);
  if (before ? owners_[*before].intfId == owner : !owner) return;
  if (before) --owners_[ownerOf_.take(key)].answers;
  if (!owner) return;
  const std::uint32_t place = placeOf(owner);
  ++owners_[place].answers;
  owners_[place].vlans.set(key.vlanId.value());
  ownerOf_.insert(key, place);
}

// Of one that has no answers yet nobody has told how its device changed.
std::uint32_t AnswerMirror::placeOf(const Lanix::IntfId& owner) {
  auto at = std::ranges::find(owners_, owner, &Owner::intfId);
  if (at == owners_.end()) at = std::ranges::find(owners_, std::size_t{0}, &Owner::answers);
  if (at == owners_.end()) at = owners_.insert(at, Owner{});
  if (at->answers == 0) *at = {owner, surroundings_.indexOf(owner.kernelName()), 0, false, {}};
  return static_cast<std::uint32_t>(at - owners_.begin());
}

// Some of what was refused, if there is room now; or more than there is room for, which happens while the
// table is read and changes, goes.
void AnswerMirror::takeUp() {
  if (room_ != 0 && isFull()) return readAgain();
  if (refused_.empty() || overfull_ || answerStatus_->answers() >= room_ + refused_.size()) return;
  const std::size_t free = room_ + refused_.size() - answerStatus_->answers();
  for (std::size_t i = std::min({free, refused_.size(), kTogether}); i != 0; --i)
    pending_.push_back(refused_.extract(refused_.begin()).value());
  reading_.schedule();
}

}  // namespace SoftForward
