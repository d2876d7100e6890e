#pragma once

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Statedb/LogStore.h"

namespace LogStoreTests {

using Pairs = std::map<std::string, std::string>;

inline void eraseBelow(Pairs& pairs, std::string_view key) {
  const std::string below = std::string(key) + "/";
  std::erase_if(pairs, [&](const auto& pair) { return pair.first == key || pair.first.starts_with(below); });
}

// An entity that holds these pairs; its walk goes on behind the key that it told last.
class Held final : public Statedb::Content {
 public:
  Pairs pairs;
  std::size_t size() const override { return pairs.size(); }
  bool read(const Visitor& visit) override {
    for (auto at = told_ ? pairs.upper_bound(*told_) : pairs.begin(); at != pairs.end(); ++at) {
      told_ = at->first;
      if (!visit(at->first, at->second)) return true;
    }
    return false;
  }
  void readAgain() override { told_.reset(); }

 private:
  std::optional<std::string> told_;
};

// A journal with the entity that it is of.
class Kept {
 public:
  explicit Kept(std::unique_ptr<Statedb::Journal> journal) : journal_(std::move(journal)) {
    Statedb::Journal::Operation operation;
    Statedb::Journal::Step step{};
    while ((step = journal_->next(operation)) == Statedb::Journal::Step::operation) {
      if (operation.value) {
        held.pairs[std::string(operation.key)] = *operation.value;
      } else {
        eraseBelow(held.pairs, operation.key);
      }
    }
    if (step == Statedb::Journal::Step::damaged) held.pairs.clear();
  }
  void write(const std::string& key, const std::string& value) {
    held.pairs[key] = value;
    journal_->write(key, value);
  }
  void erase(const std::string& key) {
    eraseBelow(held.pairs, key);
    journal_->erase(key);
  }
  bool flush(Statedb::Journal::Extent extent = Statedb::Journal::Extent::everything) {
    return journal_->flush(held, extent);
  }
  bool more() { return flush(Statedb::Journal::Extent::turn); }
  Statedb::Journal& journal() { return *journal_; }
  std::string problem() const { return journal_->written().error(); }

  Held held;

 private:
  std::unique_ptr<Statedb::Journal> journal_;
};

class LogStoreTest : public testing::Test {
 protected:
  LogStoreTest() { EXPECT_NE(mkdtemp(directory_.data()), nullptr); }
  ~LogStoreTest() override {
    store_.reset();
    std::filesystem::remove_all(directory_);
  }
  // As the next process does.
  void open() {
    store_.reset();
    auto opened = Statedb::LogStore::open(
        directory_, [this](const std::string& message) { messages_.push_back(message); });
    ASSERT_EQ(opened.error(), "");
    store_ = std::move(*opened);
  }
  std::unique_ptr<Kept> journal(const std::string& path) {
    return std::make_unique<Kept>(store_->journal(path));
  }
  Pairs loaded(const std::string& path) { return journal(path)->held.pairs; }
  static std::string key(int i) { return "member/" + std::to_string(i); }

  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory_))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  void removeFiles() {
    for (const std::string& name : files()) std::filesystem::remove_all(directory_ + "/" + name);
  }
  std::string file(const std::string& path) const { return directory_ + "/" + path + ".log"; }
  std::uintmax_t size(const std::string& path) const {
    std::error_code none;
    const auto size = std::filesystem::file_size(file(path), none);
    return none ? 0 : size;
  }
  std::string contentOf(const std::string& path) const {
    std::ifstream in(file(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void contentIs(const std::string& path, const std::string& bytes) const {
    std::ofstream(file(path), std::ios::binary | std::ios::trunc) << bytes;
  }

  std::string directory_ = testing::TempDir() + "statedb-test-XXXXXX";
  std::vector<std::string> messages_;
  std::unique_ptr<Statedb::LogStore> store_;
};

}  // namespace LogStoreTests
