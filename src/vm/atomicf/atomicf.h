// The atomic file commit without its directory sync, for a caller that
// commits several files of one directory and then syncs the directory once.
// Until that sync a power loss may undo any of the renames; the caller must
// be able to finish them at its next open (the arena's `committing` marker).
// With `asides`, the previous file D/N.old is not removed but its path
// appended there, for the caller to remove once the renames are durable
// (FileAtomicRecover never prefers D/N.old over D/N, so a leftover is
// harmless, and the next commit of N replaces it).
#pragma once

#include <string>
#include <vector>

namespace qw::vm {

[[nodiscard]] bool FileAtomicCommitUnsynced(const char *directory, const char *name,
                                            std::vector<std::string> *asides = nullptr);

}  // namespace qw::vm
