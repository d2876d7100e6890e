#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Mox/Result.h"

namespace Memtab {

// Where the tables of one run directory live: files of the shared-memory file system whose names begin with a
// prefix of their own, so that several instances on a machine do not meet. For the table
// "bridging/status.fdb" under the prefix P:
//
//   | file                                      | what                                                |
//   |-------------------------------------------|-----------------------------------------------------|
//   | P:bridging+status.fdb                     | the segment                                         |
//   | P:bridging+status.fdb.bell                | doorbell: one byte, rewritten when there is news;   |
//   |                                           | also the file that the writer locks                 |
//   | P:bridging+status.fdb.next                | the segment that a growing table is moving to       |
//   | P:bridging+status.fdb.damaged-<pid>-<sec> | what had the name and was no table of ours          |
//
// Letters, digits, '.', '-' and '_' stand for themselves, '/' is '+', every other byte is %XX. Value type.
class Directory {
 public:
  // Throws std::invalid_argument if the prefix is empty.
  explicit Directory(std::string_view prefix);

  // The directory of an instance's run directory: the same for the same path, whichever process asks.
  static Directory forRunDir(std::string_view runDir);

  // Full file name of the table's segment. A leading or trailing slash of `table` means nothing. Throws
  // std::invalid_argument if the path is empty, too long for a file name, or reads like one of the side files
  // above.
  std::string segmentFile(std::string_view table) const;
  static std::string bellFile(const std::string& segmentFile) { return segmentFile + ".bell"; }
  static std::string nextFile(const std::string& segmentFile) { return segmentFile + ".next"; }

  // Paths of the tables that exist, sorted.
  std::vector<std::string> tables() const;
  // Full file names of what was set aside as damaged, sorted.
  std::vector<std::string> damaged() const;

  // Removes a table's files, whether or not a writer has it open; readers see it go. Damaged segments stay.
  void remove(std::string_view table) const;
  // Removes every file with this prefix.
  void removeAll() const;

  const std::string& prefix() const { return prefix_; }

 private:
  std::vector<std::string> files() const;  // names without folder and prefix

  std::string prefix_;
};

// Tells whoever maps this segment file to look at its name again, as far as the file is large enough to say
// so.
void retireSegmentFile(const std::string& file);

// Gives whatever has this name, be it a folder, the name ".damaged-<pid>-<sec>", and removes what had been
// set aside from under the name before. Returns the full new name.
Mox::Result<std::string> setAside(const std::string& file);

}  // namespace Memtab
