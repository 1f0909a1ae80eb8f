// The atomic file commit without its directory sync, for a caller that
// commits several files of one directory and then syncs the directory once.
// Until that sync a power loss may undo any of the renames; the caller must
// be able to finish them at its next open (the arena's `committing` marker).
// The previous file D/N.old is removed at once: D/N.new was durable before
// the commit started, so whichever renames a power loss undoes, D/N or
// D/N.new is left, and FileAtomicRecover prefers either over D/N.old.
#pragma once

namespace qw::vm {

[[nodiscard]] bool FileAtomicCommitUnsynced(const char *directory, const char *name);

}  // namespace qw::vm
