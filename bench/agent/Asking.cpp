#include "Asking.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <random>
#include <span>
#include <stdexcept>
#include <vector>

#include "Lanix/Wire.h"
#include "lab/Lab.h"
#include "lab/Nd.h"

namespace Bench {
namespace {

// Where in a frame what is: of IPv6 addresses the last four bytes.
struct Form {
  std::uint16_t etherType;
  std::size_t size, type, senderMac, senderIp, targetIp, answerMac, answerIp;
  std::byte answer;  // the type of one
};
namespace Nd = Lab::Nd;
constexpr std::size_t kLast = 12;  // of the four
constexpr Form kArp = {ETH_P_ARP, 42, 21, 22, 28, 38, 22, 28, std::byte{2}};
constexpr Form kNd = {ETH_P_IPV6,
                      86,
                      Nd::kType,
                      Nd::kOptionAddress,
                      Nd::kSourceIp + kLast,
                      Nd::kTarget + kLast,
                      Nd::kOptionAddress,
                      Nd::kTarget + kLast,
                      std::byte{136}};
constexpr std::size_t kSource = 6, kGroupMac = 2;
constexpr std::uint32_t kMaxOutstanding = 64;
constexpr double kPatience = 0.1;                   // seconds after which a request counts as lost
constexpr std::uint32_t kFirstRemote = 0x0a100000;  // 10.16.0.0
constexpr std::uint32_t kFirstSender = 0x0a000100;  // 10.0.1.0

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

using Buffer = std::array<std::byte, 96>;

class Port {
 public:
  Port(const std::string& device, const Form& form) : fd_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
    const int on = 1, buffer = 4 << 20;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(form.etherType);
    address.sll_ifindex = static_cast<int>(if_nametoindex(device.c_str()));
    if (fd_ < 0 || setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) < 0 ||
        setsockopt(fd_, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on) < 0 ||
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer) < 0 ||
        bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
      const std::string why = std::strerror(errno);
      if (fd_ >= 0) close(fd_);
      throw std::runtime_error("a packet socket on " + device + ": " + why);
    }
    for (std::size_t i = 0; i < kMaxOutstanding; ++i) {
      outVectors_[i] = {out_[i].data(), form.size};
      inVectors_[i] = {in_[i].data(), in_[i].size()};
      outMessages_[i].msg_hdr.msg_iov = &outVectors_[i];
      inMessages_[i].msg_hdr.msg_iov = &inVectors_[i];
      outMessages_[i].msg_hdr.msg_iovlen = inMessages_[i].msg_hdr.msg_iovlen = 1;
    }
  }
  ~Port() { close(fd_); }
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  // Room for frames to be sent.
  std::span<Buffer> out() { return out_; }
  void send(std::uint32_t count) {
    for (std::uint32_t sent = 0; sent < count;) {
      const int done = sendmmsg(fd_, &outMessages_[sent], count - sent, 0);
      if (done <= 0 && errno != ENOBUFS)
        throw std::runtime_error(std::string("sending: ") + std::strerror(errno));
      sent += static_cast<std::uint32_t>(std::max(done, 1));
    }
  }
  // The frames that wait, at most kMaxOutstanding; they stay until the next call.
  std::span<const Buffer> receive() {
    const int got = recvmmsg(fd_, inMessages_.data(), kMaxOutstanding, MSG_DONTWAIT, nullptr);
    return std::span(in_).first(got > 0 ? static_cast<std::size_t>(got) : 0);
  }

 private:
  int fd_;
  std::array<Buffer, kMaxOutstanding> out_{}, in_{};
  std::array<iovec, kMaxOutstanding> outVectors_{}, inVectors_{};
  std::array<mmsghdr, kMaxOutstanding> outMessages_{}, inMessages_{};
};

std::uint32_t wordAt(const Buffer& frame, std::size_t offset) {
  Lanix::Be32 word;
  std::memcpy(&word, frame.data() + offset, sizeof word);
  return word;
}

class Hosts {
 public:
  Hosts(Port& port, const Form& form, const Asking& asking) : port_(port), form_(form), asking_(asking) {
    Lab::Frame frame = Lab::arpFrame({});
    if (asking.ip6) {
      frame = Lab::solicitation({}, Lab::ip6("2001:db8:10::"), Lab::ip6("2001:db8:10::"));
      // Of what is the same in all: the low words of group and target, and the addresses, are put in later.
      std::fill_n(frame.begin() + Nd::kDestinationIp + kLast, 4, std::byte{0});
      frame = Lab::summed(frame);
      sum_ = 0xFFFF & ~(std::to_integer<std::uint32_t>(frame[Nd::kChecksum]) << 8 |
                        std::to_integer<std::uint32_t>(frame[Nd::kChecksum + 1]));
    }
    for (Buffer& buffer : port_.out()) std::ranges::copy(frame, buffer.begin());
  }

  Asked run() {
    std::vector<double> times;
    const double begin = now();
    double last = begin;
    for (double time = begin; time < begin + asking_.seconds; time = now()) {
      if (outstanding_ < asking_.outstanding) {
        sendMore();
        if (asking_.outstanding == 1) last = time = now();
      }
      if (const std::uint32_t got = takeAnswers(); got > 0) {
        const double came = now();
        if (asking_.outstanding == 1) times.push_back((came - last) * 1e6);
        last = came;
      } else if (time - last > kPatience) {
        asked_.lost += outstanding_;
        outstanding_ = 0;
        last = time;
      }
    }
    asked_.perSecond = static_cast<double>(answers_) / (now() - begin);
    // What is on its way belongs to nobody else.
    for (const double end = now() + kPatience; outstanding_ > 0 && now() < end;) takeAnswers();
    asked_.lost += outstanding_;
    std::ranges::sort(times);
    if (!times.empty()) {
      asked_.p50 = times[times.size() / 2];
      asked_.p99 = times[times.size() * 99 / 100];
    }
    return asked_;
  }

 private:
  void sendMore() {
    const std::uint32_t count = asking_.outstanding - outstanding_;
    for (std::uint32_t i = 0; i < count; ++i) {
      Buffer& frame = port_.out()[i];
      const std::uint32_t sender = asking_.senders > 1 ? next_++ % asking_.senders : 0;
      asked_.asked += 1;
      lastTarget_ = kFirstRemote + static_cast<std::uint32_t>(random_() % asking_.remoteHosts);
      const Lanix::Be32 target(lastTarget_), ip(kFirstSender + sender);
      const std::array<std::byte, 6> mac = {std::byte{2}, std::byte{0},           std::byte{0},
                                            std::byte{1}, std::byte(sender >> 8), std::byte(sender & 255)};
      std::ranges::copy(mac, frame.begin() + kSource);
      std::memcpy(frame.data() + form_.senderMac, mac.data(), mac.size());
      std::memcpy(frame.data() + form_.senderIp, &ip, sizeof ip);
      std::memcpy(frame.data() + form_.targetIp, &target, sizeof target);
      if (asking_.ip6) toGroup(frame, kFirstSender + sender, sender);
    }
    port_.send(count);
    outstanding_ += count;
  }

  // The group of the target that is asked for last, and the checksum.
  void toGroup(Buffer& frame, std::uint32_t ip, std::uint32_t sender) const {
    const std::uint32_t low = 0xFF000000U | lastTarget_;
    const Lanix::Be32 group(low);
    std::memcpy(frame.data() + kGroupMac, &group, sizeof group);
    std::memcpy(frame.data() + Nd::kDestinationIp + kLast, &group, sizeof group);
    std::uint32_t sum = sum_ + 0x0200 + 1 + sender;
    for (const std::uint32_t word : {ip, low, lastTarget_}) sum += (word >> 16) + (word & 0xFFFF);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    const Lanix::Be16 checksum(static_cast<std::uint16_t>(~sum));
    std::memcpy(frame.data() + Nd::kChecksum, &checksum, sizeof checksum);
  }

  // How many of what is waited for came.
  std::uint32_t takeAnswers() {
    std::uint32_t got = 0;
    for (const Buffer& frame : port_.receive()) {
      if (frame[form_.type] != form_.answer) continue;  // the switch asks as well
      const std::uint32_t address = wordAt(frame, form_.answerIp);
      const std::uint32_t remote = address - kFirstRemote;
      // One that was given up has been counted.
      if (outstanding_ == 0 || (asking_.outstanding == 1 && address != lastTarget_)) continue;
      Lanix::EthAddr::Bytes mac;
      std::memcpy(mac.data(), frame.data() + form_.answerMac, mac.size());
      if (remote >= asking_.remoteHosts || remoteMac(remote).bytes() != mac) ++asked_.wrong;
      --outstanding_;
      ++answers_;
      ++got;
    }
    return got;
  }

  Port& port_;
  const Form& form_;
  Asking asking_;
  std::uint32_t sum_ = 0;  // of what all solicitations share
  Asked asked_;
  std::minstd_rand random_{1};
  std::uint32_t next_ = 0, outstanding_ = 0, lastTarget_ = 0;
  std::uint64_t answers_ = 0;
};

}  // namespace

Lanix::IpGenAddr remoteIp(std::uint32_t i, bool ip6) {
  const Lanix::IpAddr last(kFirstRemote + i);
  if (!ip6) return last;
  Lanix::Ip6Addr::Bytes bytes = Lab::ip6("2001:db8:10::");
  std::ranges::copy(last.bytes(), bytes.begin() + kLast);
  return Lanix::Ip6Addr(bytes);
}

Lanix::EthAddr remoteMac(std::uint32_t i) {
  return Lanix::EthAddr({0x02, 0x10, static_cast<std::uint8_t>(i >> 24), static_cast<std::uint8_t>(i >> 16),
                         static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)});
}

Asked ask(const std::string& device, const Asking& asking) {
  const Form& form = asking.ip6 ? kNd : kArp;
  Port port(device, form);
  return Hosts(port, form, asking).run();
}

}  // namespace Bench
