#pragma once

#include <deque>
#include <limits>

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

// What hosts asked for recently: each key with the time of its latest request, and a line of all keys by
// which the old ones are found without a scan.
//
// Being asked for again writes that time and nothing else; the place in the line stays as it was. So an entry
// of the line holds the time at which it was put there, and its key may have been asked for since. Whoever
// takes old keys out looks at the front of the line, compares with lastRequestTime, and either deletes the
// key or, with `entryRequeue`, puts it where its latest request belongs. That looks at a key once a lifetime.
class LocalRequestRecord final : public Mox::Entity {
 public:
  // Makes or refreshes the entry; false when it would be new and there are `limit` already. `now` never goes
  // back.
  bool recordLocalRequest(const RemoteBindingKey& key, double now,
                          std::size_t limit = std::numeric_limits<std::size_t>::max());
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
