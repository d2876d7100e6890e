#pragma once

#include <string>

namespace Host {

// What `--version` of a program prints: "arpsup 1.2.3".
std::string versionOf(const char* program);

}  // namespace Host
