#include "Memtab/Segment.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>

#include "Memtab/Directory.h"

namespace Memtab {
namespace {

constexpr std::uint64_t kAllocationStep = 256U << 10;
constexpr std::uint64_t kReleaseStep = 1U << 20;
constexpr int kOpenTries = 3;

std::uint64_t roundedUp(std::uint64_t value, std::uint64_t unit) { return (value + unit - 1) / unit * unit; }

std::uint64_t tagsOffset(const Shape& shape, const Header& header) {
  return roundedUp(sizeof(Header) + std::uint64_t{header.ringEntries} * shape.keyWords() * 4, 64);
}

std::uint64_t slotsOffset(const Shape& shape, const Header& header) {
  return roundedUp(tagsOffset(shape, header) + header.capacity + header.tailSlots, 64);
}

std::uint64_t fileBytes(const Shape& shape, const Header& header) {
  const std::uint64_t slots = header.capacity + header.tailSlots;
  return roundedUp(slotsOffset(shape, header) + slots * shape.slotWords() * 4, 64);
}

// A tail as long as a small table cannot overflow; in a large one, an overflow of 1024 slots past the last
// home is so rare that the writer may deal with it by growing on the spot.
std::uint64_t tailFor(std::uint64_t capacity) { return capacity < kMaxTailSlots ? capacity : kMaxTailSlots; }

std::string systemError(const std::string& file, const char* action, int error) {
  return file + ": cannot " + action + ": " + std::strerror(error);
}

std::string fieldError(const std::string& file, const char* field, std::uint64_t value,
                       const std::string& allowed) {
  return file + ": " + field + " is " + std::to_string(value) + ", allowed is " + allowed;
}

// Good if the header describes a segment of this shape and file size.
Mox::Result<> checked(const std::string& file, const Header& header, const Shape& shape, std::uint64_t size) {
  if (header.magic != kMagic) return Mox::Failure{file + ": does not begin like a table segment"};
  if (header.layoutVersion != kLayoutVersion) {
    return Mox::Failure{
        fieldError(file, "layout version", header.layoutVersion, std::to_string(kLayoutVersion))};
  }
  if (header.keyBytes != shape.keyBytes) {
    return Mox::Failure{fieldError(file, "key size", header.keyBytes, std::to_string(shape.keyBytes))};
  }
  if (header.valueBytes != shape.valueBytes) {
    return Mox::Failure{fieldError(file, "value size", header.valueBytes, std::to_string(shape.valueBytes))};
  }
  if (header.typeTag != shape.typeTag) {
    return Mox::Failure{fieldError(file, "type tag", header.typeTag, std::to_string(shape.typeTag))};
  }
  if (header.capacity == 0 || header.capacity > kMaxCapacity || header.capacity % kBucketSlots != 0) {
    return Mox::Failure{fieldError(file, "capacity", header.capacity,
                                   "a multiple of 8 up to " + std::to_string(kMaxCapacity))};
  }
  if (header.tailSlots != tailFor(header.capacity)) {
    return Mox::Failure{fieldError(file, "tail", header.tailSlots, std::to_string(tailFor(header.capacity)))};
  }
  if (!std::has_single_bit(header.ringEntries) || header.ringEntries > kMaxRingEntries) {
    return Mox::Failure{fieldError(file, "ring size", header.ringEntries,
                                   "a power of two up to " + std::to_string(kMaxRingEntries))};
  }
  if (fileBytes(shape, header) != size) {
    return Mox::Failure{fieldError(file, "file size", size, std::to_string(fileBytes(shape, header)))};
  }
  return {};
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace

Segment::Segment(std::string file, int fd, void* mapping, const Header& fixed, const Shape& shape)
    : header_(static_cast<Header*>(mapping)),
      slotWords_(static_cast<std::uint32_t*>(mapping) + slotsOffset(shape, fixed) / 4),
      tagWords_(static_cast<std::uint64_t*>(mapping) + tagsOffset(shape, fixed) / 8),
      seed_(fixed.hashSeed),
      homes_(fixed.capacity / kBucketSlots),
      slots_(fixed.capacity + fixed.tailSlots),
      capacity_(fixed.capacity),
      ringWords_(static_cast<std::uint32_t*>(mapping) + sizeof(Header) / 4),
      shape_(shape),
      fixed_(fixed),
      file_(std::move(file)),
      fd_(fd),
      mappedBytes_(fileBytes(shape, fixed)) {
  struct stat status {};
  if (fstat(fd_, &status) == 0) {
    device_ = status.st_dev;
    inode_ = status.st_ino;
  }
  // Helps only where the system lets shared memory have huge pages; nothing depends on it.
  madvise(mapping, mappedBytes_, MADV_HUGEPAGE);
}

Segment::~Segment() {
  if (mappedBytes_ != 0) munmap(header_, mappedBytes_);
  close(fd_);
}

Segment::Opened Segment::open(const std::string& file, const Shape& shape, Access access) {
  const bool write = access == Access::kWrite;
  for (int tries = 0; tries < kOpenTries; ++tries) {
    Descriptor fd(
        ::open(file.c_str(), (write ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (fd.get() < 0) {
      if (errno == ENOENT) return {Outcome::kAbsent, nullptr, {}};
      if (errno == ELOOP) return {Outcome::kDamaged, nullptr, file + ": is a symbolic link"};
      if (errno == EISDIR || errno == ENXIO)
        return {Outcome::kDamaged, nullptr, file + ": is not a regular file"};
      return {Outcome::kFailed, nullptr, systemError(file, "open", errno)};
    }
    struct stat status {};
    if (fstat(fd.get(), &status) != 0) return {Outcome::kFailed, nullptr, systemError(file, "stat", errno)};
    if (!S_ISREG(status.st_mode)) return {Outcome::kDamaged, nullptr, file + ": is not a regular file"};
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
      return {Outcome::kDamaged, nullptr,
              fieldError(file, "owner", status.st_uid, "0 or " + std::to_string(geteuid()))};
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    Header header{};
    if (size < sizeof(Header) || pread(fd.get(), &header, sizeof(header), 0) != ssize_t{sizeof(header)}) {
      return {Outcome::kDamaged, nullptr, fieldError(file, "file size", size, "256 and more")};
    }
    if (const auto good = checked(file, header, shape, size); !good) {
      return {Outcome::kDamaged, nullptr, good.error()};
    }
    // A segment that is being dismantled is locked by its writer, or was; by then another one has the name.
    struct stat named {};
    if (!write && (flock(fd.get(), LOCK_SH | LOCK_NB) != 0 || stat(file.c_str(), &named) != 0 ||
                   named.st_ino != status.st_ino || named.st_dev != status.st_dev)) {
      continue;
    }
    void* const mapping =
        mmap(nullptr, size, write ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd.get(), 0);
    if (mapping == MAP_FAILED) return {Outcome::kFailed, nullptr, systemError(file, "map", errno)};
    std::shared_ptr<Segment> segment(new Segment(file, fd.release(), mapping, header, shape));
    segment->allocated_ = size;
    return {Outcome::kOpened, std::move(segment), {}};
  }
  return {Outcome::kFailed, nullptr, file + ": is locked by another process"};
}

Segment::Opened Segment::create(const std::string& file, const SegmentPlan& plan) {
  if (unlink(file.c_str()) != 0 && errno != ENOENT) static_cast<void>(setAside(file));
  Descriptor fd(::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640));
  if (fd.get() < 0) return {Outcome::kFailed, nullptr, systemError(file, "create", errno)};

  Header header{};
  header.magic = kMagic;
  header.layoutVersion = kLayoutVersion;
  header.keyBytes = plan.shape.keyBytes;
  header.valueBytes = plan.shape.valueBytes;
  header.typeTag = plan.shape.typeTag;
  header.capacity = roundedUp(plan.capacity, kBucketSlots);
  header.tailSlots = tailFor(header.capacity);
  header.ringEntries = plan.ringEntries;
  header.hashSeed = plan.hashSeed;
  header.epoch = plan.epoch;
  header.generation = plan.generation;
  header.bornAt = plan.head;
  header.ringFirst = plan.ringFirst;
  header.head = plan.head;
  header.writerPid = static_cast<std::uint32_t>(getpid());

  const std::uint64_t size = fileBytes(plan.shape, header);
  void* mapping = MAP_FAILED;
  if (ftruncate(fd.get(), static_cast<off_t>(size)) == 0 &&
      pwrite(fd.get(), &header, sizeof(header), 0) == ssize_t{sizeof(header)}) {
    mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  }
  if (mapping == MAP_FAILED) {
    const int error = errno;
    unlink(file.c_str());
    return {Outcome::kFailed, nullptr, systemError(file, "make room", error)};
  }
  return {Outcome::kOpened,
          std::shared_ptr<Segment>(new Segment(file, fd.release(), mapping, header, plan.shape)),
          {}};
}

bool Segment::allocateStep(bool& more) {
  more = allocated_ < mappedBytes_;
  if (!more) return true;
  const std::uint64_t step = std::min<std::uint64_t>(kAllocationStep, mappedBytes_ - allocated_);
  int done = 0;
  do {
    done = fallocate(fd_, 0, static_cast<off_t>(allocated_), static_cast<off_t>(step));
  } while (done != 0 && errno == EINTR);
  if (done != 0) return false;
  allocated_ += step;
  more = allocated_ < mappedBytes_;
  return true;
}

bool Segment::allocate(std::uint64_t index) {
  const std::uint64_t start = slotsOffset(shape_, fixed_);
  // A margin, so that a probe which begins at `index` ends in memory as well.
  const std::uint64_t wanted =
      std::min<std::uint64_t>(mappedBytes_, start + index * shape_.slotWords() * 4 + kAllocationStep / 2);
  bool more = true;
  while (allocated_ < wanted) {
    if (!allocateStep(more)) return false;
  }
  return true;
}

bool Segment::allocatedBeforeSlots() const { return allocated_ >= slotsOffset(shape_, fixed_); }

void Segment::bornAtIs(std::uint64_t position) { fixed_.bornAt = header_->bornAt = position; }
void Segment::ringFirstIs(std::uint64_t position) { fixed_.ringFirst = header_->ringFirst = position; }

bool Segment::releaseStep() {
  if (!releasing_) {
    releasing_ = true;
    alone_ = flock(fd_, LOCK_EX | LOCK_NB) == 0;
  }
  if (mappedBytes_ == 0) return false;
  const std::size_t rest = (mappedBytes_ - 1) / kReleaseStep * kReleaseStep;
  const std::size_t step = mappedBytes_ - rest;
  mappedBytes_ = rest;
  munmap(reinterpret_cast<std::byte*>(header_) + rest, step);
  if (alone_) {
    fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(mappedBytes_),
              static_cast<off_t>(step));
  }
  return mappedBytes_ != 0;
}

bool waitTurn(int turn) {
  if (turn < kSpins) {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
    return true;
  }
  sched_yield();
  return turn < kSpins + kYields;
}

bool readValue(const Shape& shape, const std::uint32_t* slot, std::uint32_t* value, std::uint32_t& state) {
  for (int turn = 0;; ++turn) {
    state = loadWord(slot, std::memory_order_acquire);
    if (!isLive(state)) return true;
    if ((state & kBusy) == 0) {
      const std::uint32_t* const from = slot + 1 + shape.keyWords();
      for (std::uint32_t i = 0; i < shape.valueWords(); ++i) {
        value[i] = loadWord(from + i, std::memory_order_acquire);
      }
      if (loadWord(slot, std::memory_order_relaxed) == state) return true;
    }
    if (!waitTurn(turn)) return false;
  }
}

}  // namespace Memtab
