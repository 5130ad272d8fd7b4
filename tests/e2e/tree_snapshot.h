// What a run wrote on the file system: listings of directory trees taken
// before and after, compared outside the places the host may write to.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace e2e {

// Every path below the roots with its type, size and modification time. Mount
// points below a root (the machine's entries the sandbox binds into its /tmp)
// and the `skipped` paths are left out with everything below them.
using Tree = std::map<std::string, std::string>;
Tree snapshot(std::vector<std::string> const& roots, std::vector<std::string> const& skipped);

// The paths that appeared ("+ "), vanished ("- ") or changed ("~ ") between
// the two listings, except those at or below one of `allowed`; one per line.
std::string changesOutside(Tree const& before, Tree const& after, std::vector<std::string> const& allowed);

}  // namespace e2e
