#include "Tracelet/Tracelet.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

#include "Mox/Assert.h"
#include "Tracelet/Prune.h"
#include "Tracelet/Ring.h"

namespace Tracelet {

std::uint32_t largestRecord = 512;

namespace {

struct State {
  std::unique_ptr<Ring> ring;
  std::string fileName;
  std::string directory;
};

// Never destroyed: records are made until the process is gone.
State& state() {
  static auto* state = new State;
  return *state;
}

Ring* ring_ = nullptr;
bool locking_ = false;
std::mutex lock_;

void ringIs(std::unique_ptr<Ring> ring) {
  largestRecord = ring->maxRecordBytes();
  ring_ = ring.get();
  state().ring = std::move(ring);
}

void memoryRingIs() {
  auto ring = std::make_unique<Ring>(-1, Geometry::of({4, 4, 32, 8, 8, 8}, 512), 512, false, false);
  MOX_ASSERT("Tracelet/Tracelet", "ring->good()", ring->good());
  ringIs(std::move(ring));
}

void recordAssertion(const char* message) {
  if (locking_ && !lock_.try_lock()) return;  // another thread is in a record: do not wait
  if (locking_) lock_.unlock();
  TRACELET_RECORD_AT(0, "{}", message);
}

std::string pathOf(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* set = std::getenv("TRACELETDIR");
  std::string directory = set ? set : state().directory;
  if (!directory.empty() && directory.back() != '/') directory += '/';
  return directory + name;
}

// Why the system refused just now, behind what it refused.
Mox::Failure refused(const std::string& what = {}) {
  const int error = errno;
  return {what + std::strerror(error), error};
}

// A descriptor that closes itself unless it is released.
struct File {
  int descriptor = -1;
  File() = default;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { reset(-1); }
  void reset(int other) {
    if (descriptor >= 0) ::close(descriptor);
    descriptor = other;
  }
  int release() { return std::exchange(descriptor, -1); }
};

// Opens and locks the file at `path`, whatever it holds.
Mox::Result<> openFile(File& file, const std::string& path, int flags) {
  file.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | flags, 0640));
  if (file.descriptor < 0) return refused();
  struct stat status {};
  if (fstat(file.descriptor, &status) != 0) return refused();
  if (!S_ISREG(status.st_mode)) return Mox::Failure{"it is not a regular file"};
  if (status.st_uid != geteuid()) return Mox::Failure{"it belongs to another user"};
  if (flock(file.descriptor, LOCK_EX | LOCK_NB) == 0) return {};
  return errno == EWOULDBLOCK ? Mox::Failure{"another process has it open", EWOULDBLOCK} : refused();
}

// Whether the locked file has records to go on after: not a new one. Refused when it has to be set aside.
Mox::Result<bool> goesOn(const File& file, const Geometry& geometry, bool startEmpty) {
  struct stat status {};
  if (fstat(file.descriptor, &status) != 0) return refused();
  if (status.st_size == 0) return false;
  FileHeader header;
  if (pread(file.descriptor, &header, sizeof header, 0) != ssize_t{sizeof header})
    return Mox::Failure{"it is too short"};
  if (const auto sound = checkHeader(header, static_cast<std::size_t>(status.st_size)); !sound)
    return sound.failure();
  if (!(geometryOf(header) == geometry)) return Mox::Failure{"its rings have other sizes"};
  if (header.descriptorUsed > header.descriptorBytes / 4 * 3)
    return Mox::Failure{"its descriptor area is nearly full"};
  if (startEmpty) return Mox::Failure{"starting empty"};
  return true;
}

// A ring in the file at `path`.
Mox::Result<std::unique_ptr<Ring>> openRing(const std::string& path, const TraceParams& params,
                                            std::uint32_t maxRecordBytes) {
  const Geometry geometry = Geometry::of(params.levelKiB, maxRecordBytes);
  File file;
  if (const auto opened = openFile(file, path, O_CREAT); !opened) return opened.failure();
  Mox::Result<bool> old = goesOn(file, geometry, (params.options & kStartEmpty) != 0);
  if (!old) {
    const std::string aside = params.asideName.empty() ? path + ".aside" : pathOf(params.asideName);
    if (std::rename(path.c_str(), aside.c_str()) != 0) return refused("cannot be set aside: ");
    writeLine("trace file " + path + " is set aside as " + aside + ": " + old.error());
    if (const auto opened = openFile(file, path, O_CREAT | O_EXCL); !opened) return opened.failure();
    old = false;
  }
  // Blocks are taken now: a store into a sparse page of a full file system would be a fatal signal later.
  const int full = posix_fallocate(file.descriptor, 0, static_cast<off_t>(geometry.fileBytes()));
  if (full != 0) {
    if (!*old) ::unlink(path.c_str());
    return Mox::Failure{std::strerror(full), full};
  }
  auto ring = std::make_unique<Ring>(file.release(), geometry, maxRecordBytes, *old,
                                     (params.options & kLockMemory) != 0);
  if (!ring->good()) return refused("cannot be mapped: ");
  return ring;
}

}  // namespace

Ring& currentRing() {
  if (!ring_) memoryRingIs();
  return *ring_;
}

OpenRecord openRecord(CallSite& site, const Kind* kinds, std::uint16_t arguments, std::uint32_t size) {
  if (locking_) lock_.lock();
  const OpenRecord record = currentRing().open(site, kinds, arguments, size);
  if (!record.at && locking_) lock_.unlock();
  return record;
}

void closeRecord(const OpenRecord& record) {
  ring_->close(record);
  if (locking_) lock_.unlock();
}

void directoryIs(const std::string& directory) { state().directory = directory; }

std::string fileName() { return state().fileName; }

std::string initialize(const TraceParams& params) {
  const std::string pattern = pathOf(params.fileName);
  std::string path = pattern;
  const std::size_t id = path.rfind("%d");
  const bool perProcess = id != std::string::npos && id > path.rfind('/') + 1;
  if (perProcess) path.replace(id, 2, std::to_string(getpid()));
  if (path == state().fileName) return path;

  auto ring = openRing(path, params, std::clamp(params.maxRecordBytes, 64u, 4096u));
  Mox::assertionHookIs(params.recordAssertions ? recordAssertion : nullptr);
  locking_ = !params.singleThreaded;
  if (!ring) {
    writeLine("trace file " + path + " cannot be used, tracing to memory: " + ring.error());
    memoryRingIs();
    state().fileName.clear();
    return {};
  }
  ringIs(std::move(*ring));
  state().fileName = path;
  if (perProcess && params.files > 0) pruneFiles(pattern, params.files);
  return path;
}

void finalize() {
  locking_ = false;
  state().fileName.clear();
  memoryRingIs();
}

}  // namespace Tracelet
