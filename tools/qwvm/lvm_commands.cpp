// `qwvm log DIR` dumps a log record by record; `qwvm lvm DIR` prints the
// state of a logged arena and checks that its log reads cleanly. Both open
// read-only and change nothing.
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

int Fail(const char *command, const std::string &what) { return FailWithChain(command, what); }

std::string Serial(uint64_t serial) {
  if (serial == LOG_NO_SERIAL) return "none";
  char text[64];
  std::snprintf(text, sizeof text, "file %u, offset %u", LOG_SERIAL_FILE(serial), LOG_SERIAL_OFFSET(serial));
  return text;
}

}  // namespace

int ReadWholeLog(QWLog *log, uint64_t arenaSerial, LogWalk *walk) {
  LogReadContext *context = LogReadContextNew(log);
  if (!context) return 0;
  uint64_t serial = 0;
  int ok = LogFirstSerial(context, 0, &serial);
  walk->first = serial;
  std::vector<uint64_t> after;  // serials after the arena serial
  for (const uint64_t last = LogLastSerial(log); ok && serial <= last;) {
    uint32_t type = 0;
    unsigned char payload[8];
    uint32_t size = sizeof payload;
    uint64_t next = 0;
    if (!(ok = LogRead(context, serial, &type, payload, &size, &next, nullptr))) break;
    ++walk->records;
    if (serial > arenaSerial && type > LOG_FILE_TRAILER) after.push_back(serial);
    if (serial > arenaSerial && type == LVM_CHECKPOINT && size == 8) {
      walk->checkpoint = 0;
      for (int i = 7; i >= 0; --i) walk->checkpoint = walk->checkpoint << 8 | payload[i];
    }
    serial = next;
  }
  for (uint64_t s : after)
    if (walk->checkpoint != LOG_NO_SERIAL && s <= walk->checkpoint) ++walk->waiting;
  if (!ok) QWErrorSave();
  const int deleted = LogReadContextDelete(context);
  if (!ok) QWErrorRestore();
  return ok && deleted;
}

int RunLog(int argc, char **argv) {
  if (argc != 1) {
    std::fprintf(stderr, "usage: qwvm log DIR   (a log directory, or a logged arena holding one in DIR/log)\n");
    return 2;
  }
  std::string dir = argv[0];
  if (FileExists((dir + "/log").c_str()) && !FileExists((dir + "/00000001.qwlog").c_str())) dir += "/log";
  if (!LogDebug_(dir.c_str(), 1)) return Fail("log", "cannot read the log in \"" + dir + "\"");
  return 0;
}

int RunLvm(int argc, char **argv) {
  if (argc != 1) {
    std::fprintf(stderr, "usage: qwvm lvm DIR   (a logged arena: DIR/log and DIR/vm)\n");
    return 2;
  }
  const char *dir = argv[0];
  if (!FileExists((std::string(dir) + "/log").c_str()) || !FileExists((std::string(dir) + "/vm").c_str())) {
    std::fprintf(stderr, "qwvm lvm: \"%s\" is not a logged arena (no log and vm directories)\n", dir);
    return 1;
  }
  LoggedVM *lvm = LoggedVMOpen(dir, 1, 0, 1, nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  if (!lvm) return Fail("lvm", std::string("cannot open the logged arena in \"") + dir + "\"");
  QWLog *log = LoggedVMLogGet(lvm);
  const uint64_t arenaSerial = LoggedVMArenaSerialGet(lvm);
  uint32_t firstFile = 0, lastFile = 0;
  uint64_t bytes = 0;
  LogWalk walk;
  int status = 0;
  if (arenaSerial == LVM_NO_SERIAL) {
    status = Fail("lvm", "cannot read the arena serial");
  } else if (!LogFiles(log, &firstFile, &lastFile, &bytes)) {
    status = Fail("lvm", "cannot list the log files");
  } else {
    std::printf("logged arena %s\n", dir);
    std::printf("  arena serial:        %s\n", Serial(arenaSerial).c_str());
    std::printf("  log files:           %u to %u, %" PRIu64 " bytes\n", firstFile, lastFile, bytes);
    std::printf("  last log serial:     %s\n", Serial(LogLastSerial(log)).c_str());
    if (!ReadWholeLog(log, arenaSerial, &walk)) {
      status = Fail("lvm", "the log does not read cleanly");
    } else {
      std::printf("  first log serial:    %s\n", Serial(walk.first).c_str());
      std::printf("  waiting for replay:  %" PRIu64 " records (through %s)\n", walk.waiting,
                  Serial(walk.checkpoint).c_str());
      std::printf("  log reads cleanly:   %" PRIu64 " records\n", walk.records);
    }
  }
  QWErrorSave();
  LoggedVMClose(lvm);
  QWErrorRestore();
  UnAllocate(lvm);
  return status;
}

}  // namespace qwtool
