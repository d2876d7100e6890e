#include "lab/Lab.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Netlink/Socket.h"

namespace Lab {
namespace {

using Netlink::Kind;
using Netlink::Message;

constexpr std::uint8_t kOperationalUp = 6;  // IF_OPER_UP of <linux/if.h>, which does not go with <net/if.h>
constexpr const char* kMounts = "/run/netns";
constexpr Netlink::Policy kLinkPolicy[] = {
    {IFLA_ADDRESS, Kind::bytes, 6, 6}, {IFLA_MTU, Kind::u32}, {IFLA_OPERSTATE, Kind::u8}};
constexpr Netlink::Policy kNeighbourPolicy[] = {{NDA_LLADDR, Kind::bytes, 6, 6}, {NDA_MASTER, Kind::u32}};

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("lab: " + what); }
[[noreturn]] void failErrno(const std::string& what) { fail(what + ": " + std::strerror(errno)); }

void require(const std::string& what, const Mox::Result<>& result) {
  if (!result) fail(Netlink::describe(what, result).error());
}

void request(const std::string& what, Message& message) {
  Netlink::Socket socket(NETLINK_ROUTE);
  require(what, socket.request(std::move(message)));
}

ifinfomsg linkHeader(const std::string& device) {
  ifinfomsg header{};
  header.ifi_index = device.empty() ? 0 : static_cast<int>(ifIndex(device));
  if (!device.empty() && header.ifi_index == 0) fail("there is no device " + device);
  return header;
}

int openNamespaceOfThread() {
  const int fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (fd < 0) failErrno("opening the thread's network namespace");
  return fd;
}

void withoutIpv6() {
  const int fd = open("/proc/sys/net/ipv6/conf/default/disable_ipv6", O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;  // a kernel without IPv6
  const bool written = write(fd, "1", 1) == 1;
  close(fd);
  if (!written) fail("turning IPv6 off in a namespace");
}

template <class Bytes>
void append(Frame& frame, const Bytes& bytes) {
  const auto view = std::as_bytes(std::span(bytes));
  frame.insert(frame.end(), view.begin(), view.end());
}

void append16(Frame& frame, std::uint16_t value) {
  frame.push_back(static_cast<std::byte>(value >> 8));
  frame.push_back(static_cast<std::byte>(value & 0xFF));
}

Netlink::Attributes linkAttributes(const Netlink::Received& message) {
  return Netlink::Attributes(message.attributes(sizeof(ifinfomsg)), kLinkPolicy);
}

}  // namespace

void pinToOneCpu() {
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) failErrno("reading the CPU affinity");
  for (std::size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) failErrno("pinning the thread to a CPU");
    return;
  }
}

std::string run(const std::string& command) {
  FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) failErrno(command);
  std::string output;
  std::array<char, 4096> bytes;
  while (const std::size_t got = fread(bytes.data(), 1, bytes.size(), pipe)) output.append(bytes.data(), got);
  if (pclose(pipe) == 0) return output;
  for (const char* lacking : {"Operation not supported", "Unknown device type"}) {
    if (output.find(lacking) != std::string::npos)
      throw Unsupported("this kernel refuses \"" + command.substr(0, command.find('\n')) + "\": " + output);
  }
  fail(command + ": " + output);
}

Namespace::Namespace(const std::string& name) {
  // A thread of its own, so that the caller's stays where it is.
  std::exception_ptr failure;
  std::thread([&] {
    try {
      if (unshare(CLONE_NEWNET) != 0) failErrno("making a network namespace (root is needed)");
      withoutIpv6();
      fd_ = openNamespaceOfThread();
    } catch (...) {
      failure = std::current_exception();
    }
  }).join();
  if (failure) std::rethrow_exception(failure);
  if (name.empty()) return;
  const std::string unique = name + "-" + std::to_string(getpid());
  const std::string path = std::string(kMounts) + "/" + unique;
  mkdir(kMounts, 0755);
  const int target = open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444);
  if (target < 0) failErrno("making " + path);
  close(target);
  const std::string source = "/proc/self/fd/" + std::to_string(fd_);
  if (mount(source.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    const int number = errno;
    unlink(path.c_str());
    errno = number;
    failErrno("mounting " + path);
  }
  name_ = unique;
}

Namespace::~Namespace() {
  if (!name_.empty()) {
    const std::string path = std::string(kMounts) + "/" + name_;
    umount2(path.c_str(), MNT_DETACH);
    unlink(path.c_str());
  }
  close(fd_);
}

Entered::Entered(const Namespace& where) : before_(openNamespaceOfThread()) {
  if (setns(where.fd(), CLONE_NEWNET) != 0) failErrno("entering a network namespace");
}

Entered::~Entered() {
  if (setns(before_, CLONE_NEWNET) != 0)
    std::terminate();  // the rest of the test would run in the wrong place
  close(before_);
}

std::uint32_t ifIndex(const std::string& device) { return if_nametoindex(device.c_str()); }

void vethIs(const std::string& device, const std::string& peer, const Namespace& peerNamespace) {
  Message message(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
  message.header(linkHeader("")).string(IFLA_IFNAME, device).nest(IFLA_LINKINFO, [&](Message& info) {
    info.string(IFLA_INFO_KIND, "veth").nest(IFLA_INFO_DATA, [&](Message& data) {
      data.nest(VETH_INFO_PEER, [&](Message& other) {
        other.header(linkHeader(""))
            .string(IFLA_IFNAME, peer)
            .u32(IFLA_NET_NS_FD, static_cast<std::uint32_t>(peerNamespace.fd()));
      });
    });
  });
  request("making the veth pair " + device + " and " + peer, message);
  upIs(device);
  {
    const Entered entered(peerNamespace);
    upIs(peer);
    awaitOperational(peer);
  }
  awaitOperational(device);
}

void bridgeIs(const std::string& bridge) {
  Message message(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
  message.header(linkHeader("")).string(IFLA_IFNAME, bridge).nest(IFLA_LINKINFO, [](Message& info) {
    info.string(IFLA_INFO_KIND, "bridge").nest(IFLA_INFO_DATA, [](Message& data) {
      data.u8(IFLA_BR_MCAST_SNOOPING, 0);
    });
  });
  request("making the bridge " + bridge, message);
  upIs(bridge);
}

void portIs(const std::string& device, const std::string& bridge) {
  request("making " + device + " a port of " + bridge,
          Message(RTM_SETLINK).header(linkHeader(device)).u32(IFLA_MASTER, ifIndex(bridge)));
}

void linkDel(const std::string& device) {
  request("removing " + device, Message(RTM_DELLINK).header(linkHeader(device)));
}

void upIs(const std::string& device, bool up) {
  ifinfomsg header = linkHeader(device);
  header.ifi_flags = up ? unsigned{IFF_UP} : 0U;
  header.ifi_change = IFF_UP;
  request("bringing " + device + (up ? " up" : " down"), Message(RTM_SETLINK).header(header));
}

void awaitOperational(const std::string& device) {
  Netlink::Socket changes(NETLINK_ROUTE);
  require("watching devices", changes.join(RTNLGRP_LINK));
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (true) {
    bool operational = false;
    Netlink::Socket socket(NETLINK_ROUTE);
    require(
        "reading the state of " + device,
        socket.get(Message(RTM_GETLINK).header(linkHeader(device)), [&](const Netlink::Received& message) {
          operational = linkAttributes(message).u8(IFLA_OPERSTATE) == kOperationalUp;
        }));
    if (operational) return;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd entry{changes.fd(), POLLIN, 0};
    if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) == 0)
      fail(device + " does not come up");
    (void)changes.receive([](const Netlink::Received&) {});
  }
}

void mtuIs(const std::string& device, std::uint32_t mtu) {
  request("setting the MTU of " + device, Message(RTM_SETLINK).header(linkHeader(device)).u32(IFLA_MTU, mtu));
}

Mac macOf(const std::string& device) {
  Mac mac{};
  Netlink::Socket socket(NETLINK_ROUTE);
  require("reading the address of " + device,
          socket.get(Message(RTM_GETLINK).header(linkHeader(device)), [&](const Netlink::Received& message) {
            if (const auto address = linkAttributes(message).bytes(IFLA_ADDRESS))
              std::memcpy(mac.data(), address->data(), mac.size());
          }));
  return mac;
}

std::uint32_t mtuOf(const std::string& device) {
  std::uint32_t mtu = 0;
  Netlink::Socket socket(NETLINK_ROUTE);
  require("reading the MTU of " + device,
          socket.get(Message(RTM_GETLINK).header(linkHeader(device)), [&](const Netlink::Received& message) {
            mtu = linkAttributes(message).u32(IFLA_MTU).value_or(0);
          }));
  return mtu;
}

bool bridgeKnows(const std::string& bridge, const Mac& mac) {
  bool known = false;
  Netlink::Socket socket(NETLINK_ROUTE);
  ndmsg header{};
  header.ndm_family = AF_BRIDGE;
  const std::uint32_t master = ifIndex(bridge);
  require("reading the MAC table of " + bridge,
          socket.dump(
              Message(RTM_GETNEIGH).header(header),
              [&](const Netlink::Received& message) {
                const Netlink::Attributes entry(message.attributes(sizeof(ndmsg)), kNeighbourPolicy);
                const auto address = entry.bytes(NDA_LLADDR);
                if (address && entry.u32(NDA_MASTER) == master &&
                    std::memcmp(address->data(), mac.data(), mac.size()) == 0)
                  known = true;
              },
              [&] { known = false; }));
  return known;
}

PacketSocket::PacketSocket(const std::string& device, std::uint16_t ethertype) {
  const std::uint16_t protocol = htons(ethertype == 0 ? std::uint16_t{ETH_P_ALL} : ethertype);
  fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);  // receives nothing before it is bound
  if (fd_ < 0) failErrno("opening a packet socket");
  const int on = 1;
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = protocol;
  address.sll_ifindex = static_cast<int>(ifIndex(device));
  if (setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0 ||
      setsockopt(fd_, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on) != 0 ||
      bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int number = errno;
    close(fd_);
    errno = number;
    failErrno("a packet socket on " + device);
  }
}

PacketSocket PacketSocket::sentOn(const std::string& device) {
  PacketSocket socket(device);
  const int off = 0;
  if (setsockopt(socket.fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &off, sizeof off) != 0)
    failErrno("a packet socket on what " + device + " sends");
  constexpr std::uint32_t kType = static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE);
  socket.filterIs({BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kType),
                   BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 1),
                   BPF_STMT(BPF_RET | BPF_K, 0xFFFF), BPF_STMT(BPF_RET | BPF_K, 0)});
  return socket;
}

PacketSocket::~PacketSocket() { close(fd_); }

void PacketSocket::onlyFramesWith(std::uint32_t offset, const Mac& address) {
  const auto bytes = [&](std::size_t from, std::size_t count) {
    std::uint32_t value = 0;
    for (std::size_t i = from; i < from + count; ++i) value = value << 8 | address[i];
    return value;
  };
  filterIs(
      {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, bytes(0, 4), 0, 3),
       BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offset + 4), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, bytes(4, 2), 0, 1),
       BPF_STMT(BPF_RET | BPF_K, 0xFFFF), BPF_STMT(BPF_RET | BPF_K, 0)});
}

void PacketSocket::filterIs(std::vector<sock_filter> code) {
  const sock_fprog program{static_cast<unsigned short>(code.size()), code.data()};
  if (setsockopt(fd_, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
    failErrno("filtering a packet socket");
}

void PacketSocket::markIs(std::uint32_t mark) {
  if (setsockopt(fd_, SOL_SOCKET, SO_MARK, &mark, sizeof mark) != 0) failErrno("marking a packet socket");
}

bool PacketSocket::trySend(std::span<const std::byte> frame) {
  Frame onTrunk;
  if (vlan_) frame = onTrunk = tagged(Frame(frame.begin(), frame.end()), *vlan_);
  return ::send(fd_, frame.data(), frame.size(), 0) == static_cast<ssize_t>(frame.size());
}

void PacketSocket::send(std::span<const std::byte> frame) {
  if (!trySend(frame)) failErrno("sending a frame");
}

std::optional<Frame> PacketSocket::receive(std::chrono::milliseconds patience) {
  pollfd entry{fd_, POLLIN, 0};
  if (poll(&entry, 1, static_cast<int>(patience.count())) != 1) return std::nullopt;
  Frame frame(65536);
  alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(sizeof(tpacket_auxdata))> control{};
  iovec vector{frame.data(), frame.size()};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  const ssize_t length = recvmsg(fd_, &message, 0);
  if (length < 0) return std::nullopt;
  frame.resize(static_cast<std::size_t>(length));
  for (const cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, const_cast<cmsghdr*>(part))) {
    if (part->cmsg_level != SOL_PACKET || part->cmsg_type != PACKET_AUXDATA) continue;
    tpacket_auxdata auxiliary;
    std::memcpy(&auxiliary, CMSG_DATA(part), sizeof auxiliary);
    if ((auxiliary.tp_status & TP_STATUS_VLAN_VALID) == 0) continue;
    return auxiliary.tp_vlan_tci == vlan_ ? frame : tagged(frame, auxiliary.tp_vlan_tci);
  }
  return vlan_ ? tagged(frame, 0) : frame;
}

std::optional<std::vector<Frame>> PacketSocket::receiveUntil(const Frame& last,
                                                             std::chrono::milliseconds patience) {
  std::vector<Frame> before;
  while (auto frame = receive(patience)) {
    if (*frame == last) return before;
    before.push_back(std::move(*frame));
  }
  return std::nullopt;
}

Frame arpFrame(const Arp& arp, const Mac& destination) {
  Frame frame;
  append(frame, destination);
  append(frame, arp.senderMac);
  append16(frame, ETHERTYPE_ARP);
  append16(frame, 1);
  append16(frame, ETHERTYPE_IP);
  append(frame, std::array<std::uint8_t, 2>{6, 4});
  append16(frame, arp.operation);
  append(frame, arp.senderMac);
  append(frame, arp.senderIp);
  append(frame, arp.targetMac);
  append(frame, arp.targetIp);
  return frame;
}

Frame tagged(const Frame& frame, std::uint16_t tci) {
  Frame result(frame.begin(), frame.begin() + 12);
  append16(result, ETHERTYPE_VLAN);
  append16(result, tci);
  result.insert(result.end(), frame.begin() + 12, frame.end());
  return result;
}

Frame trapped(const Frame& frame, std::uint32_t vlan, std::uint32_t port) {
  Frame result(frame.begin(), frame.begin() + 12);
  for (const std::uint32_t word : {0x81350000U, vlan, port, 0U})
    for (int shift = 24; shift >= 0; shift -= 8)
      result.push_back(static_cast<std::byte>(word >> shift & 0xFF));
  result.insert(result.end(), frame.begin() + 12, frame.end());
  return result;
}

Frame plainFrame(const Mac& source, const Mac& destination, std::uint16_t ethertype, std::uint8_t fill) {
  Frame frame;
  append(frame, destination);
  append(frame, source);
  append16(frame, ethertype);
  frame.resize(60, std::byte{fill});
  return frame;
}

std::string hex(const Frame& frame) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const std::byte byte : frame) {
    text += kDigits[std::to_integer<unsigned>(byte) >> 4];
    text += kDigits[std::to_integer<unsigned>(byte) & 15];
  }
  return text;
}

}  // namespace Lab
