// Whole-buffer positional I/O over POSIX descriptors, shared by the file
// functions and the fault seam's durability tracking.
//
// pread/pwrite may transfer fewer bytes than asked (signals, very large
// requests) and may fail with EINTR; these helpers loop until the whole
// request is done, the end of the file is reached, or a real error occurs.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace qw::io {

// Reads up to `size` bytes at `offset`, stopping early only at the end of the
// file. Stores the count read in *done. Returns false with errno set on error
// (*done then holds what was read before the error).
[[nodiscard]] bool ReadFull(int fd, void *buffer, size_t size, uint64_t offset, size_t *done) noexcept;

// Writes all `size` bytes at `offset`. Returns false with errno set on error.
[[nodiscard]] bool WriteFull(int fd, const void *buffer, size_t size, uint64_t offset) noexcept;

// ftruncate retried on EINTR. Returns false with errno set on error.
[[nodiscard]] bool SetSize(int fd, uint64_t size) noexcept;

// The size of the open file, or false with errno set.
[[nodiscard]] bool GetSize(int fd, uint64_t *size) noexcept;

}  // namespace qw::io
