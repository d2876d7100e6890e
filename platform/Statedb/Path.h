#pragma once

#include <string>
#include <string_view>
#include <vector>

// Paths of entities ("bridging/config") and, below one, of their members ("vrf/red/ipv4/10.0.0.1").

namespace Statedb {

// Without trailing slashes, which mean nothing: "bridging/config/" is "bridging/config".
std::string_view normalPath(std::string_view path);

// Some state belongs to one supervisor cell of a switch. A cell's paths carry its prefix, which the process
// is told at start; "" (the default) makes them the same as everybody's: "ip/vrf/status/local".
std::string cellPath(std::string_view path);
// Without a trailing slash. Set it before the first mount.
void cellPathPrefixIs(std::string prefix);

// A key as one part of a member path: '%' and '/' are written as "%25" and "%2F".
std::string escapedKey(std::string_view key);
std::string unescapedKey(std::string_view part);
// The parts between slashes, unescaped; an empty part is an empty key.
std::vector<std::string> memberPathParts(std::string_view memberPath);

}  // namespace Statedb
