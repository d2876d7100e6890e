#include "Lanix/Namespaces.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Lanix/Descriptor.h"

namespace Lanix {

namespace {

Namespaces* replaced_ = nullptr;

bool isPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

Namespaces& Namespaces::current() {
  static Namespaces kernel;
  return replaced_ ? *replaced_ : kernel;
}

Namespaces* Namespaces::replace(Namespaces* namespaces) { return std::exchange(replaced_, namespaces); }

int Namespaces::enter(const NamespaceName& name) {
  if (!isPlainName(name)) {
    errno = EINVAL;
    return -1;
  }
  if (original_ < 0) original_ = aboveStandard(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  if (original_ < 0) return -1;
  // Non-blocking: should a pipe lie there, opening it must not wait for its other end.
  const int wanted = ::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (wanted < 0) return -1;
  const int result = setns(wanted, CLONE_NEWNET);
  const int error = errno;
  ::close(wanted);
  errno = error;
  return result;
}

int Namespaces::leave() { return original_ < 0 ? 0 : setns(original_, CLONE_NEWNET); }

std::uint32_t Namespaces::interfaceIndex(const std::string& deviceName) {
  return if_nametoindex(deviceName.c_str());
}

}  // namespace Lanix
