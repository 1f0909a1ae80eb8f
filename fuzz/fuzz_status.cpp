// Fuzzes the status-file reader and the file-array reader: the input is
// written as a directory's `status` file (first byte even) or as a file-array
// file read with each width (first byte odd). Reading must fail cleanly or
// succeed; a status that reads must write and read back the same.
#include "fuzz_support.h"

namespace {

std::string directory;

int CountParameter(void *context, uint32_t, uint64_t) {
  ++*static_cast<size_t *>(context);
  return 1;
}

void ReadStatus(const uint8_t *data, size_t size) {
  qwfuzz::WriteAll(directory + "/status", data, size);
  ::unlink((directory + "/status.new").c_str());
  QWStatus *status = StatusRead(directory.c_str());
  if (!status) return;
  size_t count = 0;
  StatusEnumerate(status, CountParameter, &count);
  // What reads must survive a write and a read back.
  if (!StatusWrite(status, directory.c_str())) std::abort();
  QWStatus *again = StatusRead(directory.c_str());
  if (!again) std::abort();
  size_t countAgain = 0;
  StatusEnumerate(again, CountParameter, &countAgain);
  if (countAgain != count) std::abort();
  StatusFree(again);
  StatusFree(status);
}

void ReadFileArray(const uint8_t *data, size_t size) {
  const std::string path = directory + "/farray";
  qwfuzz::WriteAll(path, data, size);
  for (uint32_t width : {0u, 4u, 8u}) {
    FArray array{};
    if (!FArrayInit_(&array, 8, 1024, nullptr)) std::abort();
    QWChannel *channel = ChannelNew(0);
    if (channel && ChannelOpenFile(channel, path.c_str(), "r")) {
      if (FArrayReadRaw_(&array, channel, width)) {
        uint64_t sum = 0;  // touch every element
        for (uint64_t i = 0; i < FArrayLength(&array); ++i) sum += *static_cast<uint64_t *>(FArrayNth(&array, i));
        (void)sum;
      }
    }
    if (channel) ChannelClose(channel);
    FArrayFree(&array);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  directory = qwfuzz::Start("status");
  if (const std::string seeds = qwfuzz::SeedDir(); !seeds.empty()) {
    QWStatus *status = StatusNew();
    StatusSetParameter(status, 1, 42);
    StatusSetParameter(status, 7, UINT64_MAX);
    StatusWrite(status, directory.c_str());
    StatusFree(status);
    // Seed: the selector byte 0, then the status file as written.
    qwfuzz::WriteAll(seeds + "/seed-status", std::string(1, '\0') + qwfuzz::ReadAll(directory + "/status"));
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  if (data[0] % 2 == 0)
    ReadStatus(data + 1, size - 1);
  else
    ReadFileArray(data + 1, size - 1);
  QWErrorClear();
  return 0;
}
