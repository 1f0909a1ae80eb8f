// Durability journal of the fault seam (see fault.h for the model).
//
// The file, path and mapping functions call these hooks only while
// fault::Tracking() is true. "Before" hooks journal what an operation is
// about to destroy; "After" hooks record what a successful operation did or
// mark things durable after a successful sync.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/qwlib/fault.h"

namespace qw::fault::track {

// Data of files.
void BeforeWrite(int fd, uint64_t offset, const void *data, size_t size) noexcept;
void BeforeSetSize(int fd, uint64_t size) noexcept;
void BeforePathSetSize(const char *path, uint64_t size) noexcept;  // no-op if missing
void AfterFileSync(int fd) noexcept;

// Names. A creation is recorded only when the path did not exist before.
void AfterCreate(const char *path) noexcept;
// What a rename or removal needs kept so that it can be undone.
struct Preserved {
  std::string backup;               // hard link to the file about to be replaced/removed, or ""
  bool targetWasDirectory = false;  // the rename replaces an (empty) directory
  bool noEffect = false;            // both names are one file: rename does nothing
};
Preserved BeforeRename(const char *from, const char *to) noexcept;
void AfterRename(const char *from, const char *to, const Preserved &kept, bool succeeded) noexcept;
Preserved BeforeRemove(const char *path) noexcept;
void AfterRemove(const char *path, const Preserved &kept, bool succeeded) noexcept;
void AfterMkdir(const char *path) noexcept;
void AfterRmdir(const char *path) noexcept;
void AfterDirectorySync(const char *path) noexcept;
bool IsBackupName(const char *name) noexcept;

// Writable mappings.
void AfterMap(int fd, void *address, uint64_t offset, uint64_t length) noexcept;
void AfterMapSync(const void *address, uint64_t length) noexcept;
void AfterUnmap(const void *address) noexcept;

// Forgets the journal: backups are deleted, the disk is left as it is.
void Clear() noexcept;

// Rewrites the disk as SimulatePowerLoss describes, then Clear().
void ApplyPowerLoss(PowerLoss mode, uint64_t seed) noexcept;

}  // namespace qw::fault::track
