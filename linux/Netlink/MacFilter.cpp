#include "Netlink/MacFilter.h"

#include <arpa/inet.h>
#include <linux/bpf.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace Netlink {

// Written here and read by the program at any moment: each word by itself.
struct MacFilter::Shared {
  std::atomic<std::uint32_t> closed;
  std::atomic<std::uint32_t> ports[kPorts];  // the full ones, by their index modulo kPorts
  std::atomic<std::uint8_t> known[1U << (kHashBits - 3)];
};

namespace {

constexpr std::uint32_t kMix = 0x9E3779B1;
constexpr std::int32_t kPass = 0x7FFFFFFF;

// Where things are in a notification: the kernel writes the station first of all attributes.
constexpr std::int32_t kType = offsetof(nlmsghdr, nlmsg_type);
constexpr std::int32_t kEntry = NLMSG_HDRLEN;
constexpr std::int32_t kFirst = kEntry + static_cast<std::int32_t>(NLMSG_ALIGN(sizeof(ndmsg)));
constexpr std::int32_t kStation = kFirst + NLA_HDRLEN;

long bpf(int command, bpf_attr& attributes) {
  return syscall(SYS_bpf, command, &attributes, sizeof attributes);
}

// A program as it is written down: jumps name what they lead to.
class Assembler {
 public:
  enum Label : std::uint8_t { pass, drop, isKnown, kLabels };

  void add(std::uint8_t code, int to, int from, std::int16_t offset, std::int32_t value) {
    bpf_insn instruction{};
    instruction.code = code;
    instruction.dst_reg = static_cast<std::uint8_t>(to & 0xF);
    instruction.src_reg = static_cast<std::uint8_t>(from & 0xF);
    instruction.off = offset;
    instruction.imm = value;
    code_.push_back(instruction);
  }
  // Into register 0, from the message, in network order; past its end: dropped.
  void load(std::uint8_t size, std::int32_t at) { add(BPF_LD | BPF_ABS | size, 0, 0, 0, at); }
  void move(int to, int from) { add(BPF_ALU64 | BPF_MOV | BPF_X, to, from, 0, 0); }
  void apply(std::uint8_t operation, int to, std::int32_t value) {
    add(BPF_ALU | operation | BPF_K, to, 0, 0, value);
  }
  void applyTo(std::uint8_t operation, int to, int from) {
    add(BPF_ALU64 | operation | BPF_X, to, from, 0, 0);
  }
  void jump(std::uint8_t condition, int what, std::int32_t value, Label to) {
    jumps_.emplace_back(code_.size(), to);
    add(BPF_JMP | condition | BPF_K, what, 0, 0, value);
  }
  void jumpTo(std::uint8_t condition, int what, int other, Label to) {
    jumps_.emplace_back(code_.size(), to);
    add(BPF_JMP | condition | BPF_X, what, other, 0, 0);
  }
  void here(Label label) { places_[label] = code_.size(); }
  void end(std::int32_t value) {
    add(BPF_ALU64 | BPF_MOV | BPF_K, 0, 0, 0, value);
    add(BPF_JMP | BPF_EXIT, 0, 0, 0, 0);
  }
  std::span<const bpf_insn> done() {
    for (const auto& [at, to] : jumps_) code_[at].off = static_cast<std::int16_t>(places_[to] - at - 1);
    return code_;
  }

 private:
  std::vector<bpf_insn> code_;
  std::vector<std::pair<std::size_t, Label>> jumps_;
  std::size_t places_[kLabels] = {};
};

std::uint32_t hashOf(const Lanix::EthAddr& station) {
  const auto bytes = station.bytes();
  const auto byte = [&](std::size_t at) { return static_cast<std::uint32_t>(bytes[at]); };
  const std::uint32_t low = byte(2) << 24 | byte(3) << 16 | byte(4) << 8 | byte(5);
  return ((byte(0) << 8 | byte(1)) * kMix ^ low) * kMix >> (32 - MacFilter::kHashBits);
}

}  // namespace

MacFilter::MacFilter() : good_(load()) {}

MacFilter::~MacFilter() {
  if (shared_) munmap(shared_, sizeof(Shared));
  for (const int descriptor : {program_, map_})
    if (descriptor >= 0) close(descriptor);
}

Mox::Result<> MacFilter::load() {
  const auto failed = [](const char* doing) {
    const int number = errno;
    return Mox::Failure{std::string(doing) + ": " + std::strerror(number), number};
  };
  bpf_attr map{};
  map.map_type = BPF_MAP_TYPE_ARRAY;
  map.key_size = sizeof(std::uint32_t);
  map.value_size = sizeof(Shared);
  map.max_entries = 1;
  map.map_flags = BPF_F_MMAPABLE;
  map_ = static_cast<int>(bpf(BPF_MAP_CREATE, map));
  if (map_ < 0) return failed("making the map");
  void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, map_, 0);
  if (memory == MAP_FAILED) return failed("mapping the map");
  shared_ = static_cast<Shared*>(memory);

  using enum Assembler::Label;
  constexpr std::uint8_t kByte = BPF_B, kHalf = BPF_H, kWord = BPF_W;
  Assembler code;
  code.move(BPF_REG_6, BPF_REG_1);
  code.load(kByte, kEntry + offsetof(ndmsg, ndm_family));
  code.jump(BPF_JNE, BPF_REG_0, AF_BRIDGE, drop);
  code.add(BPF_LD | BPF_DW | BPF_IMM, BPF_REG_8, BPF_PSEUDO_MAP_VALUE, 0, map_);
  code.add(0, 0, 0, 0, 0);
  code.add(BPF_LDX | BPF_MEM | BPF_W, BPF_REG_7, BPF_REG_8, offsetof(Shared, closed), 0);
  code.jump(BPF_JEQ, BPF_REG_7, 0, pass);
  code.load(kHalf, kFirst + static_cast<std::int32_t>(offsetof(nlattr, nla_type)));
  code.jump(BPF_JNE, BPF_REG_0, htons(NDA_LLADDR), pass);
  code.load(kHalf, kType);
  code.jump(BPF_JEQ, BPF_REG_0, htons(RTM_DELNEIGH), isKnown);
  code.jump(BPF_JNE, BPF_REG_0, htons(RTM_NEWNEIGH), pass);
  // Learned, and on a full port?
  static_assert(NUD_PERMANENT < 0x100 && NUD_NOARP < 0x100, "in the lower byte of the state");
  code.load(kByte, kEntry + offsetof(ndmsg, ndm_state));
  code.jump(BPF_JSET, BPF_REG_0, NUD_PERMANENT | NUD_NOARP, pass);
  code.load(kByte, kEntry + offsetof(ndmsg, ndm_flags));
  code.jump(BPF_JSET, BPF_REG_0, NTF_EXT_LEARNED, pass);
  code.load(kWord, kEntry + offsetof(ndmsg, ndm_ifindex));
  code.add(BPF_ALU | BPF_END | BPF_TO_BE, BPF_REG_0, 0, 0, 32);
  code.move(BPF_REG_7, BPF_REG_0);
  code.apply(BPF_AND, BPF_REG_0, kPorts - 1);
  code.apply(BPF_LSH, BPF_REG_0, 2);
  code.applyTo(BPF_ADD, BPF_REG_0, BPF_REG_8);
  code.add(BPF_LDX | BPF_MEM | BPF_W, BPF_REG_0, BPF_REG_0, offsetof(Shared, ports), 0);
  code.jumpTo(BPF_JNE, BPF_REG_0, BPF_REG_7, pass);
  // Known?
  code.here(isKnown);
  code.load(kHalf, kStation);
  code.move(BPF_REG_7, BPF_REG_0);
  code.apply(BPF_MUL, BPF_REG_7, static_cast<std::int32_t>(kMix));
  code.load(kWord, kStation + 2);
  code.applyTo(BPF_XOR, BPF_REG_7, BPF_REG_0);
  code.apply(BPF_MUL, BPF_REG_7, static_cast<std::int32_t>(kMix));
  code.apply(BPF_RSH, BPF_REG_7, 32 - kHashBits);
  code.move(BPF_REG_1, BPF_REG_7);
  code.apply(BPF_RSH, BPF_REG_7, 3);
  code.applyTo(BPF_ADD, BPF_REG_8, BPF_REG_7);
  code.add(BPF_LDX | BPF_MEM | BPF_B, BPF_REG_0, BPF_REG_8, offsetof(Shared, known), 0);
  code.apply(BPF_AND, BPF_REG_1, 7);
  code.applyTo(BPF_RSH, BPF_REG_0, BPF_REG_1);
  code.jump(BPF_JSET, BPF_REG_0, 1, pass);
  code.here(drop);
  code.end(0);
  code.here(pass);
  code.end(kPass);

  const auto instructions = code.done();
  bpf_attr program{};
  program.prog_type = BPF_PROG_TYPE_SOCKET_FILTER;
  program.insns = reinterpret_cast<std::uint64_t>(instructions.data());
  program.insn_cnt = static_cast<std::uint32_t>(instructions.size());
  program.license = reinterpret_cast<std::uint64_t>("MIT");
  program_ = static_cast<int>(bpf(BPF_PROG_LOAD, program));
  return program_ < 0 ? Mox::Result<>(failed("loading the program")) : Mox::Result<>();
}

void MacFilter::know(const Lanix::EthAddr& station) {
  if (!shared_) return;
  const std::uint32_t hash = hashOf(station);
  shared_->known[hash >> 3].fetch_or(static_cast<std::uint8_t>(1U << (hash & 7)), std::memory_order_relaxed);
}

void MacFilter::fullIs(IfIndex port, bool full) {
  if (!shared_) return;
  auto& slot = shared_->ports[port % kPorts];
  const bool was = slot == port;
  if (was == full || (full && slot != 0)) return;
  slot = full ? port : 0;
  full ? ++full_ : --full_;
  openIs(open_);
}

void MacFilter::openIs(bool open) {
  open_ = open;
  if (shared_) shared_->closed = !open && full_ != 0;
}

}  // namespace Netlink
