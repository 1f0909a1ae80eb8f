// The log part of `qwvm copy` for logged stores (a logged arena, each box
// bucket, the dictionary of a string table).
//
// A logged store's state after recovery is its arena's committed generation
// (holding the arena serial s, the log's last record at that commit) plus
// the records from s up to the newest checkpoint record, replayed. The copy
// holds that shape exactly:
//  - the arena generation X with serial s (copy_arena.h);
//  - the source log from the file holding s, cut right after the newest
//    checkpoint record found at or after s (or right after s when there is
//    none): the copy's log is a prefix of the source's, as a crash there
//    would leave it, and its recovery replays through that checkpoint;
//  - the external data files (a box bucket's values), copied after the
//    log was scanned: the values of the records up to the checkpoint were
//    written before its record, so before the scan;
//  - then the source log is scanned again from the cut: a checkpoint record
//    written in between could have recycled blocks that the copied state
//    still uses (blocks freed after a checkpoint are reused only after the
//    next one), so any new checkpoint record throws the copy away.
// Together with the unchanged arena generation (no commit, so no log
// truncation past s either), every part of a store is copied as it stood at
// one instant between the last first scan and the first second scan: the
// state a crash at that instant would recover.
#pragma once

#include <cstdint>
#include <string>

namespace qwtool {

// What a read-only scan of the log in `logDir` from serial `from` found.
struct LogScan {
  uint64_t fromNext = 0;        // the serial after the record at `from`
  uint64_t checkpointNext = 0;  // the serial after the newest checkpoint record; 0 when none
  bool checkpoint = false;
};

// Scans the log from `from` to its readable end (a record that does not
// read ends the scan). False with the error set when the log does not open
// or has no record at `from`.
bool ScanLog(const std::string &logDir, uint64_t from, LogScan *scan);

// Copies the log files of `logDir` from the one holding `first` through the
// one holding `end`, the last cut at `end`, into `toDir` (created).
bool CopyLogPrefix(const std::string &logDir, uint64_t first, uint64_t end, const std::string &toDir);

// The arena serial of the logged arena whose arena lies in `vmDir`, read from
// its committed generation; false with the error set.
bool ReadArenaSerial(const std::string &vmDir, uint64_t *serial);

}  // namespace qwtool
