#pragma once

#include <list>

#include "ArpSuppression/ArpSuppression.h"
#include "Mox/HashTable.h"
#include "Suppression/RemoteBindingConfig.h"

namespace ArpSuppression {

// When a (VLAN, address) was last asked for on this switch.
struct LocalRequestRecordEntry {
  RemoteBindingKey remoteBindingKey;
  double lastRequestTime = 0;  // seconds on the event loop's clock
};

// The keys that hosts asked for recently. Entries also stand in a list in order of their last request, so
// that ageing looks only at those that expire.
class LocalRequestRecord final : public Mox::Entity {
 public:
  // Makes or refreshes the entry. `now` never goes back.
  void recordLocalRequest(const RemoteBindingKey& key, double now);
  bool entryHas(const RemoteBindingKey& key) const { return index_.find(key) != nullptr; }
  bool entryDel(const RemoteBindingKey& key);
  void entryDelAll();
  std::size_t entrys() const { return ageList_.size(); }
  // The entry whose last request is longest ago; null when there is none.
  const LocalRequestRecordEntry* oldest() const { return ageList_.empty() ? nullptr : &ageList_.front(); }

  Mox::String toStrep() const { return "<LocalRequestRecord>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  using AgeList = std::list<LocalRequestRecordEntry>;  // oldest first
  AgeList ageList_;
  Mox::HashMap<RemoteBindingKey, AgeList::iterator> index_;
};

inline Ptr<LocalRequestRecord> localRequestRecordFactory() { return Mox::make<LocalRequestRecord>(); }

}  // namespace ArpSuppression
