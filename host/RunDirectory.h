#pragma once

#include <memory>
#include <string>

#include "host/LockFile.h"

namespace Host {

// The directory of one agent-host: its lock, control socket, state store and trace rings.
//
// Made with mode 0755 when it is not there; its parent must be. While this object lives no other process can
// have it; the lock goes with the process, however that ends.
class RunDirectory {
 public:
  static Mox::Result<std::unique_ptr<RunDirectory>> open(const std::string& path);

  const std::string& path() const { return path_; }
  // Of the state store; only root looks into it.
  std::string stateDirectory() const { return path_ + "/state"; }
  // What a process that handed over says to the next one (HandOver.h).
  std::string handOverFile() const { return stateDirectory() + "/hand-over.json"; }

 private:
  RunDirectory(std::string path, std::unique_ptr<LockFile> lock)
      : path_(std::move(path)), lock_(std::move(lock)) {}

  const std::string path_;
  const std::unique_ptr<LockFile> lock_;
};

}  // namespace Host
