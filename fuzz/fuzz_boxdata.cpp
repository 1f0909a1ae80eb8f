// Fuzzes the box data block decoder with damaged blocks. Byte 0 picks the
// handle's unit within page 1 and byte 1 the part index the reader expects;
// the rest is written at the handle. Decoding (with and without the header
// check) and reading the size class must fail cleanly, or hand out data that
// lies inside the page and matches its stored checksum.
// QWVM_FUZZ_WRITE_SEEDS=<dir> writes a good version 0 block as a seed.
#include <cstring>

#include "fuzz_support.h"

namespace {

BoxLVMDataFile *file;
BoxLVMDataFileThreadData *threadData;
uint8_t page[BOXLVM_PAGE_SIZE];

uint32_t Checksum(const uint8_t *data, uint32_t length) {
  uint32_t h = 0;
  for (uint32_t i = 0; i < length; ++i) h = (h * 16777619u) ^ data[i];
  return h;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  file = BoxLVMDataFileOpen(qwfuzz::Start("boxdata").c_str(), 2, 1, 0, 0, 0, 1, nullptr);
  threadData = BoxLVMDataFileThreadDataNew();
  if (!file || !threadData) std::abort();
  if (const std::string seeds = qwfuzz::SeedDir(); !seeds.empty()) {
    const char data[] = "a value of some length, more than twenty bytes";
    std::string seed(2 + 96, '\0');
    seed[0] = 4;
    if (!BoxLVMDataBlockEncodeWrite(file, threadData, 256 + 4, sizeof data, data, 2, 9, 0, ~0u, 0, 0) ||
        !BoxLVMDataBlockRead(file, 256 + 4, 96, &seed[2]))
      std::abort();
    qwfuzz::WriteAll(seeds + "/seed-v0", seed);
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size) {
  if (size < 2) return 0;
  const uint32_t unit = input[0], handle = BOXLVM_PAGEUNITS + unit;
  const uint32_t room = (BOXLVM_PAGEUNITS - unit) * BOXLVM_UNIT_SIZE;
  std::memset(page, 0, sizeof page);
  std::memcpy(page, input + 2, size - 2 < room ? size - 2 : room);
  if (!BoxLVMDataBlockWrite(file, handle, room, page)) std::abort();
  for (int check = 0; check < 2; ++check) {
    uint32_t id = 0, part = 0, next = 0, sizeClass = 0, length = 0;
    uint64_t stamp = 0;
    const uint8_t *data = nullptr;
    if (!BoxLVMDataBlockReadDecode(file, threadData, handle, check, 9, input[1], ~0u, &id, &part, &next, &stamp,
                                   &sizeClass, &length, &data))
      continue;
    const uint32_t header = page[13] == 0 ? 20 : 28;
    const uint8_t *stored = page + header - 4;  // the checksum precedes the data
    if (length == 0 || header + length > room || std::memcmp(data, page + header, length) != 0 ||
        Checksum(data, length) != (stored[0] | stored[1] << 8 | stored[2] << 16 | uint32_t(stored[3]) << 24) ||
        (check && (id != 9 || part != input[1] || next != ~0u)))
      std::abort();
  }
  uint32_t sizeClass = 0;
  if (BoxLVMDataBlockSizeGet(file, handle, &sizeClass) && unit + sizeClass + 1 > BOXLVM_PAGEUNITS) std::abort();
  QWErrorClear();
  return 0;
}
