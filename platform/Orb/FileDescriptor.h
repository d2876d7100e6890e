#pragma once

#include <cstdint>

#include "Mox/Attribute.h"
#include "Mox/Strep.h"

namespace Orb {

class EventLoop;

// An open descriptor in the event loop, edge-triggered: a notification says that it became ready; whoever
// hears it must read or write until the call would block, or come back by itself. Registering one that is
// ready already notifies once, in a later turn.
//
// It does not own the descriptor: close it after descriptorIs(-1) or after dropping this object. Hang-up and
// error count as readable and, when asked for, writable: the next call shows which.
class FileDescriptor final : public Mox::Entity {
 public:
  FileDescriptor(EventLoop& loop, Mox::String name);
  ~FileDescriptor() override;

  const Mox::String& name() const { return name_; }

  int descriptor() const { return descriptor_; }
  // -1 takes it out of the loop. Throws Mox::Error when the kernel refuses the descriptor.
  void descriptorIs(int descriptor);
  // Sets O_NONBLOCK. Throws Mox::Error.
  void nonBlockingIs(bool nonBlocking);
  void notifyOnReadableIs(bool notify);
  void notifyOnWritableIs(bool notify);

  // How often it became ready; watch their events.
  MOX_ATTRIBUTE(std::uint64_t, readableCount, 0)
  MOX_ATTRIBUTE(std::uint64_t, writableCount, 0)

 private:
  friend class EventLoop;
  void handleReady(std::uint32_t events);
  void reregister();

  EventLoop* loop_;
  Mox::String name_;
  int descriptor_ = -1;
  bool readable_ = false;
  bool writable_ = false;
  std::uint32_t slot_ = 0;
  bool registered_ = false;
};

}  // namespace Orb
