// The page-cache lookup that the block layer uses for its reads: the C
// interface's PageCacheLookup plus the byte of the page the caller reads
// first. A hit asks for that line while it checks its frame, so the frame's
// miss and the data's overlap instead of following each other.
#pragma once

#include <cstdint>

#include "qwvm/qwcache.h"

[[nodiscard]] void *PageCacheLookupWithin(PageCache *cache, uint16_t fileId, uint64_t offset, uint32_t within,
                                          int create, int *valid);
