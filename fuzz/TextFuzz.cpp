#include "Arp/Table.h"
#include "Bridging/Status.h"
#include "Bridging/VlanId.h"
#include "Evpn/Status.h"
#include "Lanix/IntfId.h"
#include "Lanix/IpGenPrefix.h"
#include "Mox/Strep.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Vrf/VrfIdMap.h"
#include "fuzz/Input.h"
#include "host/Bindings.h"

namespace {

template <class T>
void printsAsItReads(const std::string& text) {
  std::optional<T> value;
  try {
    value = Mox::fromStrep<T>(text);
  } catch (const Mox::RangeError&) {
  }
  if (!value) return;
  const std::string printed = Mox::toStrep(*value);
  const auto again = Mox::fromStrep<T>(printed);
  Fuzz::check(again && *again == *value, "the value of \"" + text + "\" again", printed);
  Fuzz::check(Mox::toStrep(*again) == printed, printed, Mox::toStrep(*again));
}

template <class... T>
void allPrintAsTheyRead(const std::string& text) {
  (printsAsItReads<T>(text), ...);
}

void bindingLinePrintsAsItReads(const std::string& text) {
  const auto binding = Host::parseBindingLine(text);
  Fuzz::check(binding || !binding.error().empty(), "a binding or a problem", text);
  if (!binding) return;
  const auto again = Host::parseBindingLine(Host::bindingLine(*binding));
  Fuzz::check(again && again->key == binding->key && again->value == binding->value, text,
              Host::bindingLine(*binding));
}

}  // namespace

// What a text is read as is printed as a text that means the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = Fuzz::Input(data, size).text();
  allPrintAsTheyRead<Lanix::EthAddr, Lanix::IpAddr, Lanix::Ip6Addr, Lanix::IpGenAddr, Lanix::IpGenPrefix,
                     Lanix::IntfId, Bridging::VlanId, Bridging::EntryType, Vrf::VrfIdMap::FixedVrfName,
                     std::int64_t, bool>(text);
  allPrintAsTheyRead<Bridging::HostKey, Memtab::Bridging::MemtabFdbStatus, Arp::Table::ArpKey,
                     Arp::Table::ArpEntry, ArpSuppression::RemoteBindingKey, ArpSuppression::RemoteBinding>(
      text);
  bindingLinePrintsAsItReads(text);
  return 0;
}
