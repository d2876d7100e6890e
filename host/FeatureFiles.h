#pragma once

#include <functional>
#include <optional>
#include <string>

namespace Host {

// What the file of a group of feature switches says about one of them. The file lies in `directory` under the
// group's name and holds an object of switches, true or false, with comments allowed:
//
//   ArpSuppression.json:  {"LocalMultihomeSelectiveArpInstall": false}
//
// Nothing, so that the switch keeps its default, when there is no such file or switch, and, with a report,
// when the file cannot be read, is damaged, or has another kind of value there. Other keys are not looked at:
// a group may hold switches of other programs.
std::optional<bool> featureSwitch(const std::string& directory, const std::string& group,
                                  const std::string& name,
                                  const std::function<void(const std::string& message)>& report);

// ARPSUP_FEATURE_DIR of the environment where it is set, otherwise what is configured; "": there are none.
std::string featureDirectory(const std::string& configured);

}  // namespace Host
