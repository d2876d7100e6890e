#include "ArpSuppression/MessageTapSocketSm.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "ArpSuppression/Problems.h"
#include "ArpSuppression/Trace.h"
#include "L3/VrfName.h"
#include "Lanix/PacketSockets.h"
#include "Lanix/Wire.h"
#include "Mox/Assert.h"
#include "Mox/Error.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/MessageTapSocketSm";

// Where trapped frames wait while the agent does something else. The kernel makes 4 MiB of it, which hold
// some 5,000 requests: 0.2 s of what the policers of 48 ports let through, so that neither a slice of other
// work nor a burst on several ports loses any. More would only be a longer queue: what waits in this one is
// answered within some 20 ms.
constexpr int kTrapReceiveBuffer = 2 << 20;
// Seconds between attempts while nothing will tell that the device has place. Each may cost a frame.
constexpr double kOthersFillQueue = 0.1;
// Seconds until a socket that the system refused is tried again.
constexpr double kRetrySeconds = 3;

// As socket(2) takes it, but in host byte order; 0 for the invalid one.
std::uint16_t socketProtocol(MessageTapSocketSm::Protocol protocol) {
  switch (protocol) {
    case MessageTapSocketSm::Protocol::tervakArpSnoop:
      return Lanix::kEtherTypeTrap;
    case MessageTapSocketSm::Protocol::allProtocols:
      return Lanix::kEtherTypeAll;
    case MessageTapSocketSm::Protocol::invalid:
      break;
  }
  return 0;
}

}  // namespace

MessageTapSocketSm::MessageTapSocketSm(Ptr<Orb::TaskScheduler> scheduler, Mox::String taskName,
                                       unsigned level, Mox::String interfaceName, Protocol protocol,
                                       NotifyMode notifyMode, Ptr<VlanL3InfoStatus> vlanL3InfoStatus)
    : WalkSmBase(std::move(scheduler), std::move(taskName), level),
      interfaceName_(std::move(interfaceName)),
      protocol_(protocol),
      notifyMode_(notifyMode),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      retry_(this->scheduler()->loop(), "packet socket", [this] { openSocket(); }) {
  interfaceWatch_.on(VrfInterfaceWatch::kniIntfIfIndexChanged, [this] { handleKniIntfIfIndex(); });
  fileDescriptor_.on(Orb::FileDescriptor::readableCountChanged, [this] { handleFileDescriptor(); })
      .on(Orb::FileDescriptor::writableCountChanged, [this] { handleFileDescriptor(); });
  handleMessageTapSocketSmInitialized();
}

MessageTapSocketSm::~MessageTapSocketSm() { handleMessageTapSocketSmDestroy(); }

void MessageTapSocketSm::handleMessageTapSocketSmInitialized() {
  interfaceWatch_.notifierIs(
      vlanL3InfoStatus_->findOrCreateVrfInterfaceWatch(L3::VrfName::kDefault, interfaceName_));
  // The watch is shared: its index may be there already, and not change any more.
  if (interfaceWatch_->usable()) openSocket();
}

void MessageTapSocketSm::handleMessageTapSocketSmDestroy() {
  closeSocket();
  openedIs({});
}

void MessageTapSocketSm::handleKniIntfIfIndex() {
  TRACE8("interfaceWatch=" << interfaceWatch_.notifier());
  closeSocket();
  retry_.cancel();
  if (!interfaceWatch_->usable()) return openedIs({});
  MOX_ASSERT(kSource, "0 != interfaceWatch()->kniIntfIfIndex()", interfaceWatch_->kniIntfIfIndex() != 0);
  openSocket();
}

void MessageTapSocketSm::openSocket() {
  openedIs(tryOpenSocket());
  if (!opened_) retry_.after(kRetrySeconds);
}

void MessageTapSocketSm::openedIs(Mox::Result<> opened) {
  opened_ = std::move(opened);
  problems().check("packet socket on " + interfaceName_, opened_,
                   "correct that; it is tried again every few seconds",
                   Switch::ProblemReporter::Left::nothing);
}

// The socket is made without a protocol: so it hears nothing before it is bound, and the binding need not
// wait until the kernel has taken it off all other devices, which takes some ten milliseconds.
Mox::Result<> MessageTapSocketSm::tryOpenSocket() {
  const std::uint16_t proto = socketProtocol(protocol_);
  MOX_ASSERT(kSource, "0 != proto", proto != 0);
  Lanix::PacketSockets& sockets = Lanix::PacketSockets::current();
  const int sock = sockets.open(SOCK_RAW, 0);
  if (sock < 0) {
    const int error = errno;
    TRACE8("socket creation failed errno=" << std::strerror(error));
    TRACELET_RECORD("socket creation failed intfId={} errno={}", interfaceName_, std::strerror(error));
    return Mox::Failure{std::string("cannot be made: ") + std::strerror(error), error};
  }
  if (sockets.bind(sock, interfaceWatch_->kniIntfIfIndex(), proto) < 0) {
    const int error = errno;
    sockets.close(sock);
    TRACE8("bind failed intfId=" << interfaceName_ << " errno=" << std::strerror(error));
    TRACELET_RECORD("bind failed intfId={} errno={}", interfaceName_, std::strerror(error));
    return Mox::Failure{std::string("cannot be bound: ") + std::strerror(error), error};
  }
  TRACE8("bound socket=" << sock);
  awaitedUnsent_ = {};
  auto descriptor = Mox::make<Orb::FileDescriptor>(scheduler()->loop(), "ArpTrap");
  try {
    descriptor->descriptorIs(sock);
    descriptor->nonBlockingIs(true);
    if (sockets.receiveBufferIs(sock, notifyMode_ == NotifyMode::readable ? kTrapReceiveBuffer : 0) < 0) {
      const int error = errno;
      TRACE8("setsockopt SO_RCVBUF failed intfId=" << interfaceName_ << " errno=" << std::strerror(error));
      TRACELET_RECORD("setsockopt SO_RCVBUF failed intfId={} errno={}", interfaceName_, std::strerror(error));
    }
    fileDescriptor_.notifierIs(descriptor);
    descriptor->notifyOnReadableIs(notifyMode_ == NotifyMode::readable);
    descriptor->notifyOnWritableIs(notifyMode_ == NotifyMode::writable);
  } catch (const Mox::Error& error) {
    TRACE8("event loop refused socket=" << sock << " what=" << error.what());
    TRACELET_RECORD("event loop refused socket intfId={} what={}", interfaceName_, error.what());
    fileDescriptor_.notifierIs(nullptr);
    descriptor->descriptorIs(-1);
    sockets.close(sock);
    return Mox::Failure{error.what()};
  }
  socketOpenIs(true);
  return {};
}

void MessageTapSocketSm::closeSocket() {
  if (!fileDescriptor_) return;
  const Ptr<Orb::FileDescriptor> descriptor = fileDescriptor_.notifier();
  const int sock = descriptor->descriptor();
  MOX_ASSERT(kSource, "sock >= 0", sock >= 0);
  TRACE8("closing socket=" << sock);
  descriptor->descriptorIs(-1);
  fileDescriptor_.notifierIs(nullptr);
  Lanix::PacketSockets::current().close(sock);
  socketOpenIs(false);
}

void MessageTapSocketSm::handleFileDescriptor() {
  TRACE8("scheduled=" << walkScheduled() << " readableCount=" << fileDescriptor_->readableCount()
                      << " writableCount=" << fileDescriptor_->writableCount());
  if (awaitedUnsent_ && Lanix::PacketSockets::current().unsent(socket()) > *awaitedUnsent_) return;
  awaitedUnsent_ = {};
  scheduleWalk();
}

void MessageTapSocketSm::awaitSentIs(bool await) {
  awaitedUnsent_ = {};
  if (!await) return;
  const int unsent = Lanix::PacketSockets::current().unsent(socket());
  awaitedUnsent_ = unsent == 0 ? -1 : unsent / 2;
  if (unsent == 0) scheduleWalk(kOthersFillQueue);
}

int MessageTapSocketSm::socket() const { return fileDescriptor_ ? fileDescriptor_->descriptor() : -1; }

void MessageTapSocketSm::dumpSocket(Orb::DumpContext& context, int indent) const {
  context.attribute(indent, "interfaceName", interfaceName_);
  context.attribute(indent, "interfaceWatch", interfaceWatch_->toStrep());
  context.attribute(indent, "socket", fileDescriptor_ ? "open" : "closed");
}

}  // namespace ArpSuppression
