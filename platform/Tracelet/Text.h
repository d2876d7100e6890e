#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Tracelet {

// "2026-01-31T12:00:00.123456Z", of nanoseconds since 1970 in UTC.
std::string timeText(std::uint64_t nanoseconds);

// Appends `text` with its control characters as \xNN.
void appendPrintable(std::string& to, std::string_view text);

}  // namespace Tracelet
