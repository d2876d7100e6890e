#include "Orb/FileDescriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Orb/EventLoop.h"

namespace Orb {

FileDescriptor::FileDescriptor(EventLoop& loop, Mox::String name) : loop_(&loop), name_(std::move(name)) {}

FileDescriptor::~FileDescriptor() { descriptorIs(-1); }

void FileDescriptor::descriptorIs(int descriptor) {
  if (descriptor == descriptor_) return;
  const bool readable = readable_;
  const bool writable = writable_;
  readable_ = writable_ = false;
  reregister();
  descriptor_ = descriptor;
  readable_ = readable;
  writable_ = writable;
  reregister();
}

void FileDescriptor::nonBlockingIs(bool nonBlocking) {
  const int flags = fcntl(descriptor_, F_GETFL);
  if (flags < 0 || fcntl(descriptor_, F_SETFL, nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) < 0) {
    throw Mox::Error(name_ + ": O_NONBLOCK: " + std::strerror(errno));
  }
}

void FileDescriptor::notifyOnReadableIs(bool notify) {
  readable_ = notify;
  reregister();
}

void FileDescriptor::notifyOnWritableIs(bool notify) {
  writable_ = notify;
  reregister();
}

void FileDescriptor::reregister() {
  const bool wanted = loop_ && descriptor_ >= 0 && (readable_ || writable_);
  if (!wanted && !registered_) return;
  if (!wanted) {
    if (loop_) {
      epoll_ctl(loop_->epoll_, EPOLL_CTL_DEL, descriptor_, nullptr);
      loop_->slots_[slot_] = nullptr;
      ++loop_->generations_[slot_];
    }
    registered_ = false;
    return;
  }
  loop_->openEpoll();
  if (!registered_) {
    slot_ = 0;
    while (slot_ < loop_->slots_.size() && loop_->slots_[slot_]) ++slot_;
    if (slot_ == loop_->slots_.size()) {
      loop_->slots_.push_back(nullptr);
      loop_->generations_.push_back(0);
    }
  }
  epoll_event event{};
  event.events = EPOLLET | (readable_ ? EPOLLIN | EPOLLRDHUP : 0u) | (writable_ ? EPOLLOUT : 0u);
  event.data.u64 = std::uint64_t{loop_->generations_[slot_]} << 32 | slot_;
  if (epoll_ctl(loop_->epoll_, registered_ ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, descriptor_, &event) < 0) {
    throw Mox::Error(name_ + ": epoll_ctl: " + std::strerror(errno));
  }
  loop_->slots_[slot_] = this;
  registered_ = true;
}

void FileDescriptor::handleReady(std::uint32_t events) {
  const bool broken = (events & (EPOLLERR | EPOLLHUP)) != 0;
  if (readable_ && (broken || (events & (EPOLLIN | EPOLLRDHUP)) != 0)) readableCountIs(readableCount() + 1);
  if (writable_ && (broken || (events & EPOLLOUT) != 0)) writableCountIs(writableCount() + 1);
}

}  // namespace Orb
