#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Lanix/NamespaceName.h"
#include "Lanix/Seam.h"
#include "Netlink/MacFilter.h"
#include "Netlink/Route.h"
#include "Netlink/Socket.h"

namespace Netlink {

// Tells one network namespace from every other that exists at the same time (device and inode number of its
// nsfs file, namespaces(7)).
struct NamespaceId {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  friend bool operator==(const NamespaceId&, const NamespaceId&) = default;
  explicit operator bool() const { return inode != 0; }
};

struct NamespaceLook {
  bool named = false;  // something has the name
  // Of the namespace behind it; false: there is none (ip-netns mounts it after making the name).
  NamespaceId id;
};

// The route netlink of one network namespace, used as Socket says: one socket for notifications, one
// for dumps.
class RouteSource {
 public:
  virtual ~RouteSource() = default;
  // The namespace that it was opened in. An open source keeps that namespace alive.
  virtual NamespaceId id() const = 0;
  // Readable when notifications wait.
  virtual int descriptor() const = 0;
  virtual Notifications receive(const Handler& handler, std::size_t maxMessages) = 0;
  virtual Mox::Result<> dumpStart(Message request) = 0;
  virtual DumpSlice dumpSlice(const Handler& handler) = 0;
  // Gives up the dump that is being read. After a failure the source is of no use.
  virtual Mox::Result<> dumpEnd() = 0;
  // Of a source of MAC tables only: what the filter drops is not heard of. The filter may go before it.
  virtual void filterIs(const MacFilter& /*filter*/) {}
  // Asks for one thing; while no dump is being read.
  virtual Mox::Result<> get(Message request, const Handler& handler) = 0;
};

// Says that names of namespaces may have come, gone, or changed what is behind them.
class NamespaceEvents {
 public:
  virtual ~NamespaceEvents() = default;
  // Readable at such a change. At most two.
  virtual std::vector<int> descriptors() const = 0;
  // Takes what waits, without blocking; before looking at the names. A failure: names may come unseen.
  virtual Mox::Result<> drain() = 0;
};

// What those who follow the kernel's tables ask of it besides reading; the seam that tests replace with
// Lanix::Replaced<KernelAccess>. Nothing here blocks or throws.
class KernelAccess {
 public:
  virtual ~KernelAccess() = default;
  static KernelAccess& current();
  static KernelAccess* replace(KernelAccess* access);

  // "default" is the namespace of the process, and always there. A failure says nothing about the namespace:
  // it may be there (descriptors are exhausted, permission is refused).
  virtual Mox::Result<NamespaceLook> look(const Lanix::NamespaceName& name);
  // Enters the namespace and subscribes to the changes of these tables, and perhaps to more.
  virtual Mox::Result<std::unique_ptr<RouteSource>> open(const Lanix::NamespaceName& name,
                                                         const std::vector<Table>& tables);
  virtual std::unique_ptr<NamespaceEvents> watchNamespaces();
};

}  // namespace Netlink
