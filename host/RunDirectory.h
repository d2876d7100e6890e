#pragma once

#include <memory>
#include <string>

namespace Host {

// The directory of one agent-host: its lock, control socket, state store and trace rings.
//
// Made with mode 0755 when it is not there; its parent must be. While this object lives no other process can
// have it; the lock goes with the process, however that ends. Null, and `error` says why, when it cannot be
// had.
class RunDirectory {
 public:
  static std::unique_ptr<RunDirectory> open(const std::string& path, std::string& error);
  RunDirectory(const RunDirectory&) = delete;
  RunDirectory& operator=(const RunDirectory&) = delete;
  ~RunDirectory();

  const std::string& path() const { return path_; }
  // Of the state store; only root looks into it.
  std::string stateDirectory() const { return path_ + "/state"; }

 private:
  RunDirectory(std::string path, int lock) : path_(std::move(path)), lock_(lock) {}

  const std::string path_;
  const int lock_;
};

}  // namespace Host
