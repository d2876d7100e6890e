#pragma once

#include <string>
#include <vector>

#include "Netlink/Message.h"
#include "lab/Lab.h"

namespace KernelState {

// What the tests change in the kernel, in the namespace that the thread is in; the rest is in Lab.h. A
// refusal throws std::runtime_error.
void addressIs(const std::string& device, const std::string& prefix);
void addressDel(const std::string& device, const std::string& prefix);
// `state` of linux/neighbour.h; `protocol` 0: none.
Netlink::Message neighbourMessage(const std::string& device, const std::string& ip, const std::string& mac,
                                  std::uint16_t state, std::uint8_t protocol = 0, std::uint8_t flags = 0);
// An entry in the MAC table of the bridge above the port.
Netlink::Message macMessage(const std::string& port, const std::string& mac, std::uint16_t state,
                            std::uint8_t flags = 0);
void request(Netlink::Message message);
// All of them; returns how many the kernel took.
std::size_t requestAll(std::vector<Netlink::Message>& messages);
// Down while it is renamed: older kernels refuse otherwise.
void renameLink(const std::string& device, const std::string& newName);

}  // namespace KernelState
