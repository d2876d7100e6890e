#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

// Files of feature switches. The file of a group lies in one folder under the group's name and holds an object
// of switches, true or false, with comments allowed:
//
//   ArpSuppression.json:  {"LocalMultihomeSelectiveArpInstall": false}
//
// A group without a file, and a switch that its file does not name, has its default.

namespace Host {

// ARPSUP_FEATURE_DIR of the environment where it is set, otherwise what is configured; "": there are none.
std::string featureDirectory(const std::string& configured);

// What is wrong with the files of the groups that the agents know, a line each: a file that cannot be read or
// is damaged, a switch that its group does not have, a value that is not true or false. Other files are other
// programs'.
std::vector<std::string> checkFeatureFiles(const std::string& directory);

// What the file of the group says about the switch. Nothing, so that the switch keeps its default, when there
// is no such file or switch, and, with a report, when what was checked at the start is wrong now.
std::optional<bool> featureSwitch(const std::string& directory, const std::string& group,
                                  const std::string& name,
                                  const std::function<void(const std::string& message)>& report);

}  // namespace Host
