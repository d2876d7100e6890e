#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "Mox/Result.h"

// JSON text that comes from outside: bounded in depth, and refused with a reason that a person can use.

namespace Host {

inline constexpr unsigned kMaxJsonDepth = 32;

// Whether brackets outside of strings nest deeper than that. A cheap look at the text, so that nobody's
// recursion over the parsed value is ever deep; comments may make it see too much, never too little.
bool nestsTooDeep(std::string_view text);

// One line; nothing in the value can make this fail, nor reach a terminal that obeys it.
std::string textOf(const nlohmann::ordered_json& value);

enum class Comments { refused, allowed };

// Refuses, and says what and where ("line 3, column 7: ..."), text that is not exactly one JSON value, nests
// too deep or names a key of one object twice.
Mox::Result<nlohmann::json> parseJson(std::string_view text, Comments comments);

// The whole of a regular file or pipe of at most `maxBytes`; "-" is standard input when `allowStdin`. A
// refusal begins with the file's name.
Mox::Result<std::string> readFile(const std::string& file, std::size_t maxBytes, bool allowStdin);

}  // namespace Host
