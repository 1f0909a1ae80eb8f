// The subcommands of the qwvm tool. Each returns the process exit status.
#pragma once

namespace qwtool {

int RunTour(const char *directory);

}  // namespace qwtool
