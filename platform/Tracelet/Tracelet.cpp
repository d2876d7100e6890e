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

std::string lastError() { return std::strerror(errno); }

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

// Opens and locks the file at `path`, whatever it holds; the reason why not, or "".
std::string openFile(File& file, const std::string& path, int flags) {
  file.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | flags, 0640));
  if (file.descriptor < 0) return lastError();
  struct stat status {};
  if (fstat(file.descriptor, &status) != 0) return lastError();
  if (!S_ISREG(status.st_mode)) return "it is not a regular file";
  if (status.st_uid != geteuid()) return "it belongs to another user";
  if (flock(file.descriptor, LOCK_EX | LOCK_NB) != 0) {
    return errno == EWOULDBLOCK ? "another process has it open" : lastError();
  }
  return {};
}

// Why the locked file cannot be gone on with; "" when it can; nothing when it is new.
std::optional<std::string> whyNotGoOn(const File& file, const Geometry& geometry, bool startEmpty) {
  struct stat status {};
  if (fstat(file.descriptor, &status) != 0) return lastError();
  if (status.st_size == 0) return std::nullopt;
  FileHeader header;
  if (pread(file.descriptor, &header, sizeof header, 0) != ssize_t{sizeof header}) return "it is too short";
  const std::string damage = checkHeader(header, static_cast<std::size_t>(status.st_size));
  if (!damage.empty()) return damage;
  if (!(geometryOf(header) == geometry)) return "its rings have other sizes";
  if (header.descriptorUsed > header.descriptorBytes / 4 * 3) return "its descriptor area is nearly full";
  if (startEmpty) return "starting empty";
  return "";
}

// A ring in the file at `path`, or the reason why there is none.
std::string openRing(std::unique_ptr<Ring>& ring, const std::string& path, const TraceParams& params,
                     std::uint32_t maxRecordBytes) {
  const Geometry geometry = Geometry::of(params.levelKiB, maxRecordBytes);
  File file;
  std::string error = openFile(file, path, O_CREAT);
  if (!error.empty()) return error;
  auto reason = whyNotGoOn(file, geometry, (params.options & kStartEmpty) != 0);
  if (reason && !reason->empty()) {
    const std::string aside = params.asideName.empty() ? path + ".aside" : pathOf(params.asideName);
    if (std::rename(path.c_str(), aside.c_str()) != 0) return "cannot be set aside: " + lastError();
    writeLine("trace file " + path + " is set aside as " + aside + ": " + *reason);
    error = openFile(file, path, O_CREAT | O_EXCL);
    if (!error.empty()) return error;
    reason.reset();
  }
  // Blocks are taken now: a store into a sparse page of a full file system would be a fatal signal later.
  const int full = posix_fallocate(file.descriptor, 0, static_cast<off_t>(geometry.fileBytes()));
  if (full != 0) {
    if (!reason) ::unlink(path.c_str());
    return std::strerror(full);
  }
  auto made = std::make_unique<Ring>(file.release(), geometry, maxRecordBytes, reason.has_value(),
                                     (params.options & kLockMemory) != 0);
  if (!made->good()) return "cannot be mapped: " + lastError();
  ring = std::move(made);
  return {};
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

  std::unique_ptr<Ring> ring;
  const std::uint32_t maxRecordBytes = std::clamp(params.maxRecordBytes, 64u, 4096u);
  const std::string error = openRing(ring, path, params, maxRecordBytes);
  Mox::assertionHookIs(params.recordAssertions ? recordAssertion : nullptr);
  locking_ = !params.singleThreaded;
  if (!ring) {
    writeLine("trace file " + path + " cannot be used, tracing to memory: " + error);
    memoryRingIs();
    state().fileName.clear();
    return {};
  }
  ringIs(std::move(ring));
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
