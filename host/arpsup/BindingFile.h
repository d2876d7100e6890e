#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "host/Bindings.h"

namespace Host {

// A file of remote bindings, read as a whole. Its first character that is not a blank says what it is:
//
//   {      JSON lines: {"vlan": 10, "ip": "10.0.0.1", "mac": "02:00:00:00:00:01", "localMultihomed": false,
//          "router": false}; the last two keys may be left out
//   other  CSV: vlan,ip,mac[,localMultihomed[,router]] (true, false, 1, 0 or nothing); a first line that begins with
//          "vlan" is a heading; lines that begin with '#' are comments
//
// Empty lines mean nothing in either.
struct BindingFile {
  struct BadLine {
    std::size_t number;  // from 1
    std::string problem;
  };
  static constexpr std::size_t kKeptBadLines = 20;

  std::vector<Binding> bindings;  // of the good lines, in their order
  std::vector<BadLine> badLines;  // the first ones
  std::size_t badCount = 0;       // all
};

BindingFile parseBindingFile(std::string_view text);

}  // namespace Host
