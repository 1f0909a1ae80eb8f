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
               "  tour [DIR]                        walk through the storage services in DIR\n"
               "                                    (default: ./qwvm-tour)\n"
               "  check DIR [--serial OLD NEW] [--progress]\n"
               "                                    check every store in DIR (arena, logged arena, box,\n"
               "                                    string table, or a tree of them): one line per store,\n"
               "                                    exit 1 unless all are clean; qwvm help check tells more\n"
               "  stat DIR [--json] [--serial OLD NEW]\n"
               "                                    print the statistics of every store in DIR, as text or\n"
               "                                    one JSON document; qwvm help stat tells the schema\n"
               "  copy SRC DST [--compact] [--progress]\n"
               "                                    copy the committed state of every store in SRC into the\n"
               "                                    new directory DST while writers go on; qwvm help copy\n"
               "  sfs DIR put PATH FILE | get PATH | ls [PREFIX]\n"
               "                                    use a small file store by hand\n"
               "  eval DIR add 'EXPR' VALUE | match [--weak ATOM]... ATOM... | stat\n"
               "                                    store boolean queries and match atoms against them\n"
               "  box DIR put ID FILE [--buckets N] | get ID | rm ID | stat | checkpoint | check | dump\n"
               "                                    use and inspect a box (a key/value store) by hand;\n"
               "                                    qwvm box --help tells more\n"
               "  strtable DIR [--hex] set KEY VALUE | get KEY | rm KEY | list [PREFIX] | checkpoint | stat\n"
               "                                    use and inspect a string table (byte-string keys and\n"
               "                                    values) by hand; qwvm strtable --help tells more\n"
               "  log DIR                           dump a log (DIR or DIR/log), one line per record\n"
               "  lvm DIR                           print a logged arena's state and check its log\n"
               "  sort [-r] [-S SIZE] [-T DIR] [--compress] [--parallel N] [-o OUT] [--progress] [FILE...]\n"
               "                                    sort lines as LC_ALL=C sort does; with -T the state\n"
               "                                    stays in DIR/qwvm-sort until the output is written\n"
               "  sort --resume DIR [-o OUT]        finish a sort that was stopped\n"
               "  help [CMD]                        this text, or what CMD (check, stat, copy, box, strtable) takes\n");
}

}  // namespace

int main(int argc, char **argv) {
  // `qwvm help CMD` is `qwvm CMD --help` for the commands that have more to tell.
  char helpFlag[] = "--help";
  char *helpArguments[] = {helpFlag};
  if (argc == 3 && std::strcmp(argv[1], "help") == 0) {
    const std::string topic = argv[2];
    if (topic == "check") return qwtool::RunCheck(1, helpArguments);
    if (topic == "stat") return qwtool::RunStat(1, helpArguments);
    if (topic == "copy") return qwtool::RunCopy(1, helpArguments);
    if (topic == "box") return qwtool::RunBox(1, helpArguments);
    if (topic == "strtable") return qwtool::RunStrTable(1, helpArguments);
  }
  if (argc < 2 || std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0) {
    Usage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  std::string command = argv[1];
  if (command == "tour") return qwtool::RunTour(argc > 2 ? argv[2] : "qwvm-tour");
  if (command == "check") return qwtool::RunCheck(argc - 2, argv + 2);
  if (command == "stat") return qwtool::RunStat(argc - 2, argv + 2);
  if (command == "copy") return qwtool::RunCopy(argc - 2, argv + 2);
  if (command == "dump") return qwtool::RunDump(argc - 2, argv + 2);
  if (command == "load") return qwtool::RunLoad(argc - 2, argv + 2);
  if (command == "sfs") return qwtool::RunSfs(argc - 2, argv + 2);
  if (command == "eval") return qwtool::RunEval(argc - 2, argv + 2);
  if (command == "box") return qwtool::RunBox(argc - 2, argv + 2);
  if (command == "strtable") return qwtool::RunStrTable(argc - 2, argv + 2);
  if (command == "log") return qwtool::RunLog(argc - 2, argv + 2);
  if (command == "lvm") return qwtool::RunLvm(argc - 2, argv + 2);
  if (command == "sort") return qwtool::RunSort(argc - 2, argv + 2);
  std::fprintf(stderr, "qwvm: unknown command \"%s\"\n", command.c_str());
  Usage(stderr);
  return 2;
}
