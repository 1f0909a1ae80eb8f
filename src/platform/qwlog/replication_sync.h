// The sync hook of a replication log: set by the file-backed log at open,
// run by ReplicationLogSync. A host's implementation has none.
#pragma once

#include "qwvm/qwlog.h"

namespace qw {

void ReplicationLogSetSync(ReplicationLog *log, int (*sync)(void *self));

}  // namespace qw
