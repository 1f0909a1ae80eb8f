// The box and string-table parts of `qwvm dump` and `qwvm load`
// (docs/dump-format.md): a box as its entries ("entry ID BYTES", ids
// ascending), a string table as its pairs ("pair KEY VALUE", in key order).
// Both read the committed state of a read-only open and load into a new
// store with a committing checkpoint at the end.
#pragma once

#include <string>

#include "qwvm/qwvm.h"
#include "tools/qwvm/dump_format.h"

namespace qwtool {

bool DumpBoxEntries(BoxLVM *box, DumpWriter *out);
bool DumpStrTablePairs(LoggedStrTable *table, DumpWriter *out);

// Stores one "entry" / "pair" record; false with the error set.
bool LoadBoxEntry(BoxLVM *box, const std::vector<std::string> &fields, const DumpReader &reader);
bool LoadStrTablePair(LoggedStrTable *table, LoggedStrTableThreadData *threadData,
                      const std::vector<std::string> &fields, const DumpReader &reader);

}  // namespace qwtool
