#include "Netlink/KernelAccess.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/rtnetlink.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "Lanix/Descriptor.h"
#include "Lanix/NamespaceGuard.h"
#include "Netlink/Trace.h"

namespace Netlink {
namespace {

constexpr char kSource[] = "Netlink/KernelAccess";
constexpr char kNames[] = "/run/netns";
constexpr char kAbove[] = "/run";
// Room for some twenty thousand notifications: a flood of them (a link that takes its neighbours along) is
// then read rather than lost, and a loss costs reading every table again. Used only while notifications wait.
constexpr int kNotificationBuffer = 8 << 20;
// The kernel makes a dump's next datagram when one is read, so this passes only when something is broken.
constexpr Options kDumpOptions{.receiveTimeoutMilliseconds = 100};
constexpr unsigned kGroups[] = {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_NEIGH, RTNLGRP_NEIGH};  // by Table

KernelAccess* replaced_ = nullptr;

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(Lanix::aboveStandard(descriptor)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

Mox::Failure failed(const Lanix::NamespaceName& name, const char* doing, int number) {
  return {"network namespace \"" + name + "\" " + doing + ": " + std::strerror(number), number};
}

// Nothing for a file that is no namespace.
Mox::Result<NamespaceId> identityOf(const Lanix::NamespaceName& name, const Descriptor& descriptor) {
  struct statfs system {};
  struct stat file {};
  if (descriptor.get() < 0 || fstatfs(descriptor.get(), &system) != 0 || fstat(descriptor.get(), &file) != 0)
    return failed(name, "cannot be looked at", errno);
  return system.f_type == NSFS_MAGIC ? NamespaceId{file.st_dev, file.st_ino} : NamespaceId{};
}

class NetlinkSource final : public RouteSource {
 public:
  NetlinkSource(NamespaceId id, Lanix::NamespaceName name)
      : id_(id),
        name_(std::move(name)),
        notifications_(NETLINK_ROUTE, {.receiveBuffer = kNotificationBuffer}),
        dumps_(std::in_place, NETLINK_ROUTE, kDumpOptions) {}

  Mox::Result<> prepare(const std::vector<Table>& tables) {
    if (!notifications_.opened()) return notifications_.opened();
    const bool neighbours = std::ranges::count(tables, Table::neighbours) != 0;
    const bool macs = std::ranges::count(tables, Table::macs) != 0;
    if (neighbours != macs) {
      if (auto filtered =
              notifications_.neighboursAre(macs ? Socket::Neighbours::macs : Socket::Neighbours::addresses);
          !filtered)
        return filtered;
    }
    if (!dumps_->opened()) return dumps_->opened();
    for (const Table table : tables) {
      if (Mox::Result<> joined = notifications_.join(kGroups[static_cast<std::size_t>(table)]); !joined)
        return joined;
    }
    return {};
  }

  NamespaceId id() const override { return id_; }
  int descriptor() const override { return notifications_.fd(); }
  Notifications receive(const Handler& handler, std::size_t maxMessages) override {
    return notifications_.receive(handler, maxMessages);
  }
  Mox::Result<> dumpStart(Message request) override { return dumps_->dumpStart(std::move(request)); }
  DumpSlice dumpSlice(const Handler& handler) override { return dumps_->dumpSlice(handler); }
  // The kernel ends a dump with its socket only.
  Mox::Result<> dumpEnd() override {
    const Lanix::NamespaceGuard guard(name_);
    if (!guard) return Mox::Failure{guard.error(), errno};
    dumps_.emplace(NETLINK_ROUTE, kDumpOptions);
    return dumps_->opened();
  }
  void filterIs(const MacFilter& filter) override {
    const int program = filter.program();
    Mox::Result<> result = filter.good();
    if (result && setsockopt(notifications_.fd(), SOL_SOCKET, SO_ATTACH_BPF, &program, sizeof program) != 0)
      result = Mox::Failure{std::strerror(errno), errno};
    if (!result) NETLINK_TRACE(1, "MAC tables are not filtered in the kernel: " << result.error());
  }
  Mox::Result<> get(Message request, const Handler& handler) override {
    return dumps_->get(std::move(request), handler);
  }

 private:
  NamespaceId id_;
  const Lanix::NamespaceName name_;
  Socket notifications_;
  std::optional<Socket> dumps_;
};

// Names come and go in a directory, which itself comes with the first of them; what is mounted behind a name
// changes in the mount table. poll(2) on that reports an error condition at each change, see proc(5).
class NameWatch final : public NamespaceEvents {
 public:
  NameWatch()
      : names_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
        mounts_(::open("/proc/thread-self/mountinfo", O_RDONLY | O_CLOEXEC)) {
    if (names_.get() < 0 || mounts_.get() < 0) opened_ = unwatched(errno);
    (void)watch();
  }

  std::vector<int> descriptors() const override {
    std::vector<int> descriptors;
    for (const int descriptor : {names_.get(), mounts_.get()}) {
      if (descriptor >= 0) descriptors.push_back(descriptor);
    }
    return descriptors;
  }

  Mox::Result<> drain() override {
    alignas(inotify_event) std::array<std::byte, 4096> events;  // which ones does not matter
    while (read(names_.get(), events.data(), events.size()) > 0) {
    }
    return watch();
  }

 private:
  static Mox::Failure unwatched(int number) {
    return {std::string(kNames) + " cannot be watched: " + std::strerror(number), number};
  }
  // The directory that the path leads to now; the one above it only while there is none.
  Mox::Result<> watch() {
    constexpr std::uint32_t kChanges =
        IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    if (!opened_) return opened_;
    const auto watched = [&] { return inotify_add_watch(names_.get(), kNames, kChanges) >= 0; };
    if (!watched()) {
      above_ = inotify_add_watch(names_.get(), kAbove, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
      if (above_ < 0) return unwatched(errno);
      if (!watched()) return errno == ENOENT ? Mox::Result<>() : unwatched(errno);
    }
    if (above_ >= 0) inotify_rm_watch(names_.get(), std::exchange(above_, -1));
    return {};
  }

  Descriptor names_;
  Descriptor mounts_;
  Mox::Result<> opened_;
  int above_ = -1;
};

}  // namespace

KernelAccess& KernelAccess::current() {
  static KernelAccess kernel;
  return replaced_ ? *replaced_ : kernel;
}

KernelAccess* KernelAccess::replace(KernelAccess* access) { return std::exchange(replaced_, access); }

Mox::Result<NamespaceLook> KernelAccess::look(const Lanix::NamespaceName& name) {
  if (name == Lanix::kDefaultNamespace) return NamespaceLook{true, {0, 1}};
  if (name.empty() || name == "." || name == ".." || name.find('/') != Mox::String::npos)
    return NamespaceLook{};
  const Descriptor file(::open((std::string(kNames) + "/" + name).c_str(), O_PATH | O_CLOEXEC));
  if (file.get() < 0 && errno == ENOENT) return NamespaceLook{};
  const auto id = identityOf(name, file);
  if (!id) return id.failure();
  return NamespaceLook{true, *id};
}

Mox::Result<std::unique_ptr<RouteSource>> KernelAccess::open(const Lanix::NamespaceName& name,
                                                             const std::vector<Table>& tables) {
  const Lanix::NamespaceGuard guard(name);
  if (!guard) return Mox::Failure{guard.error(), errno};
  NamespaceId id{0, 1};
  if (name != Lanix::kDefaultNamespace) {
    // Of the one that was entered: the name may have moved on.
    const auto here = identityOf(name, Descriptor(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)));
    if (!here) return here.failure();
    id = *here;
  }
  auto source = std::make_unique<NetlinkSource>(id, name);
  if (const auto prepared = source->prepare(tables); !prepared)
    return describe("network namespace \"" + name + "\": opening netlink", prepared).failure();
  return std::unique_ptr<RouteSource>(std::move(source));
}

std::unique_ptr<NamespaceEvents> KernelAccess::watchNamespaces() {
  auto events = std::make_unique<NameWatch>();
  if (events->descriptors().empty()) {
    NETLINK_TRACE(0, "namespaces that come and go will not be noticed: " << std::strerror(errno));
  }
  return events;
}

}  // namespace Netlink
