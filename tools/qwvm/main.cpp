// qwvm: the command-line face of the library.
#include <unistd.h>

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
               "  dump DIR [--structure NAME] [--progress]\n"
               "                                    write the committed state of the store in DIR to stdout\n"
               "                                    as text (docs/dump-format.md); qwvm help dump\n"
               "  load DIR [--structure NAME] [--progress] [FILE]\n"
               "                                    build a new store in DIR from a dump (FILE or stdin)\n"
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
               "  help [CMD]                        this text, or what CMD takes (check, stat, copy,\n"
               "                                    dump, load, box, strtable, sort, sfs, eval, log, lvm)\n");
}

// What `qwvm help CMD` and `qwvm CMD --help` print for the commands without
// a help of their own; false for other commands.
bool CommandHelp(const std::string &command) {
  static const struct {
    const char *command, *text;
  } kHelp[] = {
      {"tour", "usage: qwvm tour [DIR]\n"
               "  Creates DIR (default ./qwvm-tour; it must not hold a tour already) and walks through the\n"
               "  stores, printing each step: an arena, arrays by name, trees, a small file store, boolean\n"
               "  queries, a logged arena with recovery, a box and a string table. DIR then holds one store\n"
               "  of each kind for check, stat, copy, dump and load to work on.\n"},
      {"log", "usage: qwvm log DIR\n"
              "  Prints every record of the log in DIR (or DIR/log, for a logged arena), one line each,\n"
              "  with its file, offset and decoded payload. Exit status 1 when the log does not read.\n"},
      {"lvm", "usage: qwvm lvm DIR\n"
              "  Prints a logged arena's arena serial and log range, and reads its log through (DIR/log\n"
              "  and DIR/vm). Exit status 1 when either does not read.\n"},
      {"sort", "usage: qwvm sort [-r] [-S SIZE] [-T DIR] [--compress] [--parallel N] [-o OUT] [--progress]\n"
               "                 [FILE...]\n"
               "       qwvm sort --resume DIR [-o OUT]\n"
               "  Sorts the lines of the FILEs (or stdin; \"-\" is stdin) byte-wise, as LC_ALL=C sort does.\n"
               "  -r            reverse the order\n"
               "  -S SIZE       memory for runs: a number with b, K (the default), M, G or T, or N% of the memory\n"
               "  -T DIR        keep the sort's state in DIR/qwvm-sort until the output is written, so\n"
               "                that a stopped sort can be finished with --resume DIR\n"
               "  --compress    compress the runs\n"
               "  --parallel N  sort runs in N threads\n"
               "  -o OUT        write to OUT instead of stdout\n"
               "  --progress    print progress on stderr\n"},
  };
  for (const auto &help : kHelp)
    if (command == help.command) return std::fputs(help.text, stdout), true;
  return false;
}

// The library reports long work (a log replayed during recovery, commits of
// logged stores) as progress messages on stderr. A command prints them when
// stderr is a terminal or with --progress, as its own progress; on a pipe only
// warnings and errors reach stderr. The tour shows everything it does.
void QuietUnlessAskedForProgress(int argc, char **argv) {
  if (std::strcmp(argv[1], "tour") == 0 || isatty(STDERR_FILENO)) return;
  for (int i = 2; i < argc; ++i)
    if (std::strcmp(argv[i], "--progress") == 0) return;
  QWSetMessageThreshold(QW_LEVEL_WARNING);
}

}  // namespace

int main(int argc, char **argv) {
  // `qwvm help CMD` is `qwvm CMD --help` for the commands that have more to tell.
  char helpFlag[] = "--help";
  char *helpArguments[] = {helpFlag};
  if (argc == 3 && (std::strcmp(argv[2], "--help") == 0 || std::strcmp(argv[2], "-h") == 0) &&
      CommandHelp(argv[1]))
    return 0;
  if (argc == 3 && std::strcmp(argv[1], "help") == 0) {
    const std::string topic = argv[2];
    if (CommandHelp(topic)) return 0;
    if (topic == "sfs") return qwtool::RunSfs(1, helpArguments);
    if (topic == "eval") return qwtool::RunEval(1, helpArguments);
    if (topic == "check") return qwtool::RunCheck(1, helpArguments);
    if (topic == "stat") return qwtool::RunStat(1, helpArguments);
    if (topic == "copy") return qwtool::RunCopy(1, helpArguments);
    if (topic == "dump") return qwtool::RunDump(1, helpArguments);
    if (topic == "load") return qwtool::RunLoad(1, helpArguments);
    if (topic == "box") return qwtool::RunBox(1, helpArguments);
    if (topic == "strtable") return qwtool::RunStrTable(1, helpArguments);
    std::fprintf(stderr, "qwvm help: unknown command \"%s\"\n", topic.c_str());
    return 2;
  }
  if (argc < 2 || std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0) {
    Usage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  QuietUnlessAskedForProgress(argc, argv);
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
