#include "Statedb/LmdbCheck.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace Statedb {

namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::uint32_t kMagic = 0xBEEFC0DE;
constexpr std::uint32_t kFormatVersion = 1;
constexpr std::size_t kPageHeader = 16;
constexpr std::size_t kNodeHeader = 8;
constexpr std::size_t kMetaSize = 136;
constexpr std::uint64_t kNoPage = ~std::uint64_t{0};
// No store ever commits that often. A number near the end would wrap, and an older header count as the newer.
constexpr std::uint64_t kLastTransaction = std::uint64_t{1} << 62;
constexpr unsigned kMaxDepth = 24;
enum PageFlag : std::uint16_t { kBranch = 0x01, kLeaf = 0x02, kOverflow = 0x04, kMeta = 0x08 };
enum NodeFlag : std::uint16_t { kBigData = 0x01 };

template <class T>
T read(Bytes bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

struct Tree {
  std::uint16_t flags;
  std::uint16_t depth;
  std::uint64_t root;
};

struct Meta {
  std::uint32_t pageSize;
  Tree free;
  Tree main;
  std::uint64_t lastPage;
  std::uint64_t transaction;
};

// After the page header: magic, version, address, map size, two trees of 48 bytes, last page, transaction.
std::optional<Meta> metaOf(Bytes page) {
  if (page.size() < kPageHeader + kMetaSize || (read<std::uint16_t>(page, 10) & kMeta) == 0)
    return std::nullopt;
  const Bytes meta = page.subspan(kPageHeader);
  if (read<std::uint32_t>(meta, 0) != kMagic || read<std::uint32_t>(meta, 4) != kFormatVersion)
    return std::nullopt;
  const auto tree = [&](std::size_t at) {
    return Tree{read<std::uint16_t>(meta, at + 4), read<std::uint16_t>(meta, at + 6),
                read<std::uint64_t>(meta, at + 40)};
  };
  return Meta{read<std::uint32_t>(meta, 24), tree(24), tree(72), read<std::uint64_t>(meta, 120),
              read<std::uint64_t>(meta, 128)};
}

class Checker {
 public:
  explicit Checker(Bytes file) : file_(file) {}

  Mox::Result<> check() {
    const std::optional<Meta> first = metaOf(file_);
    if (!first) return Mox::Failure{"it has no valid header"};
    pageSize_ = first->pageSize;
    if (pageSize_ < 512 || pageSize_ > 32768 || (pageSize_ & (pageSize_ - 1)) != 0)
      return Mox::Failure{"its page size is invalid"};
    if (file_.size() < 2 * pageSize_) return Mox::Failure{"it is cut short"};
    const std::optional<Meta> second = metaOf(file_.subspan(pageSize_));
    if (!second || second->pageSize != first->pageSize) return Mox::Failure{"its second header is invalid"};
    const Meta& meta = first->transaction < second->transaction ? *second : *first;
    if (meta.transaction > kLastTransaction) return Mox::Failure{"its transaction number is out of range"};
    transaction_ = meta.transaction;
    if (meta.lastPage == 0 || meta.lastPage >= file_.size() / pageSize_)
      return Mox::Failure{"it is cut short"};
    if (meta.free.flags % 0x40 != 0x08 || meta.main.flags % 0x40 != 0)
      return Mox::Failure{"its header has invalid flags"};
    used_.resize(meta.lastPage + 1);
    used_[0] = used_[1] = true;

    integerKeys_ = true;
    if (!tree(meta.free)) return Mox::Failure{problem_};
    integerKeys_ = false;
    if (!tree(meta.main)) return Mox::Failure{problem_};
    for (const Bytes list : freeLists_) {
      if (!freeList(list)) return Mox::Failure{problem_};
    }
    return {};
  }

 private:
  bool bad(const char* what) {
    problem_ = what;
    return false;
  }
  bool use(std::uint64_t page, std::uint64_t count) {
    if (page >= used_.size() || count == 0 || count > used_.size() - page)
      return bad("a page number is out of range");
    for (std::uint64_t i = page; i < page + count; ++i) {
      if (used_[i]) return bad("a page is used twice");
      used_[i] = true;
    }
    return true;
  }

  bool tree(const Tree& tree) {
    lastKey_.reset();
    if (tree.root == kNoPage) return tree.depth == 0 || bad("an empty tree has a depth");
    if (tree.depth == 0 || tree.depth > kMaxDepth) return bad("a tree's depth is invalid");
    return page(tree.root, tree.depth);
  }

  // `levels` are left, this one included: the last is the leaf.
  bool page(std::uint64_t number, unsigned levels) {
    if (!use(number, 1)) return false;
    const Bytes page = file_.subspan(number * pageSize_, pageSize_);
    if (read<std::uint64_t>(page, 0) != number) return bad("a page has another page's number");
    const bool branch = levels > 1;
    if (read<std::uint16_t>(page, 10) != (branch ? kBranch : kLeaf))
      return bad("a page is of the wrong kind");
    const std::size_t lower = read<std::uint16_t>(page, 12);
    const std::size_t upper = read<std::uint16_t>(page, 14);
    if (lower < kPageHeader || lower > upper || upper > pageSize_ || lower % 2 != 0)
      return bad("a page is malformed");
    const std::size_t nodes = (lower - kPageHeader) / 2;
    if (nodes < (branch && !integerKeys_ ? 2u : 1u)) return bad("a page is empty");
    std::size_t filled = 0;
    for (std::size_t i = 0; i < nodes; ++i) {
      const std::size_t at = read<std::uint16_t>(page, kPageHeader + 2 * i);
      if (at < upper || at + kNodeHeader > pageSize_ || at % 2 != 0) return bad("a node is outside its page");
      const Bytes node = page.subspan(at);
      std::size_t size = 0;
      if (!(branch ? branchNode(node, i, levels, size) : leafNode(node, size))) return false;
      filled += size + size % 2;
    }
    // Nodes do not overlap when together they fill just what is not free.
    return filled == pageSize_ - upper || bad("nodes of a page overlap");
  }

  // `size` becomes the node's size in its page.
  bool branchNode(Bytes node, std::size_t index, unsigned levels, std::size_t& size) {
    const std::size_t keySize = read<std::uint16_t>(node, 6);
    size = kNodeHeader + keySize;
    if (size > node.size()) return bad("a node runs over its page");
    const std::uint64_t child = read<std::uint16_t>(node, 0) |
                                static_cast<std::uint64_t>(read<std::uint16_t>(node, 2)) << 16 |
                                static_cast<std::uint64_t>(read<std::uint16_t>(node, 4)) << 32;
    // The first key of a branch is not used, LMDB leaves anything there.
    const Bytes key = node.subspan(kNodeHeader, keySize);
    if (index > 0 && !behindLast(key, true)) return false;
    return page(child, levels - 1);
  }

  bool leafNode(Bytes node, std::size_t& size) {
    const std::uint64_t dataSize =
        read<std::uint16_t>(node, 0) | static_cast<std::uint64_t>(read<std::uint16_t>(node, 2)) << 16;
    const std::uint16_t flags = read<std::uint16_t>(node, 4);
    const std::size_t keySize = read<std::uint16_t>(node, 6);
    if (flags != 0 && flags != kBigData) return bad("a node has invalid flags");
    size = kNodeHeader + keySize + (flags == kBigData ? sizeof(std::uint64_t) : dataSize);
    if (size > node.size()) return bad("a node runs over its page");
    const Bytes key = node.subspan(kNodeHeader, keySize);
    if (!behindLast(key, false)) return false;
    Bytes data = node.subspan(kNodeHeader + keySize, size - kNodeHeader - keySize);
    if (flags == kBigData && !overflow(read<std::uint64_t>(data, 0), dataSize, data)) return false;
    if (integerKeys_) freeLists_.push_back(data);
    return true;
  }

  bool overflow(std::uint64_t number, std::uint64_t dataSize, Bytes& data) {
    if (number >= used_.size()) return bad("a page number is out of range");
    const Bytes page = file_.subspan(number * pageSize_, pageSize_);
    const std::uint64_t pages = read<std::uint32_t>(page, 12);
    if (read<std::uint64_t>(page, 0) != number || (read<std::uint16_t>(page, 10) & kOverflow) == 0) {
      return bad("an overflow page is malformed");
    }
    if (!use(number, pages)) return false;
    if (dataSize > pages * pageSize_ - kPageHeader) return bad("a value runs over its pages");
    data = file_.subspan(number * pageSize_ + kPageHeader, dataSize);
    return true;
  }

  // Leaf keys ascend strictly; a branch key is a lower bound of the leaf behind it.
  bool behindLast(Bytes key, bool bound) {
    if (key.empty() || (integerKeys_ && key.size() != sizeof(std::uint64_t)))
      return bad("a key is malformed");
    // The free list's keys are the transactions that freed the pages.
    if (integerKeys_ && read<std::uint64_t>(key, 0) > transaction_) return bad("a key is out of range");
    if (lastKey_) {
      const bool after = integerKeys_ ? read<std::uint64_t>(key, 0) > read<std::uint64_t>(*lastKey_, 0)
                                      : text(key) > text(*lastKey_);
      if (!after && !(lastIsBound_ && text(key) == text(*lastKey_))) return bad("keys are out of order");
    }
    lastKey_ = key;
    lastIsBound_ = bound;
    return true;
  }
  static std::string_view text(Bytes bytes) {
    return {static_cast<const char*>(static_cast<const void*>(bytes.data())), bytes.size()};
  }

  // A count and that many page numbers in descending order.
  bool freeList(Bytes list) {
    if (list.size() < sizeof(std::uint64_t)) return bad("the free list is malformed");
    const std::uint64_t count = read<std::uint64_t>(list, 0);
    if (count > list.size() / sizeof(std::uint64_t) - 1) return bad("the free list is malformed");
    std::uint64_t last = kNoPage;
    for (std::uint64_t i = 1; i <= count; ++i) {
      const std::uint64_t number = read<std::uint64_t>(list, i * sizeof(std::uint64_t));
      if (number >= last) return bad("the free list is malformed");
      if (!use(number, 1)) return false;
      last = number;
    }
    return true;
  }

  const Bytes file_;
  std::size_t pageSize_ = 0;
  std::uint64_t transaction_ = 0;
  bool integerKeys_ = false;
  bool lastIsBound_ = false;
  std::optional<Bytes> lastKey_;
  std::vector<bool> used_;
  std::vector<Bytes> freeLists_;
  const char* problem_ = "";
};

}  // namespace

Mox::Result<> checkLmdbFile(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode))
    return Mox::Failure{"it is not a regular file"};
  if (status.st_size == 0) return Mox::Failure{"it is empty"};
  const auto size = static_cast<std::size_t>(status.st_size);
  void* const mapped = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
  if (mapped == MAP_FAILED) return Mox::Failure{"it cannot be mapped"};
  auto sound = Checker(Bytes(static_cast<const unsigned char*>(mapped), size)).check();
  munmap(mapped, size);
  return sound;
}

}  // namespace Statedb
