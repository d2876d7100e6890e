#pragma once

#include <string>

namespace Tracelet {

// Of the files named like `path` with a number in place of its last "%d", keeps the `keep` newest and those
// that a living process traces to; removes the others.
void pruneFiles(const std::string& path, int keep);

}  // namespace Tracelet
