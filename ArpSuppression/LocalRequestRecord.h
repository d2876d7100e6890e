#pragma once

#include <deque>

#include "Mox/HashTable.h"
#include "Orb/DumpContext.h"
#include "Suppression/RemoteBindingConfig.h"

namespace ArpSuppression {

using Mox::Ptr;

// When a (VLAN, address) was last asked for on this switch.
struct LocalRequestRecordEntry {
  RemoteBindingKey remoteBindingKey;
  double lastRequestTime = 0;  // seconds on the event loop's clock
};

// The keys that hosts asked for recently, and since when each may have to go.
//
// A refresh writes the time of the request and touches nothing else. So the line in which entries wait for
// their end holds each as of when it was put there last: `oldest` is one that nobody was in line before, and
// may have been asked for again since. `entryRequeue` puts it where it belongs now. An ageing pass that does
// so looks at an entry once a lifetime, and at the exact end of it.
class LocalRequestRecord final : public Mox::Entity {
 public:
  // Makes or refreshes the entry. `now` never goes back.
  void recordLocalRequest(const RemoteBindingKey& key, double now);
  // Brings the place of the entry into the processor's cache, for callers that know keys ahead.
  void prefetch(const RemoteBindingKey& key) const { lastRequestTime_.prefetch(key); }
  bool entryHas(const RemoteBindingKey& key) const { return lastRequestTime_.find(key) != nullptr; }
  // Fast for the oldest; any other is looked for one by one.
  bool entryDel(const RemoteBindingKey& key);
  void entryDelAll();
  std::size_t entrys() const { return line_.size(); }
  // The first in line, with the time at which it was put there; null when there is none.
  const LocalRequestRecordEntry* oldest() const { return line_.empty() ? nullptr : &line_.front(); }
  // Puts the first in line where its latest request belongs; there must be one.
  void entryRequeue();
  // When the key was last asked for; it must have an entry.
  double lastRequestTime(const RemoteBindingKey& key) const { return *lastRequestTime_.find(key); }

  Mox::String toStrep() const { return "<LocalRequestRecord>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Mox::HashMap<RemoteBindingKey, double> lastRequestTime_;
  // One for each of them: a heap with the earliest time in front, in pieces that never move.
  std::deque<LocalRequestRecordEntry> line_;
};

inline Ptr<LocalRequestRecord> localRequestRecordFactory() { return Mox::make<LocalRequestRecord>(); }

}  // namespace ArpSuppression
