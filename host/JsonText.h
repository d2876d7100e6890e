#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

// JSON text that comes from outside: bounded in depth, and refused with a reason that a person can use.

namespace Host {

inline constexpr unsigned kMaxJsonDepth = 32;

// Whether brackets outside of strings nest deeper than that. A cheap look at the text, so that nobody's
// recursion over the parsed value is ever deep; comments may make it see too much, never too little.
bool nestsTooDeep(std::string_view text);

enum class Comments { refused, allowed };

// Nothing, and `error` says what and where ("line 3, column 7: ..."), for text that is not exactly one JSON
// value, nests too deep or names a key of one object twice.
std::optional<nlohmann::json> parseJson(std::string_view text, Comments comments, std::string& error);

// The whole of a regular file or pipe of at most `maxBytes`; "-" is standard input when `allowStdin`.
std::optional<std::string> readFile(const std::string& file, std::size_t maxBytes, bool allowStdin,
                                    std::string& error);

}  // namespace Host
