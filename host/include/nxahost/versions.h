// Module and package versions: dotted numbers, compared part by part.
#pragma once

#include <string>
#include <vector>

namespace nxahost {

// Whether `version` is dotted numbers: "1", "1.4", "2.10.3" (no sign, no
// empty part, at most 9 digits a part).
bool isDottedVersion(std::string const& version);

// Less than 0, 0 or more than 0 as `a` is older than, the same as or newer
// than `b`, part by part as numbers: 1.10 is newer than 1.9, and 1.0 is 1.
// Both must be dotted numbers (isDottedVersion).
int compareVersions(std::string const& a, std::string const& b);

// The newest of `versions` that are dotted numbers; empty when none is.
std::string newestVersion(std::vector<std::string> const& versions);

}  // namespace nxahost
