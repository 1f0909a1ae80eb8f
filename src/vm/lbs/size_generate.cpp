// SizeGenerate: a development aid that prints candidate arena block sizes.
// Sizes grow geometrically from 64 bytes; each is moved, in steps of 8 bytes
// and by at most 15 %, to the size that wastes least of an 8192-byte block.
#include <cstdio>
#include <initializer_list>

#include "qwvm/vmarena.h"

namespace {

constexpr int kSizeCount = 24;
constexpr double kGrowth = 1.37;
constexpr int kBlock = 8192;

// The adjustment k (a multiple of 8 within 15 % of j) that makes
// kBlock % (j + k) smallest; the smallest |k| wins ties.
int BestAdjustment(int j) {
  const int reach = (j * 15 / 100) / 8 * 8;
  int best = 0;
  for (int step = 8; step <= reach; step += 8)
    for (int k : {-step, step})
      if (j + k > 0 && kBlock % (j + k) < kBlock % (j + best)) best = k;
  return best;
}

}  // namespace

extern "C" {

QW_API void SizeGenerate(void) {
  int sizes[kSizeCount];
  double size = 64;
  for (int i = 0; i < kSizeCount; ++i) {
    const int j = (int(size) + 7) / 8 * 8;
    const int k = BestAdjustment(j);
    std::printf("i = %d, j = %d, k = %d, j + k = %d, 8192 %% (j + k) = %d\n", i, j, k, j + k, kBlock % (j + k));
    sizes[i] = j + k;
    size *= kGrowth;
  }
  std::printf("f = %f\n", kGrowth);
  for (int i = 0; i < kSizeCount; ++i) std::printf("%d,", sizes[i]);
  std::printf("\n %d\n", kSizeCount);
}

}  // extern "C"
