#pragma once

#include <string>
#include <string_view>
#include <vector>

// Paths of entities ("bridging/config") and, below one, of their members ("vrf/red/ipv4/10.0.0.1").

namespace Statedb {

// Without trailing slashes, which mean nothing: "bridging/config/" is "bridging/config".
std::string_view normalPath(std::string_view path);

// A key as one part of a member path: '%' and '/' are written as "%25" and "%2F".
std::string escapedKey(std::string_view key);
std::string unescapedKey(std::string_view part);
// The parts between slashes, unescaped; an empty part is an empty key.
std::vector<std::string> memberPathParts(std::string_view memberPath);

}  // namespace Statedb
