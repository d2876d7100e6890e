#pragma once

// What a test and the library that it preloads into a process (Faults.cpp) share: a mapped file, whose name is
// in FAULT_PAGE of the environment. Each call is counted, and those that the test chose fail or end the
// process.

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <iterator>

namespace Lab {

// What the daemon and its libraries ask of the kernel, and how each may be refused. Not what a kernel never
// does: EAGAIN without a later edge, or EINTR of a call that does not block.
struct FaultCall {
  const char* name;
  std::int32_t errors[2];  // the second one: 0, or for a run of all
};
#define LAB_FAULT_CALLS(CALL)               \
  CALL(accept4, EMFILE, ENOMEM)             \
  CALL(bind, ENOMEM, EADDRINUSE)            \
  CALL(chown, EPERM, 0)                     \
  CALL(dup3, EMFILE, 0)                     \
  CALL(epoll_create1, EMFILE, ENOMEM)       \
  CALL(epoll_ctl, ENOMEM, ENOSPC)           \
  CALL(epoll_wait, EINTR, 0)                \
  CALL(fallocate, ENOSPC, 0)                \
  CALL(fdatasync, EIO, 0)                   \
  CALL(flock, ENOLCK, EINTR)                \
  CALL(fopen64, EMFILE, EACCES)             \
  CALL(fork, EAGAIN, ENOMEM)                \
  CALL(fstat, ENOMEM, 0)                    \
  CALL(fstatfs, ENOMEM, 0)                  \
  CALL(ftruncate, ENOSPC, EINTR)            \
  CALL(getsockopt, ENOMEM, 0)               \
  CALL(inotify_add_watch, ENOSPC, ENOMEM)   \
  CALL(inotify_init1, EMFILE, ENOMEM)       \
  CALL(ioctl, ENODEV, 0)                    \
  CALL(listen, EADDRINUSE, 0)               \
  CALL(lstat, ENOMEM, 0)                    \
  CALL(memfd_create, EMFILE, ENOMEM)        \
  CALL(mkdir, ENOSPC, EACCES)               \
  CALL(mlock, ENOMEM, 0)                    \
  CALL(mmap, ENOMEM, 0)                     \
  CALL(open, EMFILE, EACCES)                \
  CALL(openat, EMFILE, 0)                   \
  CALL(opendir, EMFILE, 0)                  \
  CALL(pipe2, EMFILE, 0)                    \
  CALL(poll, EINTR, ENOMEM)                 \
  CALL(posix_fallocate, ENOSPC, EINTR)      \
  CALL(pread, EIO, 0)                       \
  CALL(pwrite, ENOSPC, EIO)                 \
  CALL(read, EIO, 0)                        \
  CALL(recv, ENOMEM, ECONNRESET)            \
  CALL(recvfrom, ENOBUFS, ENOMEM)           \
  CALL(recvmmsg, ENETDOWN, ENOMEM)          \
  CALL(rename, ENOSPC, 0)                   \
  CALL(send, ENOBUFS, EPIPE)                \
  CALL(sendmmsg, ENOBUFS, ENETDOWN)         \
  CALL(sendto, ENOBUFS, ENOMEM)             \
  CALL(setns, EPERM, ENOMEM)                \
  CALL(setsockopt, ENOMEM, ENOBUFS)         \
  CALL(signalfd, EMFILE, 0)                 \
  CALL(socket, EMFILE, ENOBUFS)             \
  CALL(stat, ENOMEM, EACCES)                \
  CALL(syscall, ENOMEM, EPERM) /* bpf(2) */ \
  CALL(unlink, EPERM, 0)                    \
  CALL(write, ENOSPC, EIO)                  \
  CALL(writev, ENOSPC, EIO)
inline constexpr FaultCall kFaultCalls[] = {
#define LAB_FAULT_ROW(name, first, second) {#name, {first, second}},
    LAB_FAULT_CALLS(LAB_FAULT_ROW)
#undef LAB_FAULT_ROW
};
inline constexpr std::size_t kFaultCallCount = std::size(kFaultCalls);

struct FaultPage {
  static constexpr std::uint32_t kAnyCall = 0xFFFFFFFF;
  static constexpr std::int32_t kKill = -1;

  std::uint32_t call = kAnyCall;     // an index of kFaultCalls; kAnyCall: all are counted as one
  std::uint32_t first = 0;           // the one that fails, from 1; 0: none does
  std::int32_t error = 0;            // an errno, or kKill
  std::atomic<bool> goesOn = false;  // and all after it, until this is false
  std::atomic<std::uint32_t> failed = 0;
  std::atomic<std::uint32_t> all = 0;
  std::atomic<std::uint32_t> counts[kFaultCallCount] = {};
};

}  // namespace Lab
