// The local block server: fixed-size logical blocks kept copy-on-write in the
// raw blocks of one data file, with a committed (old) and a writable (new)
// block map, flushed and committed through serial-numbered or atomically
// renamed index files. The arena opens one per bucket and drives it; nothing
// else calls these functions.
//
// Generations: NEWGEN (0) reads and writes the new block map; OLDGEN (1) reads
// the committed map and takes no lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qwvm/qwcache.h"
#include "qwvm/qwlog.h"
#include "qwvm/vmarena.h"

namespace qw {
class SyncRound;
}

namespace qw::vm {

// Per-block flag bits of the new generation.
inline constexpr uint8_t BLOCK_FLAG_SHARED = 1;  // the raw block is the old generation's: copy before writing
inline constexpr uint8_t BLOCK_FLAG_FREED = 2;   // freed in this generation
inline constexpr uint8_t BLOCK_FLAG_COPIED = 4;  // written in this generation, on the modified list

inline constexpr uint32_t kServerBlockSize = 8192;
inline constexpr uint32_t kFileBlockSize = 65536;
inline constexpr uint32_t kMinBlockCount = 8;

// Opens the server of `directory` with `suffix` (bucket number in hex),
// creating its files when they are missing. NULL with the error chain set.
[[nodiscard]] LocalBlockServer0 *LocalBlockServer0Open_(const char *directory, const char *suffix, uint32_t flags,
                                                        uint32_t blockSize, uint32_t fileBlockSize,
                                                        uint32_t minBlockCount, uint64_t oldSerial,
                                                        uint64_t newSerial, ReplicationLog *replicationLog,
                                                        PageCache *cache);
// Frees the server (no flush). Returns 1, or 0 with an error (the server is
// freed in every case).
int LocalBlockServer0Close(LocalBlockServer0 *server);

// Blocks of the new generation. BlockNew returns INVALID_BLOCK_ID when no
// raw block can be had.
[[nodiscard]] uint32_t LocalBlockServer0BlockNew(LocalBlockServer0 *server, uint32_t argument);
void LocalBlockServer0BlockFree(LocalBlockServer0 *server, uint32_t blockId);

// Raw block of `blockId` for reading in `generation` (no copy), or
// INVALID_RAW_BLOCK_ID when the id is out of range or the block is freed.
[[nodiscard]] uint32_t LocalBlockServer0RawIdRead(LocalBlockServer0 *server, uint32_t blockId, uint32_t generation);
// Raw block of `blockId` for writing: copies a shared block first.
[[nodiscard]] uint32_t LocalBlockServer0RawIdWrite(LocalBlockServer0 *server, uint32_t blockId);

// Memory of a raw block: a pinned page-cache page below the committed size
// (page-cache mode), the mapped file (mapped mode) or the read-write part.
// NULL with an error. Every successful get is paired with a release.
// `within` as for MemoryMappingRawBlockGet: the byte read first, a hint.
[[nodiscard]] void *LocalBlockServer0RawBlockGet(LocalBlockServer0 *server, uint32_t rawId, uint32_t within = 0);
// Releases memory from RawBlockGet; does nothing for memory that is not a
// cache page. `dirty` when it was written.
void LocalBlockServer0RawBlockRelease(LocalBlockServer0 *server, void *address, int dirty, int keep, int keepLong);
int LocalBlockServer0RawBlockPrefetch(LocalBlockServer0 *server, uint32_t rawId);

// Flush and commit steps (under the arena's flush lock).
[[nodiscard]] int LocalBlockServer0FlushStart(LocalBlockServer0 *server, uint64_t flushedSerialOld,
                                              uint64_t flushedSerialNew);
[[nodiscard]] int LocalBlockServer0FlushFileExec(LocalBlockServer0 *server);
// The flush execute in two halves, for a caller that syncs the files of
// several servers in one round: FlushWrite folds the generation and writes
// the data file and both index files without syncing them, adding their
// syncs and the directory's to `round`; after the round has run, FlushFinish
// closes and logs the index files and reads the old one back. Either half
// failing ends the flush: the flush stop removes what was left unfinished.
// LocalBlockServer0FlushFileExec = FlushWrite + round + FlushFinish.
[[nodiscard]] int LocalBlockServer0FlushWrite(LocalBlockServer0 *server, qw::SyncRound *round);
[[nodiscard]] int LocalBlockServer0FlushFinish(LocalBlockServer0 *server);
// Hands the data file's dirty cached pages to the operating system without
// syncing (flush start: most of the writing happens before the flush lock).
int LocalBlockServer0MappingWriteBack(LocalBlockServer0 *server);
// Renames the index files into place; with `durable` false the directory is
// not synced (see IndexFileCommitNew).
[[nodiscard]] int LocalBlockServer0CommitDisk(LocalBlockServer0 *server, bool durable = true);
[[nodiscard]] int LocalBlockServer0CommitMemory(LocalBlockServer0 *server);
void LocalBlockServer0FlushStop(LocalBlockServer0 *server);
// `indexS.new.new` -> `indexS.new` and `indexS.old.new` -> `indexS.old`
// (unserialised servers), each tolerating a target already committed. With
// `durable` false the directory is not synced: the caller syncs it once
// after committing every server (the disk commit does, under the arena's
// `committing` marker).
[[nodiscard]] int IndexFileCommitNew(const char *directory, const char *suffix, bool durable = true);
[[nodiscard]] int IndexFileCommitOld(const char *directory, const char *suffix, bool durable = true);
// Mapping flush (mode 1 at flush start, 0 inside flush exec).
int LocalBlockServer0MappingFlush(LocalBlockServer0 *server, int mode);
// Reads generation (oldSerial, newSerial) of a serialised server.
[[nodiscard]] int LocalBlockServer0Mount(LocalBlockServer0 *server, uint64_t oldSerial, uint64_t newSerial);
// Removes the index files of a serialised generation.
int LocalBlockServer0UnlinkGeneration(LocalBlockServer0 *server, uint64_t oldSerial, uint64_t newSerial);

// Forwarding helpers and read-only state.
int LocalBlockServer0MemoryAdvise(LocalBlockServer0 *server, int advice);
int LocalBlockServer0MSync(LocalBlockServer0 *server);
uint32_t LocalBlockServer0BlockCount(LocalBlockServer0 *server);     // new generation
uint32_t LocalBlockServer0OldBlockCount(LocalBlockServer0 *server);  // old generation
int LocalBlockServer0IsMapped(LocalBlockServer0 *server);

}  // namespace qw::vm
