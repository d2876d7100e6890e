#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Suppression/RemoteBindingConfig.h"

// Remote bindings as people and the control socket write them.

namespace Host {

struct Binding {
  ArpSuppression::RemoteBindingKey key;
  ArpSuppression::RemoteBinding value;
};

// Nothing, and `problem` says which part is wrong and what is allowed: a VLAN id, an IPv4 or IPv6 address of
// one host, a MAC address of one station.
std::optional<ArpSuppression::RemoteBindingKey> parseBindingKey(std::string_view vlan, std::string_view ip,
                                                                std::string& problem);
std::optional<Binding> parseBinding(std::string_view vlan, std::string_view ip, std::string_view mac,
                                    bool localMultihomed, std::string& problem);

// The control socket's line of one binding: "10 10.0.0.1 02:00:00:00:00:01", and " localMultihomed" behind it
// where that holds. Only the first two parts name it.
std::string bindingLine(const Binding& binding);
std::optional<Binding> parseBindingLine(std::string_view line, std::string& problem);
std::optional<ArpSuppression::RemoteBindingKey> parseBindingKeyLine(std::string_view line,
                                                                    std::string& problem);

}  // namespace Host
