#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "host/arpsup/Output.h"

namespace Host {

// A table of text whose rows come one after the other. The first ones decide how wide its columns are; a
// later field that is longer only moves the rest of its row.
class Table {
 public:
  explicit Table(std::vector<std::string> heading) { rows_.push_back(std::move(heading)); }

  bool row(std::vector<std::string> fields) {
    rows_.push_back(std::move(fields));
    ++count_;
    return rows_.size() < kKeptRows || flush();
  }
  bool flush() {
    if (widths_.empty()) {
      widths_.resize(rows_.front().size());
      for (const auto& row : rows_) {
        for (std::size_t i = 0; i < row.size(); ++i) widths_[i] = std::max(widths_[i], row[i].size());
      }
    }
    std::string lines;
    for (const auto& row : rows_) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) {
        line += row[i];
        line.append(std::max(widths_[i], row[i].size()) - row[i].size() + 2, ' ');
      }
      lines += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    rows_.clear();
    return print(lines);
  }
  std::size_t count() const { return count_; }

 private:
  static constexpr std::size_t kKeptRows = 1000;
  std::vector<std::vector<std::string>> rows_;
  std::vector<std::size_t> widths_;
  std::size_t count_ = 0;
};

}  // namespace Host
