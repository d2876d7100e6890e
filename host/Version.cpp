#include "host/Version.h"

namespace Host {

std::string versionOf(const char* program) { return std::string(program) + " " ARPSUP_VERSION; }

}  // namespace Host
