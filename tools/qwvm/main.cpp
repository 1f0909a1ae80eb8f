// qwvm: the command-line face of the library.
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/qwvm/commands.h"

namespace {

void Usage(FILE *out) {
  std::fprintf(out,
               "usage: qwvm <command> [arguments]\n"
               "commands:\n"
               "  tour [DIR]   walk through the storage services in DIR (default: ./qwvm-tour)\n"
               "  help         this text\n");
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2 || std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0) {
    Usage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  std::string command = argv[1];
  if (command == "tour") return qwtool::RunTour(argc > 2 ? argv[2] : "qwvm-tour");
  std::fprintf(stderr, "qwvm: unknown command \"%s\"\n", command.c_str());
  Usage(stderr);
  return 2;
}
