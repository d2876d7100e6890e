#pragma once

#include <cstddef>
#include <cstdint>

#include "Lanix/EthAddr.h"
#include "Mox/Result.h"
#include "Netlink/Route.h"

namespace Netlink {

// Keeps from a socket what the kernel says of stations that have no room in a table of MAC addresses: it is
// dropped where the kernel makes it, by an eBPF program, so that a storm of invented senders costs the reader
// nothing and does not fill its socket. Passed are the entries of bridges' MAC tables, except that while a
// port is full
//   - a station that is not known and was learned on a full port is not heard of,
//   - nor is the end of an entry whose station is not known.
// What is known is kept as one bit a hash value, so some of what should be dropped is passed. Without the
// right to load programs, and on kernels that cannot, there is no filter (good() says why) and nothing else
// changes.
class MacFilter {
 public:
  MacFilter();
  MacFilter(const MacFilter&) = delete;
  MacFilter& operator=(const MacFilter&) = delete;
  ~MacFilter();

  const Mox::Result<>& good() const { return good_; }
  int program() const { return program_; }  // for SO_ATTACH_BPF

  // Known from here on, and for good.
  void know(const Lanix::EthAddr& station);
  // Of two ports whose indices are equal modulo kPorts one is not filtered.
  void fullIs(IfIndex port, bool full);
  // Whether everything is passed: to be so while a table is read, or what goes meanwhile would come back.
  void openIs(bool open);

  static constexpr std::uint32_t kPorts = 1024;
  static constexpr unsigned kHashBits = 20;

 private:
  struct Shared;  // with the program
  Mox::Result<> load();

  int map_ = -1;
  int program_ = -1;
  Shared* shared_ = nullptr;
  bool open_ = true;
  std::uint32_t full_ = 0;  // how many ports are
  Mox::Result<> good_;      // last: load() sets the others
};

}  // namespace Netlink
