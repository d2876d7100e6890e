#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Lanix/Namespaces.h"
#include "Lanix/NetlinkSocket.h"

namespace TestSupport {

// Network namespaces and their devices, without a kernel behind them; "default" is always there.
class FakeNamespaces final : public Lanix::Namespaces {
 public:
  FakeNamespaces() : replaced_(*this) {}

  void has(const std::string& name) { namespaces_[name]; }
  void loses(const std::string& name) { namespaces_.erase(name); }
  // Index 0 takes the device away.
  void deviceIs(const std::string& name, const std::string& device, std::uint32_t ifIndex) {
    namespaces_[name][device] = ifIndex;
  }
  const std::string& inside() const { return inside_; }
  int switches() const { return switches_; }

  int enter(const Lanix::NamespaceName& name) override {
    if (!namespaces_.contains(name)) {
      errno = ENOENT;
      return -1;
    }
    inside_ = name;
    ++switches_;
    return 0;
  }
  int leave() override {
    inside_ = Lanix::kDefaultNamespace;
    ++switches_;
    return 0;
  }
  std::uint32_t interfaceIndex(const std::string& device) override {
    const auto& devices = namespaces_[inside_];
    const auto at = devices.find(device);
    if (at != devices.end() && at->second != 0) return at->second;
    errno = ENODEV;
    return 0;
  }

 private:
  std::map<std::string, std::map<std::string, std::uint32_t>> namespaces_;
  std::string inside_ = Lanix::kDefaultNamespace;
  int switches_ = 0;
  Lanix::Replaced<Lanix::Namespaces> replaced_;
};

// Netlink sockets that are numbers only, from 1000 on, and a kernel behind them that takes neighbours.
class FakeNetlinkSockets final : public Lanix::NetlinkSockets {
 public:
  FakeNetlinkSockets() : replaced_(*this) {}

  // Every open fails with this errno, until it is 0.
  void refusesWith(int error) { error_ = error; }
  // Open sockets, each with the network namespace that it was opened in.
  const std::map<int, std::string>& openSockets() const { return sockets_; }
  void namespacesAre(const FakeNamespaces& namespaces) { namespaces_ = &namespaces; }

  int open() override {
    if (error_ != 0) {
      errno = error_;
      return -1;
    }
    sockets_[next_] = namespaces_ ? namespaces_->inside() : Lanix::kDefaultNamespace;
    return next_++;
  }
  void close(int socket) override { sockets_.erase(socket); }

  // "red 7 10.0.0.5 02:00:00:00:00:05 state=2 protocol=110": the neighbours, with namespace and interface
  // index.
  std::vector<std::string> neighbours() const;
  // Requests are answered with this errno, until it is 0.
  void refusesRequestsWith(int error) { requestError_ = error; }
  // The answers to that many datagrams of requests are too late: they come with the next one's.
  void answersLate(int datagrams) { late_ = datagrams; }
  // Sending fails with this errno, until it is 0.
  void failsToSendWith(int error) { sendError_ = error; }
  // How many requests each datagram held; empty from here on.
  std::vector<int> takeDatagrams() { return std::exchange(datagrams_, {}); }
  // Goes before the next answer as it is.
  void says(std::vector<std::byte> datagram) { answers_.push_back(std::move(datagram)); }

  bool send(int socket, std::span<const std::byte> message) override;
  ssize_t receive(int socket, std::span<std::byte> into) override;

 private:
  void request(int socket, std::span<const std::byte> message);

  using Neighbour = std::tuple<std::string, int, std::string>;
  std::map<Neighbour, std::string> neighbours_;
  std::deque<std::vector<std::byte>> answers_;
  std::vector<int> datagrams_;
  int requestError_ = 0;
  int sendError_ = 0;
  int late_ = 0;
  bool silent_ = false;
  int error_ = 0;
  int next_ = 1000;
  std::map<int, std::string> sockets_;
  const FakeNamespaces* namespaces_ = nullptr;
  Lanix::Replaced<Lanix::NetlinkSockets> replaced_;
};

}  // namespace TestSupport
