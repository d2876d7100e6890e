#pragma once

#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <unistd.h>

#include <array>
#include <string>

#include "SoftForward/Programs.h"

namespace SoftForward {

// The map of that name that the programs work with.
class Map {
 public:
  Map(const Programs& programs, const std::string& name) {
    std::array<std::uint32_t, 16> maps{};
    bpf_prog_info info{};
    info.nr_map_ids = maps.size();
    info.map_ids = reinterpret_cast<std::uintptr_t>(maps.data());
    std::uint32_t size = sizeof info;
    EXPECT_EQ(bpf_obj_get_info_by_fd(programs.loaded(Program::accessIngress).descriptor, &info, &size), 0);
    for (std::uint32_t i = 0; i < info.nr_map_ids; ++i) {
      bpf_map_info map{};
      size = sizeof map;
      descriptor_ = bpf_map_get_fd_by_id(maps.at(i));
      if (bpf_obj_get_info_by_fd(descriptor_, &map, &size) == 0 && map.name == name) return;
      close(descriptor_);
    }
    ADD_FAILURE() << "there is no map " << name;
  }
  Map(const Map&) = delete;
  Map& operator=(const Map&) = delete;
  ~Map() { close(descriptor_); }

  int descriptor() const { return descriptor_; }

  // Whatever the map has for the key; the default when it has nothing.
  template <class Value, class Key>
  Value at(const Key& key) const {
    Value value{};
    bpf_map_lookup_elem(descriptor_, &key, &value);
    return value;
  }

 private:
  int descriptor_ = -1;
};

}  // namespace SoftForward
