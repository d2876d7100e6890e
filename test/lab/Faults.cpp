// Preloaded into a process of a test: stands in front of the calls in Faults.h, counts them, and refuses the one
// that the test chose.

#include "lab/Faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

using Lab::FaultPage;

// What a call takes and gives. The calling conventions of x86-64 and AArch64 put six such into registers whatever
// the function's own types are; what it does not take is passed on unread.
using Word = long;
using Call = Word (*)(Word, Word, Word, Word, Word, Word, Word);

Call realCall(const char* name) { return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name)); }

// The process that it was preloaded into, and not its copies.
FaultPage* page() {
  static FaultPage* const mapped = []() -> FaultPage* {
    const char* const name = std::getenv("FAULT_PAGE");
    if (name == nullptr) return nullptr;
    const Word file = realCall("open")(reinterpret_cast<Word>(name), O_RDWR | O_CLOEXEC, 0, 0, 0, 0, 0);
    if (static_cast<int>(file) < 0) return nullptr;
    const Word at = realCall("mmap")(0, sizeof(FaultPage), PROT_READ | PROT_WRITE, MAP_SHARED,
                                     static_cast<int>(file), 0, 0);
    close(static_cast<int>(file));
    return at == -1 ? nullptr : reinterpret_cast<FaultPage*>(at);
  }();
  static const pid_t process = getpid();
  return getpid() == process ? mapped : nullptr;
}

bool fails(std::uint32_t call) {
  FaultPage* const shared = page();
  if (shared == nullptr) return false;
  const std::uint32_t ofThis = ++shared->counts[call];
  const std::uint32_t ofAll = ++shared->all;
  const bool any = shared->call == FaultPage::kAnyCall;
  if (shared->first == 0 || (!any && shared->call != call)) return false;
  const std::uint32_t now = any ? ofAll : ofThis;
  if (now != shared->first && (now < shared->first || !shared->goesOn)) return false;
  ++shared->failed;
  if (shared->error == FaultPage::kKill) kill(getpid(), SIGKILL);
  errno = shared->error;
  return true;
}

constexpr Word refusal(const char* name) {
  const std::string_view of(name);
  if (of == "posix_fallocate") return 0;  // its errno, see below
  return of == "opendir" || of == "fopen64" ? 0 : -1;
}

enum Index : std::uint32_t {
#define LAB_FAULT_INDEX(name, first, second) name##Index,
  LAB_FAULT_CALLS(LAB_FAULT_INDEX)
};

}  // namespace

// Under names of their own here, because headers declare the real ones with their types.
#define LAB_FAULT_WRAP(name, first, second)                                                  \
  Word name##Counted(Word a, Word b, Word c, Word d, Word e, Word f, Word g) __asm__(#name); \
  Word name##Counted(Word a, Word b, Word c, Word d, Word e, Word f, Word g) {               \
    static const Call real = realCall(#name);                                                \
    if (!fails(name##Index)) return real(a, b, c, d, e, f, g);                               \
    return std::strcmp(#name, "posix_fallocate") == 0 ? errno : refusal(#name);              \
  }
LAB_FAULT_CALLS(LAB_FAULT_WRAP)
