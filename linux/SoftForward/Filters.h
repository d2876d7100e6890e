#pragma once

// Attaching eBPF programs as tc filters behind a clsact qdisc.
//
// All our filters have one handle and one priority, and a name that begins with kPrefix: that is how those of
// an earlier run are found, replaced and removed, and how those of others are told from them and left alone.
// Attaching replaces atomically: no frame passes between the old and the new program.
//
// The clsact qdisc is made where there is none, and stays when our filter goes: an empty one costs nothing,
// and others may have put their own filters behind it meanwhile.
//
// Formats: <linux/pkt_sched.h>, <linux/pkt_cls.h>.

#include <cstdint>
#include <string>
#include <vector>

#include "Netlink/Socket.h"
#include "SoftForward/Failure.h"

namespace SoftForward {

enum class Direction : std::uint8_t { ingress, egress };

struct Hook {
  std::uint32_t ifIndex = 0;
  Direction direction = Direction::ingress;
  friend auto operator<=>(const Hook&, const Hook&) = default;
};

std::string toString(const Hook& hook);  // "port 7 ingress"

class Filters {
 public:
  // Before what tools choose when no priority is given (49152 and down), and early: our filters pass on what
  // they do not handle.
  static constexpr std::uint16_t kPriority = 135;
  static constexpr std::uint32_t kHandle = 1;
  static constexpr const char* kPrefix = "soft-forward:";

  explicit Filters(Netlink::Socket& socket) : socket_(socket) {}

  // `program` is a descriptor of a loaded tc program, `name` what the filter is called behind the prefix.
  // Fails when somebody else's filter is in our place.
  [[nodiscard]] Failure attach(const Hook& hook, int program, const std::string& name);
  // No failure if the device or the filter is gone already.
  [[nodiscard]] Failure detach(const Hook& hook);

  // Where our filters are attached now, whoever attached them.
  [[nodiscard]] Failure attached(std::vector<Hook>& hooks);

 private:
  enum class Owner { nobody, ours, other };
  Failure owner(const Hook& hook, Owner& owner, std::string& name);

  Netlink::Socket& socket_;
};

}  // namespace SoftForward
