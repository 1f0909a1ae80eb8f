// The per-thread message context: the source position and level that the
// next error or message of this thread reports.
#pragma once

namespace qw {

struct MessageContext {
  const char *file = "";
  int line = 0;
  int level = 4;
};

MessageContext &CurrentMessageContext();

}  // namespace qw
