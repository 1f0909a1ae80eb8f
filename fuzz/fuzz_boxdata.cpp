// Fuzzes the box data block decoder: each input is a damaged block. Byte 0
// picks the handle's unit within the second page, byte 1 the expected part
// index; the rest is written at the handle, and the block is decoded (with
// and without the header check) and its size class read. Decoding must fail
// cleanly or hand out data that lies inside the page and matches the stored
// checksum.
//
// QWVM_FUZZ_WRITE_SEEDS=<dir> writes a version 0 and a version 1 block as
// seeds.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qwvm/qwvm.h"

namespace {

BoxLVMDataFile *file;
BoxLVMDataFileThreadData *threadData;
uint8_t page[BOXLVM_PAGE_SIZE];

void Quiet(void *, int, const char *, int, const char *) {}

uint32_t Checksum(const uint8_t *data, uint32_t length) {
  uint32_t h = 0;
  for (uint32_t i = 0; i < length; ++i) h = (h * 16777619u) ^ data[i];
  return h;
}

void WriteSeed(const char *dir, const char *name, const std::string &bytes) {
  FILE *out = std::fopen((std::string(dir) + "/" + name).c_str(), "wb");
  if (!out) std::abort();
  std::fwrite(bytes.data(), 1, bytes.size(), out);
  std::fclose(out);
}

void WriteSeeds(const char *dir) {
  const char data[] = "a value of some length, more than twenty bytes";
  if (!BoxLVMDataBlockEncodeWrite(file, threadData, 256 + 4, sizeof data, data, 1, 9, 0, BOXLVM_NO_HANDLE, 0, 0))
    std::abort();
  std::string block(64, '\0');
  if (!BoxLVMDataBlockRead(file, 256 + 4, 64, block.data())) std::abort();
  WriteSeed(dir, "seed-v0", std::string(1, '\4') + std::string(1, '\0') + block);
  block[13] = 1;  // version 1: a stamp, the checksum at 24, the data at 28
  block.replace(28, 20, block.substr(20, 20));
  const uint32_t sum = Checksum(reinterpret_cast<const uint8_t *>(block.data()) + 28, 20);
  block.replace(14, 2, std::string("\x14\x00", 2));
  block.replace(16, 8, std::string(8, '\x5A'));
  for (int i = 0; i < 4; ++i) block[24 + i] = char(sum >> (8 * i));
  WriteSeed(dir, "seed-v1", std::string(1, '\4') + std::string(1, '\0') + block);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  QWSetMessageHandler(Quiet, nullptr, nullptr);
  char pattern[] = "/tmp/qwvm-fuzz-boxdata-XXXXXX";
  const char *dir = mkdtemp(pattern);
  file = dir ? BoxLVMDataFileOpen(dir, 2, 1, 0, 0, 0, 1, nullptr) : nullptr;
  threadData = BoxLVMDataFileThreadDataNew();
  if (!file || !threadData) std::abort();
  if (const char *seeds = std::getenv("QWVM_FUZZ_WRITE_SEEDS")) {
    WriteSeeds(seeds);
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size) {
  if (size < 2) return 0;
  const uint32_t unit = input[0];
  const uint32_t handle = BOXLVM_PAGEUNITS + unit;
  const uint32_t room = (BOXLVM_PAGEUNITS - unit) * BOXLVM_UNIT_SIZE;
  std::memset(page, 0, sizeof page);
  std::memcpy(page, input + 2, size - 2 < room ? size - 2 : room);
  if (!BoxLVMDataBlockWrite(file, handle, room, page)) std::abort();
  for (int check = 0; check < 2; ++check) {
    uint32_t id = 0, part = 0, next = 0, sizeClass = 0, length = 0;
    uint64_t stamp = 0;
    const uint8_t *data = nullptr;
    if (!BoxLVMDataBlockReadDecode(file, threadData, handle, check, 9, input[1], BOXLVM_NO_HANDLE, &id, &part, &next,
                                   &stamp, &sizeClass, &length, &data)) {
      QWErrorClear();
      continue;
    }
    const uint32_t header = page[13] == 0 ? 20 : 28;
    if (length == 0 || header + length > room || std::memcmp(data, page + header, length) != 0) std::abort();
    const uint8_t *stored = page + header - 4;
    if (Checksum(data, length) != (stored[0] | stored[1] << 8 | stored[2] << 16 | uint32_t(stored[3]) << 24))
      std::abort();
    if (check && (id != 9 || part != input[1] || next != BOXLVM_NO_HANDLE)) std::abort();
  }
  uint32_t sizeClass = 0;
  if (BoxLVMDataBlockSizeGet(file, handle, &sizeClass) && unit + sizeClass + 1 > BOXLVM_PAGEUNITS) std::abort();
  QWErrorClear();
  return 0;
}
